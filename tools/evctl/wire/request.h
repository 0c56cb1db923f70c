/**
 * @file
 * What the subcommands share that ask the event manager something.
 */
#ifndef EVCTL_REQUEST_H
#define EVCTL_REQUEST_H

#include "evctl/wire/blade_options.h"
#include "evctl/wire/session.h"

namespace evctl {

/** Longer than the event manager waits for an archiver: 15 s and a pass of its timers. */
constexpr double REQUEST_TIMEOUT_DEFAULT = 20;

/** Who asks, where, and how long to wait for each answer. */
struct RequestOptions {
    SwitchOptions where;
    U32_t endpoint = MMSG_E_EPID_SNMPMP;
    double timeout = REQUEST_TIMEOUT_DEFAULT; ///< seconds
};

/** Adds --dir, --key, --endpoint and --timeout. */
void addRequestOptions(CLI::App& command, RequestOptions& options);

/** A text of a fixed-size field, filled up with zeros. @p text has at most @p size bytes. */
void setFieldText(U8_t* field, size_t size, const std::string& text);

/** A session that asks. */
class Requester {
  public:
    /** Connects. Throws SessionError. */
    explicit Requester(const RequestOptions& options);

    /**
     * @param bodyLength bytes of the reply's body that must have come
     * @return the reply. Throws SessionError also when none comes in time, or one that is too short
     */
    Bytes ask(const Bytes& message, size_t bodyLength);

    U32_t endpoint() const { return options_.endpoint; }

  private:
    const RequestOptions& options_;
    Session session_;
};

} // namespace evctl

#endif
