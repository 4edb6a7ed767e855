/**
 * @file
 * How the platform's services are exported: C linkage, default visibility, nothing else.
 */
#ifndef TARVO_PLATFORM_EXPORT_H
#define TARVO_PLATFORM_EXPORT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
/** Marks what the library exports. */
#define PLATFORM_API __attribute__((visibility("default")))
#else
#define PLATFORM_API
#endif

#ifdef __cplusplus
/** Before a header's declarations. */
#define PLATFORM_BEGIN extern "C" {
/** After them. */
#define PLATFORM_END }
#else
#define PLATFORM_BEGIN
#define PLATFORM_END
#endif

#endif
