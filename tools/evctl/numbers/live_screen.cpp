#include "evctl/numbers/live_screen.h"

#include "common/text.h"
#include "evctl/views/event_output.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace evctl {
namespace {

constexpr int ENDING[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// A second screen, without a cursor, and back.
constexpr char ENTER[] = "\x1B[?1049h\x1B[?25l";
constexpr char LEAVE[] = "\x1B[?25h\x1B[?1049l";

sigset_t handledSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : ENDING) {
        sigaddset(&set, number);
    }
    sigaddset(&set, SIGTSTP);
    sigaddset(&set, SIGWINCH);
    return set;
}

/** The signal acts as it does by itself. */
void die(int number) {
    signal(number, SIG_DFL);
    raise(number);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

size_t rowsOfOutput() {
    struct winsize size {};
    bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return known ? size.ws_row : 24;
}

} // namespace

LiveScreen::LiveScreen() {
    sigset_t set = handledSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (signals_ < 0) {
        throw std::runtime_error("signals cannot be waited for");
    }
    hasKeys_ = tcgetattr(STDIN_FILENO, &before_) == 0;
    take();
}

LiveScreen::~LiveScreen() {
    leave();
    close(signals_);
    sigset_t set = handledSignals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void LiveScreen::take() {
    if (hasKeys_) {
        struct termios single = before_;
        single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSADRAIN, &single);
    }
    std::cout << ENTER << std::flush;
}

void LiveScreen::leave() const {
    std::cout << LEAVE << std::flush;
    if (hasKeys_) {
        tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
    }
}

void LiveScreen::show(const std::vector<std::string>& lines) const {
    size_t columns = outputColumns().value_or(80);
    size_t rows = std::min(lines.size(), rowsOfOutput());
    std::string picture = "\x1B[H";
    for (size_t row = 0; row < rows; row++) {
        picture += (row > 0 ? "\r\n" : "") + tools::cutToColumns(lines[row], columns) + "\x1B[K";
    }
    std::cout << picture << "\x1B[J" << std::flush;
}

/** @return whether the user wants the end */
bool LiveScreen::readKeys() {
    char keys[64];
    ssize_t count = read(STDIN_FILENO, keys, sizeof(keys));
    hasKeys_ = hasKeys_ && count > 0;
    return std::any_of(keys, keys + std::max<ssize_t>(count, 0),
                       [](char key) { return key == 'q' || key == 'Q'; });
}

void LiveScreen::readSignal() {
    struct signalfd_siginfo info {};
    if (read(signals_, &info, sizeof(info)) != sizeof(info) || info.ssi_signo == SIGWINCH) {
        return;
    }
    leave();
    auto number = static_cast<int>(info.ssi_signo);
    if (number != SIGTSTP) {
        die(number);
    }
    raise(SIGSTOP);
    take(); // in front again
}

bool LiveScreen::wait(std::chrono::milliseconds time) {
    struct pollfd inputs[] = {{signals_, POLLIN, 0}, {hasKeys_ ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(inputs, 2, static_cast<int>(time.count())) < 0 && errno != EINTR) {
        return false;
    }
    if ((inputs[0].revents & POLLIN) != 0) {
        readSignal();
    }
    return inputs[1].revents == 0 || !readKeys();
}

} // namespace evctl
