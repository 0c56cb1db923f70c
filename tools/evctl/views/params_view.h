/**
 * @file
 * How the parameter block is shown.
 */
#ifndef EVCTL_PARAMS_VIEW_H
#define EVCTL_PARAMS_VIEW_H

#include "evctl/views/event_view.h"
#include "mpu_gbl.h"

namespace evctl {

/** All fields but the reserved ones, by name, in the order of the block. Addresses and texts are
 * strings, versions "major.minor.maintNum.buildNum", arrays are arrays. */
Json paramsJson(const MPU_PARAMS_t& params);

/** paramsJson() as "name value" lines. */
std::string paramsLines(const Json& json);

} // namespace evctl

#endif
