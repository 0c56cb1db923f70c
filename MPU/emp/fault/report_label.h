/**
 * @file
 * The label column of the bug-check's report.
 */
#ifndef EMP_FAULT_REPORT_LABEL_H
#define EMP_FAULT_REPORT_LABEL_H

/** A label, padded so that the equals sign stands in column 56. */
#define EMP_REPORT_LABEL "%-56s"

#endif
