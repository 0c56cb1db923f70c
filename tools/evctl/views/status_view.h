/**
 * @file
 * How the event manager's status is shown.
 */
#ifndef EVCTL_STATUS_VIEW_H
#define EVCTL_STATUS_VIEW_H

#include "emp_mesgs.h"
#include "evctl/views/event_view.h"

namespace evctl {

/** Lines of name and value. */
std::string statusLines(const EmpGetEvManagerStatusMsg_t& status);

/** The same as an object. */
Json statusJson(const EmpGetEvManagerStatusMsg_t& status);

} // namespace evctl

#endif
