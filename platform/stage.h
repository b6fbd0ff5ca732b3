/*
 * The gateway's start-up stage: a number that rises while the system starts.
 */
#ifndef ZIBD_PLATFORM_STAGE_H
#define ZIBD_PLATFORM_STAGE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Blocks until the start-up stage is at least stage. 0 once it is, non-zero
 * when the stage cannot be learnt. */
int wait_until_stage(int stage);

#ifdef __cplusplus
}
#endif

#endif
