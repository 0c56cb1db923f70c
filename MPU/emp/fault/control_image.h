/**
 * @file
 * The control block as a bug-check shows it: as lines, and as the image that goes into its second
 * record. One table of fields drives both, in the order of the control block.
 */
#ifndef EMP_FAULT_CONTROL_IMAGE_H
#define EMP_FAULT_CONTROL_IMAGE_H

#include "emp_evl.h"

/** Prints one line a field. */
void empControlPrint();

/** Fills the image of the control block, big-endian, without the receive buffer. */
void empControlBuildInfo(EmpInfo_t* info);

#endif
