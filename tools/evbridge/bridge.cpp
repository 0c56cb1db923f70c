#include "bridge.h"

#include "feed.h"
#include "sink.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace evbridge {
namespace {

using evarchive::Level;
using evarchive::Say;
using std::chrono::milliseconds;

// Events between two confirmations.
constexpr std::size_t BATCH = 500;

// While a receiver or a source is away.
constexpr milliseconds FIRST_PAUSE{250};
constexpr milliseconds LONGEST_PAUSE{30'000};

constexpr char FIRST_LINE[] = "evbridge 1";

[[noreturn]] void failAt(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

void syncDirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        fsync(descriptor);
        close(descriptor);
    }
}

sigset_t ends() {
    sigset_t set{};
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// @return whether the end was asked for meanwhile
bool waitForEnd(milliseconds time) {
    const sigset_t set = ends();
    const timespec wait{time.count() / 1000, time.count() % 1000 * 1'000'000};
    int signal = 0;
    do {
        signal = sigtimedwait(&set, nullptr, &wait);
    } while (signal < 0 && errno == EINTR);
    return signal > 0;
}

/** The course of things. */
class Bridge {
  public:
    Bridge(const Options& options, const Say& say) : options_(options), say_(say) {
        const std::string position = readCursorFile(options.cursor);
        sink_ = openSink(options.to);
        feed_ = openFeed(options.from, position, say);
        if (options.skipOld && position.empty()) {
            skip();
        }
    }

    int run() {
        while (!waitForEnd(pause_)) {
            const bool isDone = step();
            if (isDone && options_.once) {
                break;
            }
        }
        say_(Level::INFO, "summary: " + std::to_string(handedOn_) + " events handed on, " +
                              std::to_string(left_) + " left out by the filters");
        return 0;
    }

  private:
    void skip() {
        U64_t skipped = 0;
        for (std::size_t got = 1; got > 0;) {
            got = feed_->more(BATCH).size();
            skipped += got;
            feed_->taken();
        }
        writeCursorFile(options_.cursor, feed_->position());
        say_(Level::INFO, std::to_string(skipped) + " events that are there are left out");
    }

    // @return whether there was nothing more to hand on
    bool step() {
        Images images;
        try {
            images = feed_->more(BATCH);
            handOn(images);
        } catch (const std::exception& error) {
            backOff(error.what());
            return false;
        }
        feed_->taken();
        const std::string position = feed_->position();
        if (position != kept_) {
            writeCursorFile(options_.cursor, position);
            kept_ = position;
        }
        if (isAway_) {
            isAway_ = false;
            say_(Level::NOTICE, "goes on");
        }
        away_ = FIRST_PAUSE;
        pause_ = images.empty() ? options_.interval : milliseconds(0);
        return images.empty();
    }

    void handOn(const Images& images) {
        U64_t sent = 0;
        for (const Bytes& image : images) {
            const evctl::EventView event = sources::eventOf(image);
            if (options_.filter.matches(event)) {
                sink_->send(event);
                ++sent;
            }
        }
        if (sent > 0) {
            sink_->confirm();
        }
        handedOn_ += sent;
        left_ += images.size() - sent;
    }

    void backOff(const std::string& why) {
        if (!isAway_) {
            isAway_ = true;
            say_(Level::WARNING, why + "; events wait, tried again");
        }
        pause_ = away_;
        away_ = std::min(away_ * 2, LONGEST_PAUSE);
    }

    const Options& options_;
    const Say& say_;
    std::unique_ptr<Sink> sink_;
    std::unique_ptr<Feed> feed_;
    std::string kept_;
    milliseconds pause_{0};
    milliseconds away_ = FIRST_PAUSE;
    bool isAway_ = false;
    U64_t handedOn_ = 0;
    U64_t left_ = 0;
};

} // namespace

std::string readCursorFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        if (access(path.c_str(), F_OK) == 0) {
            throw std::runtime_error(path + ": it cannot be read");
        }
        return {};
    }
    std::string first;
    if (!std::getline(file, first) || first != FIRST_LINE) {
        throw std::runtime_error(path + ": it is no cursor of evbridge");
    }
    std::ostringstream rest;
    rest << file.rdbuf();
    return rest.str();
}

void writeCursorFile(const std::string& path, const std::string& position) {
    const std::string fresh = path + ".new";
    const int descriptor = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (descriptor < 0) {
        failAt(fresh);
    }
    const std::string content = std::string(FIRST_LINE) + "\n" + position;
    const bool isWritten =
        write(descriptor, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
        fsync(descriptor) == 0;
    const int error = errno;
    close(descriptor);
    errno = error;
    if (!isWritten || rename(fresh.c_str(), path.c_str()) != 0) {
        failAt(fresh);
    }
    syncDirectoryOf(path);
}

int runBridge(const Options& options, const Say& say) {
    const sigset_t set = ends();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return Bridge(options, say).run();
}

} // namespace evbridge
