/**
 * @file
 * Inquiries: one stored event at a time, of this blade or of another one.
 */
#ifndef EVCTL_INQUIRY_H
#define EVCTL_INQUIRY_H

#include "evctl/wire/request.h"
#include "sources/event.h"

#include <optional>
#include <string>

namespace evctl {

using sources::EventView;

/** Whose log. Texts of at most 64 bytes. */
struct LogIdentity {
    std::string enclosure;
    std::string blade;
    U32_t slot = 0;
    U32_t instance = 0;

    bool operator==(const LogIdentity&) const = default;
};

/** The log that an event says it belongs to. */
LogIdentity identityOf(const EmpEvLogHeader_t& header);

/** A request for an event. @param requestor the sender's endpoint */
Bytes makeInquiry(U32_t requestor, EMP_INQUIRY_TYPE_e type, const LogIdentity& identity,
                  U32_t sequenceId);

/** What came back. */
struct InquiryAnswer {
    Bytes message;
    U32_t returnCode = 0;

    bool found() const { return returnCode == EMP_E_RESPONSE_SUCCESS; }
    EventView event() const; ///< only when found; leads into message
};

/** Asks. Throws SessionError when no whole answer comes in time. */
InquiryAnswer inquire(Requester& requester, EMP_INQUIRY_TYPE_e type, const LogIdentity& identity,
                      U32_t sequenceId);

/** Says on standard error why an answer holds no event. @return EXIT_FINDING */
int sayNotFound(const InquiryAnswer& answer, const std::string& more = "");

/** The log asked about: what is not given is this blade's. */
struct IdentityOptions {
    std::optional<std::string> enclosure;
    std::optional<std::string> blade;
    std::optional<U32_t> slot;
    std::optional<U32_t> instance;

    /** @return whether a log is named at all */
    bool given() const { return enclosure || blade || slot || instance; }
};

/** Adds --enclosure, --blade, --slot and --instance. */
void addIdentityOptions(CLI::App& command, IdentityOptions& options);

/**
 * The identity asked about. What the options leave open comes from the parameter block when that is
 * named, and else from the newest event of the blade's own log, for which the event manager is
 * asked. Throws SessionError.
 */
LogIdentity resolveIdentity(Requester& requester, const IdentityOptions& options,
                            const SwitchOptions& where);

} // namespace evctl

#endif
