#include "bug_check.h"

namespace blade {
namespace {

constexpr std::string_view HEAD = "********************** Critical Error *********************\n";
constexpr std::string_view FOOT = "\n***********************************************************\n";

/** @return what stands behind @p label in the frame */
std::string valueOf(std::string_view frame, std::string_view label) {
    size_t begin = frame.find(label);
    if (begin == std::string_view::npos) {
        return "";
    }
    frame.remove_prefix(begin + label.size());
    return std::string(frame.substr(0, frame.find('\n')));
}

} // namespace

std::optional<BugCheck> findBugCheck(std::string_view output) {
    size_t head = output.rfind(HEAD);
    if (head == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view frame = output.substr(head);
    size_t foot = frame.find(FOOT);
    if (foot == std::string_view::npos) {
        return std::nullopt;
    }
    frame = frame.substr(0, foot);
    return BugCheck{.function = valueOf(frame, "\n| Function:  "),
                    .line = valueOf(frame, "\n| Line:      "),
                    .message = valueOf(frame, "\n| Message:   ")};
}

} // namespace blade
