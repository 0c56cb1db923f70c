/**
 * @file
 * What links hand over to a lane.
 */
#ifndef EVARCHIVER_BATCH_H
#define EVARCHIVER_BATCH_H

#include "archive.h"

#include <chrono>

namespace evarchive {

/** What links brought, in the order in which they brought it. One for many links. */
class Batch {
  public:
    enum class Kind : U8_t {
        EVENT,     ///< certain
        SILENT,    ///< an event with nothing behind it yet
        ENDED,     ///< an event with nothing behind it for ever
        TAKE_BACK, ///< an event that was no such thing
        STATUS,    ///< EmpGetEvArchiverStatusMsg_t
        SPEAKER,   ///< the same, which another lane answers
        INQUIRY,   ///< EmpEvInquiryMsg_t
        END_OF_LINK,
        DONE, ///< answered already: nothing is left to do when the work is repeated
    };

    /** Whether a request of this kind has an event, EmpEvLogMsg_t. */
    static bool isAboutEvent(Kind kind) { return kind <= Kind::TAKE_BACK; }

    struct Request {
        LinkNumber link = 0;
        Kind kind = Kind::EVENT;
        U32_t offset = 0;
        U32_t size = 0;
        U32_t ticket = 0;
    };

    /** @param ticket comes back with the reply */
    void add(LinkNumber link, Kind kind, View body, U32_t ticket = 0);

    /** Whether somebody waits for an answer. */
    bool isUrgent() const { return isUrgent_; }
    bool isEmpty() const { return requests_.empty(); }

    /** When it was handed to a lane. */
    std::chrono::steady_clock::time_point handedOver;

    /** What it takes of the spool. */
    std::size_t size() const { return bytes_.size() + requests_.size() * sizeof(Request); }
    static std::size_t sizeOf(View body) { return body.size() + sizeof(Request); }

    std::vector<Request>& requests() { return requests_; }
    View bodyOf(const Request& request) const {
        return View(bytes_).subspan(request.offset, request.size);
    }

    /** Empties it; its memory is kept for the next use. */
    void clear();

  private:
    Bytes bytes_;
    std::vector<Request> requests_;
    bool isUrgent_ = false;
};

} // namespace evarchive

#endif
