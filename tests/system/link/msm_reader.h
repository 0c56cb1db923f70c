/**
 * @file
 * The reading half of a message switch: takes everything that an event manager sends, at once, so
 * that it never waits.
 */
#ifndef MSM_READER_H
#define MSM_READER_H

#include "mmsg_client.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

/** Event bodies, 152 bytes and the data, by sequence id. */
using EventBodies = std::map<U32_t, support::Bytes>;

class MsmReader {
  public:
    /** Reads until the connection ends. @param copies receives the copies of events */
    MsmReader(support::MmsgClient& msm, EventBodies& copies);

    /** Waits for the end of the connection. */
    ~MsmReader();
    MsmReader(const MsmReader&) = delete;
    MsmReader& operator=(const MsmReader&) = delete;

    size_t copies();
    U32_t newest(); ///< id of the newest copy

    /** Waits until there are so many copies. @return whether it came to that before the end */
    bool waitForCopies(size_t count);

    /** @return the next reply to a request of a type; nothing: the connection has ended */
    std::optional<support::Bytes> reply(U32_t type);

  private:
    void run(support::MmsgClient& msm);

    EventBodies& copies_;
    std::multimap<U32_t, support::Bytes> replies_; ///< by type
    bool ended_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
};

#endif
