/* How the platform's services are exported: C linkage, default visibility, nothing else. */
#ifndef TARVO_PLATFORM_EXPORT_H
#define TARVO_PLATFORM_EXPORT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define PLATFORM_API __attribute__((visibility("default")))
#else
#define PLATFORM_API
#endif

#ifdef __cplusplus
#define PLATFORM_BEGIN extern "C" {
#define PLATFORM_END }
#else
#define PLATFORM_BEGIN
#define PLATFORM_END
#endif

#endif
