// The message catalogue: initialised data alone, resolved at load time.
//
// A message's identifier is its place in the alphabetical order of the mnemonics, so the rows
// below stay sorted and a build with a row out of place fails.
#include <string_view>

#include "tarvo/messages.h"

// Written by the message log alone.
oxa_msg_limit_t oxa_msg_limit_tarvo_disc_limit = {300, {}};
oxa_msg_limit_t oxa_msg_limit_tarvo_err_mplslm = {1, {}};
oxa_msg_limit_t oxa_msg_limit_tarvo_err_oper = {1, {}};
oxa_msg_limit_t oxa_msg_limit_tarvo_issu_info = {300, {}};

namespace {

// One copy each, shared by all records.
constexpr char kFacility[] = "TARVO";
constexpr char kGroup[] = "KORV";

constexpr oxa_msg_rec_t record(uint16_t index, const char *mnemonic, uint16_t severity,
                               uint16_t flags, oxa_msg_limit_t *limit, const char *format) {
  return {0,        format, limit, kFacility,           kGroup, mnemonic, flags,
          severity, 0,      0,     0x09460000u + index, 0};
}

}  // namespace

#define TARVO_MESSAGES(X)                                                                          \
  X(0, agent, "AGENT", 7, 0, nullptr, "%s:id(gid:%d,nid:%d,pid:%d):%s")                            \
  X(1, disc_limit, "DISC_LIMIT", 6, 0, &oxa_msg_limit_tarvo_disc_limit, "%s")                      \
  X(2, err_mem, "ERR_MEM", 4, 0, nullptr, "%s")                                                    \
  X(3, err_mplslm, "ERR_MPLSLM", 4, 1, &oxa_msg_limit_tarvo_err_mplslm, "MPLSLM(%d) %s: %s")       \
  X(4, err_oper, "ERR_OPER", 4, 1, &oxa_msg_limit_tarvo_err_oper, "OP:%d.%s.%s")                   \
  X(5, err_quill, "ERR_QUILL", 7, 0, nullptr, "%s:%s")                                             \
  X(6, internal, "INTERNAL", 5, 0, nullptr, "%s:%d:%s")                                            \
  X(7, issu_info, "ISSU_INFO", 6, 0, &oxa_msg_limit_tarvo_issu_info, "%s (%d)")                    \
  X(8, lpd_result_chg, "LPD_RESULT_CHG", 5, 0, nullptr,                                            \
    "Op:%u Tree trace for target address %s %s (retcode: %s)")                                     \
  X(9, lsp_group_chg, "LSP_GROUP_CHG", 5, 0, nullptr, "Op:%u for target address %s from %s to %s") \
  X(10, threshold_clear, "THRESHOLD_CLEAR", 5, 0, nullptr,                                         \
    "Monitor element has reset the threshold reaction. Op:%u, TargetAddr:%s, MonElem:%s(%s)")      \
  X(11, threshold_set, "THRESHOLD_SET", 5, 0, nullptr,                                             \
    "Monitor element has exceeded the threshold condition. Op:%u, TargetAddr:%s, MonElem:%s(%s)")

#define X(index, name, mnemonic, severity, flags, limit, format) \
  constinit const oxa_msg_rec_t oxa_msg_rec_tarvo_##name =       \
      record(index, mnemonic, severity, flags, limit, format);
TARVO_MESSAGES(X)
#undef X

#define X(index, name, mnemonic, severity, flags, limit, format) std::string_view(mnemonic),
constexpr std::string_view kMnemonics[] = {TARVO_MESSAGES(X)};
#undef X
#define X(index, name, mnemonic, severity, flags, limit, format) index,
constexpr unsigned kIndices[] = {TARVO_MESSAGES(X)};
#undef X

consteval bool identifiers_are_alphabetical_positions() {
  for (unsigned i = 0; i < std::size(kMnemonics); ++i) {
    if (kIndices[i] != i) return false;
    if (i > 0 && !(kMnemonics[i - 1] < kMnemonics[i])) return false;
  }
  return true;
}
static_assert(std::size(kMnemonics) == 12 && identifiers_are_alphabetical_positions());
