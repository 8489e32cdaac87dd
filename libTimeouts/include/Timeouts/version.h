#pragma once

#ifndef TIMEOUTS_EXPORT
#define TIMEOUTS_EXPORT __attribute__((visibility("default")))
#endif
#define TIMEOUTS_VERSION_STRING "0.1.0"
#ifdef __cplusplus
extern "C" {
#endif
/* Version of the loaded library, which may differ from the header's. */
TIMEOUTS_EXPORT const char* timeouts_version(void);
#ifdef __cplusplus
}
#endif
