/**
 * @file
 * Dotted-decimal text of an IPv4 address, into the caller's buffer.
 */
#ifndef TARVO_PLATFORM_INET_TEXT_H
#define TARVO_PLATFORM_INET_TEXT_H

#include <netinet/in.h>

#include "export.h"

PLATFORM_BEGIN

/** Returns `buffer`, or null when `size` is too small (16 always do). Any thread. */
PLATFORM_API char *inet_ntoa_r(struct in_addr address, char *buffer, size_t size);

PLATFORM_END

#endif
