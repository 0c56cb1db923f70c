#include "say.h"

#include <cstdio>

namespace msm {

void say(const std::string& text) {
    printf("msm: %s\n", text.c_str());
    fflush(stdout);
}

} // namespace msm
