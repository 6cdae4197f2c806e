/*
 * VekVosx.h - threads of the library: registration of a thread with the
 * thread manager, creation, join and the exit test.
 */
#ifndef VEK_VOSX_H
#define VEK_VOSX_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Registers the calling thread with the thread manager (its abort event);
 * every thread that runs library waits and was not started by
 * vek_thrd_create__ calls this first. BaseLib_init does it for the primary
 * thread. */
VEK_API void vek_thrd_beg(void);
/* Removes the calling thread from the thread manager. */
VEK_API void vek_thrd_end(void);

VEK_END_DECLS

#endif /* VEK_VOSX_H */
