/**
 * @file
 * A real event manager and a real archiver that fails again and again.
 */
#ifndef OUTAGE_FIXTURE_H
#define OUTAGE_FIXTURE_H

#include "blade.h"
#include "msm_reader.h"
#include "process.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>

class OutageTest : public testing::Test {
  protected:
    OutageTest();
    ~OutageTest() override;

    /** Starts the archiver, with a small receive buffer, always at the same port. */
    void startArchiver(const std::vector<std::string>& arguments = {});

    /** The same with buffers as the system gives them. */
    void startWideArchiver();

    /** Ends it; it must not take the log for another one. */
    void stopArchiver();
    void killArchiver();

    /** Logs @p count events of up to 60 bytes. An event manager that ends by the bug-check of its
     * forward list is started again. */
    void log(size_t count);

    /** Logs @p count events of the largest size, which are multiples of four. */
    void logLarge(size_t count);

    /** Whether the event manager has found the link to be full. */
    bool hasMetAFullLink() const;

    /** Stops the archiver and logs events of the largest size until the link is full. */
    void stall();

    /** Names the archiver, or lets the reconnect timer run out, whichever a coin says. */
    void bringBack();
    void nameArchiver();
    void passReconnectTime();

    /** Until the archiver has all events that were logged, with as many new connections as that
     * takes. */
    void settle();

    /** Number of events that were logged. */
    size_t eventsSoFar() const;

    /** Ends the event manager, so that its log and copies_ stand still. */
    void killEmp();

    /** What the archive holds of this blade. */
    EventBodies archived() const;

    /** What the blade's log holds. */
    EventBodies logged() const;

    /** A number that is the same in every run. */
    size_t random(size_t below) { return random_() % below; }

    EventBodies copies_; ///< of all events that were logged; they grow until killEmp()
    size_t deaths_ = 0;  ///< of the event manager
    size_t stuck_ = 0;   ///< links that were up and brought nothing
    std::unique_ptr<support::Process> archiver_;
    std::string database_;

  private:
    void launchArchiver(std::vector<std::string> arguments);
    void startEmp();
    void reviveEmp();
    void send(const support::Bytes& message);
    bool isAlive();
    bool isConnected();
    U32_t held() const; ///< the archive has all ids up to here
    void store(const support::Bytes& data, size_t batch);
    void forgetOutput() const;

    std::mt19937 random_{20'000};
    Blade blade_;
    U16_t port_;
    int archiverStarts_ = 0;
    std::unique_ptr<RunningEmp> emp_;
    std::unique_ptr<MsmReader> reader_;
};

#endif
