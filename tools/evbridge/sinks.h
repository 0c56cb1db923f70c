/**
 * @file
 * The receivers that there are.
 */
#ifndef EVBRIDGE_SINKS_H
#define EVBRIDGE_SINKS_H

#include "channel.h"
#include "sink.h"

namespace evbridge {

/** syslog: a datagram each, or each with its length in front (RFC 6587, 5425) on a stream. What a
 * receiver's system has acknowledged counts as taken: the protocol has no answer. */
std::unique_ptr<Sink> syslogSink(std::unique_ptr<Channel> channel, bool isStream, U32_t enterprise);

/** syslog over RELP, whose every message is answered. */
std::unique_ptr<Sink> relpSink(std::unique_ptr<Channel> channel, U32_t enterprise);

/** The journal's own protocol: fields, a datagram each. */
std::unique_ptr<Sink> journalSink(std::unique_ptr<Channel> channel);

/** SNMP, version 2c: an INFORM for each error and warning, which is answered. What is more than the
 * rate is counted, and told as a number when its minute is over.
 * @param place as in inetPlace()
 * @param suppressed what suppressed() of an earlier one said */
std::unique_ptr<Sink> snmpSink(const std::string& place, const SnmpOptions& options,
                               U32_t enterprise, U64_t suppressed);

} // namespace evbridge

#endif
