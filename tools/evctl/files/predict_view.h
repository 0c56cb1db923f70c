/**
 * @file
 * What is predicted of a log, as an object.
 */
#ifndef EVCTL_PREDICT_VIEW_H
#define EVCTL_PREDICT_VIEW_H

#include "evctl/views/event_view.h"
#include "evlog/predict.h"

namespace evctl {

/** @param name of the file, fit to be shown */
Json predictionJson(const std::string& name, const EvlogPrediction_t& prediction);

} // namespace evctl

#endif
