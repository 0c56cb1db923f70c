/**
 * @file
 * An archive in memory, and what it said.
 */
#ifndef ARCHIVE_FIXTURE_H
#define ARCHIVE_FIXTURE_H

#include "archive.h"
#include "link_messages.h"
#include "sqlite_store.h"

#include <gmock/gmock.h>

namespace evarchive {

class ArchiveTest : public testing::Test {
  protected:
    /** An archive with these settings over the same storage. */
    Archive make(const ArchiveSettings& settings = {}) {
        return Archive(*store_, settings,
                       [this](Level, const std::string& line) { said_.push_back(line); });
    }

    Filed file(const support::EventFields& event) {
        return archive_.fileEvent(LINK, support::eventBody(event));
    }

    /** Files the events first to last with data of their own. */
    void fileRange(U32_t first, U32_t last, const support::LogName& log = {}) {
        for (U64_t id = first; id <= last; ++id) {
            archive_.fileEvent(LINK, support::eventBody(event(static_cast<U32_t>(id), log)));
        }
    }

    /** The event that fileRange() files. */
    static support::EventFields event(U32_t id, const support::LogName& log = {}) {
        Bytes data = {'d'};
        support::put32(data, id);
        return {.log = log, .id = id, .data = data};
    }

    /** What a blade is told whose oldest event is this one. */
    StatusVerdict status(Archive& archive, const support::EventFields& oldest) {
        return archive.answerStatus(++lastLink_,
                                    imageOf<EmpGetEvArchiverStatusMsg_t>(
                                        support::statusBody(oldest.log, oldest.id, oldest.data)));
    }
    StatusVerdict status(const support::EventFields& oldest) { return status(archive_, oldest); }

    /** The id that an inquiry finds. */
    std::optional<U32_t> ask(U32_t type, const support::LogName& log, U32_t id) {
        const auto found =
            archive_.answerInquiry(imageOf<EmpEvInquiryMsg_t>(support::inquiryBody(type, log, id)));
        return found ? std::optional(found->sequenceId) : std::nullopt;
    }

    /** As of now: both are published by a commit. */
    const std::vector<std::string>& said() {
        archive_.commit();
        return said_;
    }
    const ArchiveCounts& counts() {
        archive_.commit();
        return archive_.counts();
    }

    /** A link on which no blade has said who it is. */
    static constexpr LinkNumber LINK = 1;

    LinkNumber lastLink_ = 100;
    std::unique_ptr<Store> store_ = openArchiveInMemory();
    std::vector<std::string> said_;
    Archive archive_ = make();
};

constexpr StatusVerdict NO_DATA{0, 1};

/** The archive holds the blade's log up to this id, and asks for that one again. */
constexpr StatusVerdict heldTo(U32_t id) {
    return {id - 1, 0};
}

} // namespace evarchive

#endif
