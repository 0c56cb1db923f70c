/**
 * @file
 * What is predicted of a log, as an object.
 */
#ifndef EVCTL_PREDICT_VIEW_H
#define EVCTL_PREDICT_VIEW_H

#include "evctl/views/event_view.h"
#include "evlog/predict.h"

namespace evctl {

/** "bug-check "..." at the first event that is logged, if it has 40 bytes of data, ..." */
std::string bugcheckLine(const EvlogBugcheck_t& bugcheck);

/** @param name of the file, fit to be shown
 * @param identity of the blade that it was judged for; nullptr: of any */
Json predictionJson(const std::string& name, const EvlogPrediction_t& prediction,
                    const EvlogIdentity_t* identity);

} // namespace evctl

#endif
