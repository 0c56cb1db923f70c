/**
 * @file
 * What an archive holds, for people and for programs. The archive is only read, and may be in use.
 */
#ifndef EVARCHIVER_ARCHIVE_REPORT_H
#define EVARCHIVER_ARCHIVE_REPORT_H

#include "store.h"

#include <ostream>
#include <string>

namespace evarchive {

/** How a report is written. */
enum class ReportForm { TEXT, JSON };

/**
 * Lists every generation of every log: its ids, how many events, holes and duplicates.
 * @return exit status 0. Throws StoreError when the archive cannot be read.
 */
int listArchive(const std::string& path, ReportForm form, std::ostream& out);

/**
 * Names what is not as it should be: holes, logs with more than one generation, and events whose
 * bytes do not fit the place where they are filed. Duplicates are told, but are no finding: they
 * were dropped.
 * @return exit status 0, or 1 when there is a finding. Throws StoreError when the archive cannot be
 *         read.
 */
int checkArchive(const std::string& path, ReportForm form, std::ostream& out);
int checkArchive(StoreReader& store, ReportForm form, std::ostream& out);

} // namespace evarchive

#endif
