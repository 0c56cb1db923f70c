#include "evctl/views/status_view.h"

#include "common/text.h"

#include <nlohmann/json.hpp>

namespace evctl {
namespace {

bool isUp(const EmpGetEvManagerStatusMsg_t& status) {
    return (status.evManagerStatusFlag & 1U) != 0;
}

/** "192.0.2.7:9000", or nothing when there is no archiver. */
std::string archiverText(const EmpGetEvManagerStatusMsg_t& status) {
    std::string host = tools::hostText(status.evArchiverIpAddress);
    return host == "0.0.0.0" ? "" : host + ":" + std::to_string(status.evArchiverTcpPort);
}

} // namespace

std::string statusLines(const EmpGetEvManagerStatusMsg_t& status) {
    std::string archiver = archiverText(status);
    return "archiver             " + (archiver.empty() ? "none" : archiver) +
           "\nlink                 " + (isUp(status) ? "up or being set up" : "down") +
           "\ntimed-out inquiries  " + std::to_string(status.evManagerInquiryMsgTimeout) +
           "\nconnections closed   " + std::to_string(status.evArchiverConnectionFailed) +
           "\nconnections tried    " + std::to_string(status.evArchiverConnectionAttempt) + "\n";
}

Json statusJson(const EmpGetEvManagerStatusMsg_t& status) {
    std::string archiver = archiverText(status);
    return {{"archiver", archiver.empty() ? Json(nullptr) : Json(archiver)},
            {"link", isUp(status) ? "up or being set up" : "down"},
            {"linkUp", isUp(status)},
            {"timedOutInquiries", U32_t{status.evManagerInquiryMsgTimeout}},
            {"connectionsClosed", U32_t{status.evArchiverConnectionFailed}},
            {"connectionsTried", U32_t{status.evArchiverConnectionAttempt}}};
}

} // namespace evctl
