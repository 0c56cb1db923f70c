#include "evctl/listing/passed_over.h"

#include "common/exit_status.h"
#include "common/text.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

namespace evctl {

void PassedOver::attempt(const std::function<void()>& read) {
    try {
        read();
    } catch (const std::runtime_error& problem) {
        add(problem.what());
    }
}

int PassedOver::say(int status) const {
    for (const std::string& reason : reasons_) {
        std::cerr << "evctl: " << tools::shownLine(reason) << "\n";
    }
    return reasons_.empty() ? status : std::max(status, static_cast<int>(tools::EXIT_FINDING));
}

} // namespace evctl
