/**
 * @file
 * The blocks this process is attached to. Each pointer is set by a successful attachment or
 * creation and NULL after a failed one; deleting a block leaves it as it is.
 */
#ifndef MPU_PARAMS_H
#define MPU_PARAMS_H

#include "mpu_gbl.h"

#include <sys/shm.h>

namespace mpu {

extern MPU_PARAMS_t* pMpuParams;
extern CmapParams_t* pCmapParams;

/** Prints an error number's text as the line below a complaint. */
void mpuPrintError(int error);

/** Maps a segment. @return NULL instead of the kernel's -1; errno is that of shmat */
void* mpuMapSegment(int id, int flags);

} // namespace mpu

#endif
