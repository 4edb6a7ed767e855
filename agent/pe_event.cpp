#include "agent/pe_event.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include "agent/json.h"
#include "agent/text.h"

namespace agent {

namespace {

const char *event_name(uint32_t event) {
  switch (event) {
    case TARVO_ND_EVENT_ADD:
      return "ADD";
    case TARVO_ND_EVENT_REMOVE:
      return "REMOVE";
    case TARVO_ND_EVENT_END:
      return "END";
    case TARVO_ND_EVENT_RESEND_END:
      return "RESEND_END";
    default:
      return "UNKNOWN";
  }
}

bool names_a_hop(uint32_t event) {
  return event == TARVO_ND_EVENT_ADD || event == TARVO_ND_EVENT_REMOVE;
}

}  // namespace

std::string event_text(const pe_event &e) {
  const bool hop = names_a_hop(e.event);
  const std::string nexthop = hop ? address_text(e.hop.nhop_addr) : "-";
  const std::string prefix = hop ? prefix_text(e.hop.prefix, e.hop.prefix_len) : "-";
  std::array<char, 160> line;
  snprintf(line.data(), line.size(), "%s  client %-4u  %-10s  %-15s  %-18s  ",
           utc_text(e.time).c_str(), e.client, event_name(e.event), nexthop.c_str(),
           prefix.c_str());
  return line.data() + (e.vrf ? *e.vrf : std::string("(all VPNs)"));
}

std::string event_json(const pe_event &e) {
  json line = {{"schema", kSchema},        {"seq", e.seq},
               {"time", utc_text(e.time)}, {"event", event_name(e.event)},
               {"client", e.client},       {"vrf", e.vrf ? json(*e.vrf) : json(nullptr)}};
  if (names_a_hop(e.event)) {
    line["nexthop"] = address_text(e.hop.nhop_addr);
    line["prefix"] = prefix_text(e.hop.prefix, e.hop.prefix_len);
  }
  return one_line(line);
}

lost_line lost_text(uint64_t count) {
  lost_line line;
  snprintf(line.data(), line.size(),
           "%" PRIu64
           " events lost: nobody reads them fast enough, or memory ran out; `resend` repeats\n",
           count);
  return line;
}

lost_line lost_json(uint64_t count, uint64_t seq) {
  lost_line line;
  snprintf(line.data(), line.size(),
           "{\"schema\":%d,\"seq\":%" PRIu64 ",\"event\":\"LOST\",\"count\":%" PRIu64 "}\n",
           kSchema, seq, count);
  return line;
}

}  // namespace agent
