#include "msm_reader.h"

#include "link_messages.h"

#include <stdexcept>

using namespace support;

MsmReader::MsmReader(MmsgClient& msm, EventBodies& copies)
    : copies_(copies), thread_([this, &msm] { run(msm); }) {}

MsmReader::~MsmReader() {
    thread_.join();
}

void MsmReader::run(MmsgClient& msm) {
    try {
        for (;;) {
            const Bytes message = msm.receive();
            const U32_t type = headerOf(message).opcode.request.type;
            const std::lock_guard lock(mutex_);
            if (type == 1) {
                copies_[get32(message, 200)] = Bytes(message.begin() + 64, message.end());
            } else {
                replies_.emplace(type, message);
            }
            changed_.notify_all();
        }
    } catch (const std::exception&) {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }
}

size_t MsmReader::copies() {
    const std::lock_guard lock(mutex_);
    return copies_.size();
}

U32_t MsmReader::newest() {
    const std::lock_guard lock(mutex_);
    return copies_.rbegin()->first;
}

bool MsmReader::waitForCopies(size_t count) {
    std::unique_lock lock(mutex_);
    const auto there = [&] { return copies_.size() >= count; };
    if (!changed_.wait_for(lock, DEADLINE, [&] { return ended_ || there(); })) {
        throw std::runtime_error("events are not stored any more");
    }
    return there();
}

std::optional<Bytes> MsmReader::reply(U32_t type) {
    std::unique_lock lock(mutex_);
    const auto there = [&] { return replies_.count(type) > 0; };
    if (!changed_.wait_for(lock, DEADLINE, [&] { return ended_ || there(); })) {
        throw std::runtime_error("no reply");
    }
    const auto found = replies_.find(type);
    if (found == replies_.end()) {
        return std::nullopt;
    }
    Bytes message = found->second;
    replies_.erase(found);
    return message;
}
