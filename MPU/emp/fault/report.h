/**
 * @file
 * What a bug-check prints. All of it is printed whatever empDebug was: the bug-check has forced it
 * to 1.
 */
#ifndef EMP_FAULT_REPORT_H
#define EMP_FAULT_REPORT_H

/** Where and what, in a frame. */
void empReportError(const char* fileName, int lineNo, const char* fnName, const char* message);

/** The control block, the log file where it matters, the buffers and the index. */
void empReportState();

#endif
