/**
 * @file
 * The records of bug-checks, made for tests.
 */
#ifndef EVCTL_TEST_CRASH_RECORDS_H
#define EVCTL_TEST_CRASH_RECORDS_H

#include "evlog/evlog.h"

#include <deque>
#include <string>
#include <vector>

namespace test {

/** A log of records in memory; sequence ids count from 1. */
class CrashLog {
  public:
    /** Adds an event of source 27. @param fill first byte of its data, the others being 0 */
    void add(U32_t id, U32_t time, U8_t fill = 0) { add(id, time, bodyOf(id, fill)); }
    void add(U32_t id, U32_t time, const std::vector<U8_t>& body, U8_t source = 27) {
        EmpEvRecord_t header{};
        header.evSource = source;
        header.evId = static_cast<U16_t>(id);
        header.evTime = time;
        header.evSequenceId = ++lastId_;
        header.evStructLength = static_cast<U16_t>(body.size());
        header.evSlotId = 2;
        headers_.push_back(header);
        bodies_.push_back(body);
        records_.push_back({.header = &headers_.back(), .body = bodies_.back()});
    }
    void addRange(U32_t first, U32_t last, U32_t time, U8_t fill = 0) {
        for (U32_t id = first; id <= last; id++) {
            add(id, time, fill);
        }
    }
    static std::vector<U8_t> bodyOf(U32_t id, U8_t fill) {
        size_t length = id == 11 ? 196 : id == 12 ? 460 : id < 15 ? 256 : 2000;
        std::vector<U8_t> body(length);
        body[0] = fill;
        return body;
    }
    const std::vector<EvlogRecord_t>& records() const { return records_; }

  private:
    U32_t lastId_ = 0;
    std::deque<EmpEvRecord_t> headers_; // where they are, they stay
    std::deque<std::vector<U8_t>> bodies_;
    std::vector<EvlogRecord_t> records_;
};

} // namespace test

#endif
