/* A platform whose calls do nothing: the store gives prepared answers, the driver gives the count of a list,
 * the shell prints one text. A trace number, made from all calls and their arguments, tells whether two
 * programs make the same calls. */
#pragma once

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

/* Restores the answers that callers changed, and begins a new trace. */
void NullPlatform_Reset(void);

/* The trace since the reset. */
uint64_t NullPlatform_Trace(void);

#ifdef __cplusplus
}
#endif
