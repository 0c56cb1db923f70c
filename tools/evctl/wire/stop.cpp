#include "evctl/wire/stop.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace evctl {
namespace {

constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t came = 0;
int wakeUp = -1;

void noteSignal(int number) {
    const int error = errno;
    const unsigned long long one = 1;
    came = number;
    static_cast<void>(!write(wakeUp, &one, sizeof(one))); // there is always room for it
    errno = error;
}

} // namespace

Stop::Stop() {
    wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUp < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    struct sigaction action {};
    action.sa_handler = noteSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (int number : STOP_SIGNALS) {
        struct sigaction before {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_DFL) {
            sigaction(number, &action, nullptr);
        }
    }
}

Stop::~Stop() {
    for (int number : STOP_SIGNALS) {
        struct sigaction now {};
        if (sigaction(number, nullptr, &now) == 0 && now.sa_handler == noteSignal) {
            signal(number, SIG_DFL);
        }
    }
    close(wakeUp);
    wakeUp = -1;
}

int Stop::descriptor() {
    return wakeUp;
}

void Stop::obey() {
    signal(came, SIG_DFL);
    raise(came);
    _exit(128 + came);
}

} // namespace evctl
