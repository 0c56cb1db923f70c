/**
 * @file
 * Logs without names and data: for people who need only ids, times, sources and types.
 */
#ifndef EVCTL_REDACT_H
#define EVCTL_REDACT_H

#include "evctl/views/event_view.h"

#include <map>
#include <string>
#include <vector>

namespace evctl {

/** Gives every name another one, the same each time it comes. */
class Redaction {
  public:
    /**
     * A log of the same size with the same records at the same places: enclosures and blades have
     * other names, data are zeros but for the known message of a bug-check, checksums match. What
     * lies between records is zero.
     */
    std::vector<U8_t> log(const EvlogImage_t& image);

    /** One record with its data, as in an alternate event file; empty when it is none. */
    std::vector<U8_t> record(std::span<const U8_t> bytes);

    /** An object without its texts and serial numbers: "redacted" stands for each. The state of the
     * link, versions and the words for vendor, product and revision stay. */
    static Json object(Json json);

  private:
    void redact(U8_t* record, U32_t dataLength);
    void rename(U8_t (&text)[EMP_ID_TEXT_SIZE], const char* kind);

    std::map<std::string, std::string> names_; ///< by kind and name
};

} // namespace evctl

#endif
