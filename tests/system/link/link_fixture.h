/**
 * @file
 * A real event manager whose message switch and archiver are the test.
 */
#ifndef LINK_FIXTURE_H
#define LINK_FIXTURE_H

#include "blade.h"
#include "link_messages.h"
#include "scripted_archiver.h"

#include <functional>
#include <gtest/gtest.h>

/** What a status reply says. */
struct LinkCounts {
    U32_t flag;
    U32_t timeouts; ///< inquiries
    U32_t failed;   ///< connections closed
    U32_t attempts; ///< connections tried

    bool operator==(const LinkCounts&) const = default;
};

/** Prints counts into failing assertions. */
void PrintTo(const LinkCounts& counts, std::ostream* stream);

/** The event manager is up, with the first entry in its log; the archiver does not listen yet. */
class LinkProcessTest : public testing::Test {
  protected:
    explicit LinkProcessTest(bool narrow = false);

    /** A request that names the archiver. */
    support::Bytes setRequest() const;

    /** Lets the archiver listen, sends the request and reads its reply. */
    void setArchiver();

    /** setArchiver(), the event manager's connection, and its status request, which is checked. */
    support::ArchiverEnd connect(U32_t handle = 1000);

    /** connect() and an answer. */
    support::ArchiverEnd open(U32_t last, U32_t flag);

    /** An answer to a status request: the archiver has events up to @p last. */
    static support::Bytes statusAnswer(U32_t last, U32_t flag, U32_t handle = 1000);

    /** The status request of this blade whose oldest event is the first entry. */
    static support::Bytes firstStatusRequest(U32_t handle);

    /** Header of an answer. */
    static support::Bytes answerHeader(U32_t bodyLength, U32_t type, U32_t returnCode,
                                       U32_t handle);

    /** An answer to an inquiry, without event data. */
    static support::Bytes inquiryAnswer(const support::LogName& log, U32_t id, U32_t returnCode,
                                        U32_t handle);

    /** Logs an event. @param amongReplies replies may come before its copy, and are passed over:
     * its data is not empty then. @return the message that it becomes on the link */
    support::Bytes log(const support::Bytes& data, bool amongReplies = false);

    /** Logs an event that the archiver gets at once, whole and as it is. */
    void expectForwarding(support::ArchiverEnd& end, const support::Bytes& data);

    /** The first entry as a message on the link. */
    support::Bytes firstEntry() const;

    /** @p count cheap messages, each of them a pass of the loop. */
    static support::Bytes passes(size_t count);

    LinkCounts counts();

    /** A local message of an inquiry from endpoint 18. */
    static support::Bytes inquiry(U32_t type, const support::LogName& log, U32_t id, U32_t handle);

    /** Receives a reply of type 2, checks its header. @return its body */
    support::Bytes reply(U32_t returnCode, U32_t handle, U32_t endpoint = 18);

    /** Logs events of the largest size until the connection takes no more, or only a part of one.
     * @param between called before every eighth of them, may send what is answered by replies: they
     *                are passed over
     * @return all their messages, and how much of them the connection took */
    std::pair<support::Bytes, size_t> fill(const std::function<void()>& between = {});

    const support::LogName own_{"CHASSIS-7", "BLADE-42", 3, 0};
    const support::LogName other_{"CHASSIS-7", "BLADE-43", 4, 0};
    Blade blade_;
    RunningEmp emp_;
    support::ScriptedArchiver archiver_;
};

#endif
