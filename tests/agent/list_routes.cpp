// list_routes FILE: what the agent reads out of a recorded stream's UPDATEs, a line for each route;
// script/check-decoder compares it with another decoder. Path identifiers are read where they
// stand.
#include <arpa/inet.h>

#include <fstream>
#include <iostream>
#include <iterator>

#include "agent/bgp_update.h"
#include "agent/text.h"

using namespace agent;

namespace {

// "NUMBER + RD PREFIX NEXT-HOP TARGETS"; " path" follows where a path identifier came before.
void list(size_t number, const std::vector<nlri> &routes, const std::string &what) {
  for (const nlri &r : routes) {
    const uint64_t as_target = (r.rd >> 48 & 0xff) << 56 | uint64_t{0x02} << 48;
    std::cout << number << (what.empty() ? " - " : " + ")
              << target_text(as_target | (r.rd & 0xffffffffffff)) << ' '
              << prefix_text(htonl(r.prefix), r.length) << what << (r.path_id != 0 ? " path" : "")
              << '\n';
  }
}

}  // namespace

int main(int, char **argv) {
  std::ifstream file(argv[1], std::ios::binary);
  const std::vector<uint8_t> stream{std::istreambuf_iterator<char>(file), {}};
  byte_cursor in(stream);
  bgp_update update;
  for (size_t number = 1; in.left() > 0; ++number) {
    in.skip(1);
    byte_cursor message = in.take(in.u32() - 5);
    if (!in.ok()) return std::cerr << "message " << number << " is cut short\n", 1;
    if (message.u8() != 0) continue;
    message.skip(42);
    bgp_fault fault;
    read_update(take_bgp_message(message, kBgpUpdate, fault), {}, update);
    list(number, update.withdrawn, "");
    std::string targets;
    for (const route_target t : update.targets) targets += ' ' + target_text(t);
    for (const bgp_reach *reach : {&update.classic, &update.multiprotocol})
      list(number, reach->routes, ' ' + address_text(reach->nexthop) + targets);
  }
}
