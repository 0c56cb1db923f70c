/**
 * @file
 * Logs of an archive on a PostgreSQL server: the overview, and one of them. What there is no time
 * for is left out.
 */
#ifndef EVWEB_PG_LOGS_H
#define EVWEB_PG_LOGS_H

#include "pg_question.h"

namespace evweb {

Overview listLogs(PgConnection& connection, const LogSearch& search, Clock::time_point deadline);

/** Throws Refusal when there is no such log. */
LogDetail logDetail(PgConnection& connection, S64_t log, Clock::time_point deadline);

/** The newest generation of a log. Throws Refusal when there is no such log. */
U32_t newestGeneration(PgConnection& connection, S64_t log);

} // namespace evweb

#endif
