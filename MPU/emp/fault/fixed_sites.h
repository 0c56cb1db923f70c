/**
 * @file
 * Bug-check sites whose source line is fixed: the number goes into the bug-check's event record,
 * where tools and people know it.
 */
#ifndef EMP_FAULT_FIXED_SITES_H
#define EMP_FAULT_FIXED_SITES_H

#include "fault/bugcheck.h"

inline constexpr EmpSite_t EMP_SITE_SMI_COPY = {5198, "empSendEventLogMsgToSmi"};

#endif
