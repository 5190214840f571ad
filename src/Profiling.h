/* Profiling.h: the host's profiling interface.
 * In this build profiling is switched off: the hooks exist so that host code
 * and module code compile against one interface, and they do nothing. */
#ifndef PROFILING_H
#define PROFILING_H

#include <stdint.h>

#include "LumoraExport.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t TimeInfo;

/* Accepts a printf-style format and its arguments and does nothing. */
LUMORA_API void ProfileLog(const char *format, ...);

static inline void StartTimer(TimeInfo *val) { (void)val; }
static inline float ElapsedTime(TimeInfo start) { (void)start; return 0.0f; }

#ifdef __cplusplus
}
#endif

#endif /* PROFILING_H */
