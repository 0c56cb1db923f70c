/**
 * @file
 * Sees events that were sent come back as copies for the management interface: the only sign that
 * the event manager has taken them in.
 */
#ifndef EVCTL_CONFIRM_H
#define EVCTL_CONFIRM_H

#include "evctl/wire/session.h"

#include <functional>
#include <string>

namespace evctl {

/** Whether @p copy is what the event manager makes of @p sent: all that the sender gave is there,
 * and the event manager's own fields are filled in. */
bool isCopyOf(const Bytes& copy, const Bytes& sent);

/** Listens as the management interface from its construction on. */
class Confirmer {
  public:
    using OnStored = std::function<void(const EmpEvLogHeader_t& header)>;

    /**
     * @param sent     the message that is sent, again and again
     * @param patience how long to wait for a copy after the last one, or after the last event
     * @param onStored called for each copy
     */
    Confirmer(const std::string& directory, const Bytes& sent, std::chrono::milliseconds patience,
              OnStored onStored);

    /** An event is about to be sent. Waits while too many copies are outstanding: those are counted
     * as missing when none comes in time. */
    void beforeSending();

    /** Waits for the copies that are outstanding. @return how many never came */
    U64_t missing();

  private:
    bool waitForOne();

    Session session_;
    const Bytes& sent_;
    std::chrono::milliseconds patience_;
    OnStored onStored_;
    U64_t outstanding_ = 0;
    U64_t missing_ = 0;
};

} // namespace evctl

#endif
