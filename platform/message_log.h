/**
 * @file
 * Message log: one line per message on standard error.
 *
 * A message is a record that never changes, held by whoever logs it: the log reads facility,
 * group, mnemonic and format from it. A line is
 *     2026-11-24T19:30:00.123Z TARVO-KORV-4-ERR_MEM: During mallocing NHop Chunk
 * with the time in UTC. A line has at most 1024 bytes: a text that is longer, for which at least
 * 900 are left, is cut and ends in "...". A control character in it is written as "?". Each line is
 * one write, so threads never mix theirs.
 *
 * Logging never waits for a reader, since the module logs with its locks held: a line that standard
 * error, as a full pipe, does not take at once is dropped and counted, and the next line that goes
 * out ends in " (N lines lost)".
 */
#ifndef TARVO_PLATFORM_MESSAGE_LOG_H
#define TARVO_PLATFORM_MESSAGE_LOG_H

#include "export.h"

PLATFORM_BEGIN

/**
 * Rate limit of one message: at least `limit` seconds between two of its lines; 0 is no limit.
 * Lines held back are counted, and the next line that is printed ends in " (N suppressed)".
 * `state`, all zero at first, is the log's own.
 */
typedef struct oxa_msg_limit {
  uint32_t limit;    /**< seconds */
  uint8_t state[28]; /**< the log's */
} oxa_msg_limit_t;

/** One message of a catalogue. */
typedef struct oxa_msg_rec {
  uint64_t reserved0;     /**< 0 */
  const char *format;     /**< printf format of the message text */
  oxa_msg_limit_t *limit; /**< null: none */
  const char *facility;   /**< of the line's FACILITY-GROUP-SEVERITY-MNEMONIC */
  const char *group;      /**< likewise */
  const char *mnemonic;   /**< likewise */
  uint16_t flags;         /**< not looked at */
  uint16_t severity;   /**< as in syslog: 3 error, 4 warning, 5 notice, 6 informational, 7 debug */
  uint32_t reserved1;  /**< 0 */
  uint64_t reserved2;  /**< 0 */
  uint32_t message_id; /**< unique in its catalogue; not printed */
  uint32_t reserved3;  /**< 0 */
} oxa_msg_rec_t;

static_assert(sizeof(oxa_msg_limit_t) == 32, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, format) == 8, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, limit) == 16, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, facility) == 24, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, group) == 32, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, mnemonic) == 40, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, flags) == 48, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, severity) == 50, "layout read by the log");
static_assert(offsetof(oxa_msg_rec_t, message_id) == 64, "layout read by the log");
static_assert(sizeof(oxa_msg_rec_t) == 72, "layout read by the log");

/** Logs one message with the arguments of the record's format. Any thread; errno is kept. */
PLATFORM_API void oxa_errmsg(const oxa_msg_rec_t *message, int severity, ...);

PLATFORM_END

#endif
