#include "evlog/evlog.h"

#include <array>

namespace {

constexpr std::array<const char*, EVLOG_E_REASONS> REASON_TEXTS = {
    "nothing wrong",
    "no record header where a record should begin",
    "record header of an unknown version",
    "record header with a source above 34",
    "record header with a body length above 3848",
    "checksum does not match",
    "record cut off by the end of the file",
    "holds a record header with a source above 34, on which the event manager bug-checks",
    "no valid record in the file",
    "zeros without a dummy entry before them",
    "bytes behind the dummy entry that are not zero",
    "sequence id does not follow that of the record before",
    "record runs across the end of the ring",
    "file ends before 1600000 bytes",
    "bytes behind the end of the ring",
};

struct VerdictTexts_t {
    const char* name;
    const char* text;
};

constexpr std::array<VerdictTexts_t, EVLOG_E_VERDICTS> VERDICT_TEXTS = {{
    {"fresh", "no valid record: the event manager starts a new log"},
    {"unwrapped", "a log that has not gone round its end"},
    {"wrapped", "a log that has gone round its end"},
    {"foreign", "a log of another slot or enclosure: the event manager clears it"},
    {"rebuilt", "more than one gap: the event manager moves the file aside and starts a new log"},
    {"bad-source", "the event manager bug-checks: \"Bad Event Source\""},
    {"continuous-with-gap",
     "the event manager bug-checks: \"Continuous SequenceId with Gap? Bug somewhere!\""},
    {"invalid-sequence", "the event manager bug-checks: \"Invalid Sequence ID? Bug somewhere!\""},
}};

} // namespace

const char* evlogReasonText(EVLOG_REASON_e reason) {
    return REASON_TEXTS.at(reason);
}

const char* evlogVerdictName(EVLOG_VERDICT_e verdict) {
    return VERDICT_TEXTS.at(verdict).name;
}

const char* evlogVerdictText(EVLOG_VERDICT_e verdict) {
    return VERDICT_TEXTS.at(verdict).text;
}

std::string evlogBugcheckText(const EvlogState_t& state) {
    switch (state.verdict) {
    case EVLOG_E_VERDICT_BAD_SOURCE:
        return "Bad Event Source [" + std::to_string(state.badSource) +
               "] in the Corrupted Event Log File! Please Delete the File.";
    case EVLOG_E_VERDICT_CONTINUOUS_WITH_GAP:
        return "Continuous SequenceId with Gap? Bug somewhere!";
    case EVLOG_E_VERDICT_INVALID_SEQUENCE:
        return "Invalid Sequence ID? Bug somewhere!";
    default:
        return "";
    }
}
