#include "evlog/predict.h"

#include "evlog/append_model.h"

namespace {

// Behind the wrap: the first discards from the top.
constexpr U32_t EVENTS_AFTER_WRAP = 100;

std::optional<EvlogBugcheck_t> firstBugcheck(EvlogAppendModel_t model, U32_t dataLength) {
    U32_t afterWrap = 0;
    for (U32_t events = 0; afterWrap < EVENTS_AFTER_WRAP && !model.isTiring(); events++) {
        if (const char* message = model.append(dataLength)) {
            return EvlogBugcheck_t{.message = message, .events = events, .dataLength = dataLength};
        }
        afterWrap += model.wraps() > 0 ? 1 : 0;
    }
    return std::nullopt;
}

} // namespace

EvlogPrediction_t evlogPredict(const EvlogImage_t& image, const EvlogIdentity_t* identity,
                               const std::vector<U32_t>& dataLengths) {
    EvlogPrediction_t prediction;
    std::vector<EvlogRecord_t> records;
    prediction.state =
        evlogWalk(image,
                  {.onRecord = [&](const EvlogRecord_t& record) { records.push_back(record); },
                   .onFinding = [&](const EvlogFinding_t&) { prediction.damaged++; }},
                  identity);
    bool cleared = prediction.state.end == EVLOG_E_END_CLEARED;
    for (const EvlogRecord_t& record : records) {
        if (record.role != EVLOG_E_ROLE_DUMMY) {
            (record.taken && !cleared ? prediction.taken : prediction.lost)++;
        }
    }
    if (evlogIsFatal(prediction.state.verdict)) {
        return prediction;
    }
    EvlogAppendModel_t model(image, prediction.state, records);
    prediction.inquiryBugcheck = model.inquiryBugcheck();
    for (U32_t length : dataLengths) {
        std::optional<EvlogBugcheck_t> found = firstBugcheck(model, length);
        if (found && (!prediction.bugcheck || found->events < prediction.bugcheck->events)) {
            prediction.bugcheck = found;
        }
    }
    return prediction;
}
