#include "engine/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarvo/messages.h"

void tarvo_nd_log_internal(const char *text, int number, const char *description) {
  const oxa_msg_rec_t &record = oxa_msg_rec_tarvo_internal;
  if (description == nullptr) description = strerror(number);
  oxa_errmsg(&record, record.severity, text, number, description);
}

void tarvo_nd_log_err_mem(const char *text) {
  const oxa_msg_rec_t &record = oxa_msg_rec_tarvo_err_mem;
  oxa_errmsg(&record, record.severity, text);
}

void tarvo_nd_log_disc_limit(const char *text) {
  const oxa_msg_rec_t &record = oxa_msg_rec_tarvo_disc_limit;
  oxa_errmsg(&record, record.severity, text);
}

void tarvo_nd_require_ok(int result, int line, const char *condition) {
  if (result == 0) return;
  flockfile(stderr);
  fprintf(stderr, "%s: %d %s -- assertion failed\n", "os/pthread", line, condition);
  abort();
}
