// Reports of the engine: messages to the platform's log, and the assertion that ends the process.
#pragma once

#include <cstdint>

/// Category and level of every debug trace of the module (tarvo_sa_debug).
constexpr uint32_t kDebugCategory = 13;
constexpr uint32_t kDebugLevel = 1;

/// Logs an internal fault. Without a description it is the system's text of the number.
void tarvo_nd_log_internal(const char *text, int number, const char *description = nullptr);

/// Logs a failed allocation; the text begins "During mallocing".
void tarvo_nd_log_err_mem(const char *text);

/// Logs that the next-hop limit refused an address.
void tarvo_nd_log_disc_limit(const char *text);

/// Unless `result` is 0: prints an assertion of the thread layer on standard error and aborts. The
/// lines are fixed labels by which such reports are known in the field, not lines of this source.
void tarvo_nd_require_ok(int result, int line, const char *condition);
