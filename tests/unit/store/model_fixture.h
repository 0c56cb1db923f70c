/**
 * @file
 * The product and the model side by side. Bug-checks are thrown here, not died of: the program that
 * holds these tests replaces empFault.
 */
#ifndef TESTS_UNIT_STORE_MODEL_FIXTURE_H
#define TESTS_UNIT_STORE_MODEL_FIXTURE_H

#include "log_model.h"
#include "store_fixture.h"

#include <functional>
#include <random>

class ModelTest : public StoreTest {
  protected:
    ModelTest() { hooks::state.clock = logimage::TIME; }

    /** Scans an image with both. @return the text of the bug-check that both end in, or "" */
    std::string scanBoth(const logimage::Image& image);
    /** Opens an image in both without the scan. */
    void openImage(const logimage::Image& image);
    /** A new start of both on the file as it is. */
    std::string restartBoth();
    /** Appends an event with both. @return as scanBoth() */
    std::string appendBoth(size_t size, uint8_t source = 17, uint16_t evId = 7);
    std::string appendBodyBoth(const logimage::Bytes& body, uint8_t source = 17, uint16_t evId = 7);

    /** One step of both, compared. @return as scanBoth() */
    std::string both(const std::function<void()>& product, const std::function<void()>& modelled);

    /** Gives empDebug this value at each start: 0 makes long series faster. */
    void debugLines(bool on) { debugLines_ = on; }

    logmodel::Log model{};
    bool rebuilt = false;       ///< the last scan started the log again
    std::string lastOutput{};   ///< of the last step
    std::string lastFunction{}; ///< of the last bug-check
    std::string where{};        ///< said with every difference

  private:
    void expectSame(const std::string& bugCheck);
    void expectSameFile(const std::string& path, const logimage::Bytes& wanted);

    bool debugLines_ = true;
};

#endif
