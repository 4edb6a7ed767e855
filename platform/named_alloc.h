/**
 * @file
 * Zero-filled allocation that carries the name of what it is for.
 */
#ifndef TARVO_PLATFORM_NAMED_ALLOC_H
#define TARVO_PLATFORM_NAMED_ALLOC_H

#include "export.h"

PLATFORM_BEGIN

/**
 * `n` zeroed elements of `size` bytes, or null, also when they exceed the address space. Released
 * with free(). The name is for the platform's accounting; this layer keeps none. Any thread.
 */
PLATFORM_API void *calloc_named(size_t n, size_t size, const char *name);

PLATFORM_END

#endif
