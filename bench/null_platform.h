/* A platform whose calls do nothing: the store knows the answers that it was given, the driver says how many
 * entries a list has, the shell prints one text. It folds what it is asked to do into one number, so that two
 * ways to make the same calls can be told to be the same. */
#ifndef BENCH_NULL_PLATFORM_H
#define BENCH_NULL_PLATFORM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Every property with this key has this value, at each level. The data must stay where it is; callers get a
 * copy that they may write to. */
void NullPlatform_Answer(const char *key, const void *data, uint32_t length);

/* The count that the driver gives for every list, and what every shell command prints. */
void NullPlatform_SetListCount(uint32_t count);
void NullPlatform_SetShellOutput(const char *text);

/* Undoes what callers did to the answers, and begins a new trace. */
void NullPlatform_Reset(void);

/* What was asked since the reset. */
uint64_t NullPlatform_Trace(void);

#ifdef __cplusplus
}
#endif
#endif
