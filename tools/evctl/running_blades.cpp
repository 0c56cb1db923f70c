#include "evctl/running_blades.h"

#include "evctl/options.h"
#include "mpu_gbl.h"

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace evctl {

std::vector<int> keysOfRunningBlades(std::istream& table) {
    std::vector<int> keys;
    std::string line;
    std::getline(table, line); // names of the columns
    while (std::getline(table, line)) {
        std::istringstream columns(line);
        S64_t key = 0;
        U64_t id = 0;
        U64_t mode = 0;
        U64_t size = 0;
        U64_t creator = 0;
        U64_t last = 0;
        U64_t attached = 0;
        if (columns >> key >> id >> mode >> size >> creator >> last >> attached &&
            size == MPU_PARAMS_SIZE && attached > 0 && key >= KEY_MIN && key <= INT32_MAX) {
            keys.push_back(static_cast<int>(key));
        }
    }
    return keys;
}

int onlyRunningBlade() {
    std::ifstream table("/proc/sysvipc/shm");
    std::vector<int> keys = keysOfRunningBlades(table);
    if (keys.size() == 1) {
        return keys.front();
    }
    std::string text = keys.empty() ? "no blade runs here" : "several blades run here, with keys";
    for (int key : keys) {
        std::array<char, 16> number{};
        snprintf(number.data(), number.size(), " 0x%x", static_cast<unsigned>(key));
        text += number.data();
    }
    throw std::runtime_error(text + "; name one with --key, or its directory with --dir");
}

} // namespace evctl
