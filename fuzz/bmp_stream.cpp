// The BMP stream. However it is cut into chunks, what is learned, reported and counted is the same;
// every next hop learned stands in the stream; a connection that ends leaves nothing behind.
//
// Input: view and kind of session, seed of the chunk sizes, the stream.
#include <arpa/inet.h>

#include <cstring>
#include <string_view>

#include "agent/bmp_session.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "fuzz/fuzz.h"
#include "tarvo/discovery.h"

// The fence stays closed: the module is never called.
uint32_t tarvo_pe_discovery_register(uint32_t, const char *, tarvo_nd_notify_fn) { return 1; }
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return 1; }
uint32_t tarvo_pe_discovery_resend(uint32_t, const char *) { return 1; }

using namespace agent;

namespace {

struct world {
  global_table global;
  fence pace;
  redistribution reports{pace};
  rib routes{global, reports};
  std::string said;
  bmp_session session;

  world(bmp_view view, bmp_session::source_kind kind)
      : session(routes, view, kind, "router",
                [this](const std::string &line) { said += line + '\n'; }) {
    routes.add_vrf({"A", 101, {0x2fde800000001}});
    routes.add_vrf({"B", 102, {0x1020aff01010007, 0x202fa56ea020009}});
  }

  std::string state() {
    const session_info told = session.info();
    std::string text = said + told.system_name + '|' + told.last_error + '|' +
                       session.stream_error() + (told.up ? "|up" : "|down");
    for (const auto &[kind, count] : told.malformed) text += kind + std::to_string(count);
    for (const uint64_t n :
         {uint64_t{told.peers}, told.messages, told.routes_read, told.skipped.other_views,
          told.skipped.ipv6_nexthop, told.skipped.vrf_unicast, told.skipped.rib_full,
          uint64_t{routes.paths()}})
      text += ' ' + std::to_string(n);
    for (const route_count &c : routes.count_routes())
      text += '\n' + std::to_string(c.table_id) + ' ' + std::to_string(c.nexthop) + ' ' +
              std::to_string(c.routes);
    return text;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const auto view = static_cast<bmp_view>(data[0] % 3);
  const auto kind = (data[0] & 4) != 0 ? bmp_session::source_kind::recording
                                       : bmp_session::source_kind::connection;
  uint32_t seed = data[1];
  const std::span<const uint8_t> stream(data + 2, size - 2);

  world whole(view, kind), chunks(view, kind);
  whole.session.feed(stream);
  for (size_t at = 0, taken = 0; at < stream.size(); at += taken) {
    seed = seed * 1103515245 + 12345;
    taken = std::min<size_t>(1 + (seed >> 16) % (seed % 2 == 0 ? 8 : 300), stream.size() - at);
    if (!chunks.session.feed(stream.subspan(at, taken))) break;
  }
  REQUIRE(whole.state() == chunks.state());

  const std::string_view text(reinterpret_cast<const char *>(stream.data()), stream.size());
  for (const route_count &c : whole.routes.count_routes()) {
    const std::string_view nexthop(reinterpret_cast<const char *>(&c.nexthop), sizeof c.nexthop);
    REQUIRE(c.nexthop != 0 && c.routes != 0 && text.find(nexthop) != text.npos);
  }

  whole.session.finish("");
  chunks.session.finish("");
  REQUIRE(whole.state() == chunks.state());
  if (kind == bmp_session::source_kind::connection)
    REQUIRE(whole.routes.paths() == 0 && !whole.global.lookup(0x0a090101));
  return 0;
}
