/**
 * @file
 * The places whose bug-checks report a fixed source line. The line is stored in the alternate event
 * log, and whoever reads one there looks it up in this table.
 */
#ifndef EMP_FAULT_FIXED_SITES_H
#define EMP_FAULT_FIXED_SITES_H

#include "fault/bugcheck.h"

// KEEP: these numbers are part of the stored bug-check records and never follow the source text.

/** The four places at which a stored event is read for a local answer. */
struct EmpEntrySites_t {
    EmpSite_t seek;      ///< moving to the record
    EmpSite_t record;    ///< reading its header
    EmpSite_t signature; ///< judging its signature
    EmpSite_t data;      ///< reading its data
};

constexpr EmpEntrySites_t empFixedEntrySites(const char* function, int seek, int record,
                                             int signature, int data) {
    return {{seek, function}, {record, function}, {signature, function}, {data, function}};
}

// --- Intake --------------------------------------------------------------------------------------
inline constexpr EmpSite_t EMP_SITE_SMI_COPY = {5198, "empSendEventLogMsgToSmi"};

// --- Inquiry -------------------------------------------------------------------------------------
inline constexpr EmpSite_t EMP_SITE_INQUIRY_FAILURE_SEND = {
    5557, "empSendEventInquiryMsgFailureToRequestor"};
inline constexpr EmpEntrySites_t EMP_SITES_INQUIRY_FIRST =
    empFixedEntrySites("empRcvEventInquiryMsg", 5706, 5723, 5738, 5758);
inline constexpr EmpEntrySites_t EMP_SITES_INQUIRY_NEXT =
    empFixedEntrySites("empRcvEventInquiryMsg", 6032, 6049, 6065, 6083);
inline constexpr EmpEntrySites_t EMP_SITES_INQUIRY_EXACT =
    empFixedEntrySites("empRcvEventInquiryMsg", 6184, 6202, 6210, 6227);
inline constexpr EmpEntrySites_t EMP_SITES_INQUIRY_PREVIOUS =
    empFixedEntrySites("empRcvEventInquiryMsg", 6469, 6485, 6501, 6519);
inline constexpr EmpEntrySites_t EMP_SITES_INQUIRY_LAST =
    empFixedEntrySites("empRcvEventInquiryMsg", 6625, 6642, 6657, 6675);
inline constexpr EmpSite_t EMP_SITE_INQUIRY_SEND = {6740, "empRcvEventInquiryMsg"};

// --- Archiver settings and manager status --------------------------------------------------------
inline constexpr EmpSite_t EMP_SITE_SET_ARCHIVER_SOCKET = {7040, "empRcvSetEventArchiverMsg"};
inline constexpr EmpSite_t EMP_SITE_SET_ARCHIVER_SEND = {7230, "empRcvSetEventArchiverMsg"};
inline constexpr EmpSite_t EMP_SITE_MANAGER_STATUS_SEND = {7337, "empRcvGetEventManagerStatusMsg"};

#endif
