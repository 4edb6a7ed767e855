// list_routes FILE: what the agent reads out of each of a recorded stream's UPDATEs, a line for
// each route, and what a session in each view has in the RIB at the end. script/check-decoder
// compares it with another decoder. Without FILE it writes a stream to compare, of what recordings
// lack.
#include <arpa/inet.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>

#include "agent/bgp_open.h"
#include "agent/bgp_update.h"
#include "agent/text.h"
#include "tarvo/discovery.h"
#include "tests/agent/bmp_world.h"

// The RIB's fence stays closed: the module is never called.
uint32_t tarvo_pe_discovery_register(uint32_t, const char *, tarvo_nd_notify_fn) { return 1; }
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return 1; }
uint32_t tarvo_pe_discovery_resend(uint32_t, const char *) { return 1; }

using namespace agent;

namespace {

// "WHERE RD PREFIX PATH-ID", and of an announcement " NEXT-HOP TARGETS".
void list(const std::string &where, const nlri &r, const std::string &attributes) {
  std::cout << where << ' ' << (r.vpn ? distinguisher_text(r.rd) : "-") << ' '
            << prefix_text(htonl(r.prefix), r.length) << ' ' << r.path_id << attributes << '\n';
}

std::string attributes_of(uint32_t nexthop, std::span<const route_target> targets) {
  std::string text = ' ' + address_text(nexthop);
  for (const route_target t : targets) text += ' ' + target_text(t);
  return text;
}

void list_view(const bytes &stream, bmp_view view, const char *name,
               const std::set<uint32_t> &nexthops) {
  world w({view, kind::recording});
  w.feed(stream);
  w.session.finish("");
  for (const uint32_t nexthop : nexthops)
    w.routes.visit_nexthop(nexthop, [&](const rib::path_info &path) {
      list(name + std::string(" ="), path.key, attributes_of(nexthop, path.targets));
    });
}

}  // namespace

int main(int count, char **argv) {
  if (count == 1) return std::cout << kStream, 0;
  std::ifstream file(argv[1], std::ios::binary);
  const bytes stream{std::istreambuf_iterator<char>(file), {}};
  std::map<std::pair<uint8_t, bytes>, add_path_families> peers;  // by type and address
  std::set<uint32_t> nexthops;
  bgp_update update;
  byte_cursor in(span_of(stream));
  for (size_t number = 1; in.left() > 0; ++number) {
    in.skip(1);
    byte_cursor message = in.take(in.u32() - 5);
    if (!in.ok()) return std::cerr << "message " << number << " is cut short\n", 1;
    const uint8_t type = message.u8(), peer_type = message.u8();
    message.skip(1);  // flags
    const std::span<const uint8_t> address = message.take(24).rest();
    add_path_families &negotiated = peers[{peer_type, bytes(address.begin(), address.end())}];
    message.skip(16);  // AS, BGP identifier, timestamp
    bgp_fault fault;
    if (type == 3) {
      message.skip(20);  // local address and ports
      negotiated = read_opens(message, peer_type == 3, fault);
    }
    if (type != 0) continue;
    add_path_families expected = negotiated;  // each is read anew: views of a peer differ
    read_update(take_bgp_message(message, kBgpUpdate, fault), expected, update);
    if (update.other_reading) std::cout << number << " against the OPENs\n";
    for (const nlri &r : update.withdrawn) list(std::to_string(number) + " -", r, "");
    for (const bgp_reach *reach : {&update.classic, &update.multiprotocol})
      for (const nlri &r : reach->routes) {
        nexthops.insert(reach->nexthop);
        list(std::to_string(number) + " +", r,
             attributes_of(reach->nexthop, r.vpn ? update.targets : std::vector<route_target>()));
      }
  }
  list_view(stream, bmp_view::loc_rib, "loc-rib", nexthops);
  list_view(stream, bmp_view::post_policy, "post-policy", nexthops);
  list_view(stream, bmp_view::pre_policy, "pre-policy", nexthops);
}
