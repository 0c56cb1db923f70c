/**
 * @file
 * The one door for the switch's lines.
 */
#ifndef MSM_SAY_H
#define MSM_SAY_H

#include <string>

namespace msm {

/** One line on standard output, at once: "msm: <text>". */
void say(const std::string& text);

} // namespace msm

#endif
