#include "hold.h"

namespace msm {

Hold::Hold(asio::io_context& loop, std::chrono::seconds limit, Expired expired)
    : limit_(limit), expired_(std::move(expired)), timer_(loop) {}

void Hold::add(std::shared_ptr<Connection> connection) {
    held_.push_back({std::move(connection), Clock::now()});
    watch();
}

void Hold::restart() {
    Clock::time_point now = Clock::now();
    for (Held& held : held_) {
        held.since = now;
    }
}

void Hold::release() {
    std::deque<Held> released = std::move(held_);
    held_.clear();
    for (const Held& held : released) {
        held.connection->resume();
    }
}

/** The timer runs on when somebody is released; what it then finds decides. */
void Hold::watch() {
    if (watching_ || held_.empty()) {
        return;
    }
    watching_ = true;
    timer_.expires_at(held_.front().since + limit_);
    timer_.async_wait([this](std::error_code error) {
        watching_ = false;
        if (!error) {
            expire();
            watch();
        }
    });
}

void Hold::expire() {
    Clock::time_point now = Clock::now();
    while (!held_.empty() && held_.front().since + limit_ <= now) {
        std::shared_ptr<Connection> connection = std::move(held_.front().connection);
        held_.pop_front();
        expired_(*connection);
    }
}

} // namespace msm
