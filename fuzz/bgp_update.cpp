// The BGP UPDATE. A refused one announces nothing; routes are well-formed; reading again into the
// same scratch gives the same; and one that stands, made bad by its ORIGIN, withdraws all it named.
//
// Input: what was negotiated, the body.
#include <algorithm>
#include <tuple>
#include <vector>

#include "agent/bgp_update.h"
#include "fuzz/fuzz.h"

using namespace agent;

namespace {

using route_key = std::tuple<uint64_t, uint32_t, uint32_t, uint8_t, bool>;

std::vector<route_key> keys(std::initializer_list<const std::vector<nlri> *> lists) {
  std::vector<route_key> all;
  for (const auto *list : lists)
    for (const nlri &r : *list) all.emplace_back(r.rd, r.prefix, r.path_id, r.length, r.vpn);
  std::ranges::sort(all);
  return all;
}

bool well_formed(const nlri &r) {
  const uint32_t host = r.length >= 32 ? 0 : ~uint32_t{0} >> r.length;
  return r.length <= 32 && (r.prefix & host) == 0 && (r.vpn || r.rd == 0);
}

bool reachable(uint32_t nexthop) { return (nexthop & 0xf0) != 0xe0 && nexthop != ~uint32_t{0}; }

void check(const bgp_update &u) {
  for (const auto *list : {&u.withdrawn, &u.classic.routes, &u.multiprotocol.routes})
    REQUIRE(std::ranges::all_of(*list, well_formed));
  if (u.fault.action == fault_action::withdraw)
    REQUIRE(u.classic.routes.empty() && u.multiprotocol.routes.empty());
  REQUIRE(u.classic.routes.empty() || reachable(u.classic.nexthop));
  REQUIRE(u.multiprotocol.routes.empty() || reachable(u.multiprotocol.nexthop));
  REQUIRE(u.not_ipv4 <= u.withdrawn.size());
  REQUIRE((u.fault.action == fault_action::none) == (*u.fault.kind == 0));
}

/// The body with an ORIGIN of no meaning before its attributes; empty when that doesn't fit.
std::vector<uint8_t> spoilt(std::span<const uint8_t> body) {
  constexpr uint8_t kOrigin[] = {0x40, 1, 1, 9};
  const size_t at = 2 + static_cast<size_t>(body[0] << 8 | body[1]);
  const size_t length = static_cast<size_t>(body[at] << 8 | body[at + 1]) + sizeof kOrigin;
  if (length > 0xffff) return {};
  std::vector<uint8_t> bad(body.begin(), body.end());
  bad[at] = static_cast<uint8_t>(length >> 8);
  bad[at + 1] = static_cast<uint8_t>(length);
  bad.insert(bad.begin() + static_cast<ptrdiff_t>(at) + 2, kOrigin, kOrigin + sizeof kOrigin);
  return bad;
}

void read(std::span<const uint8_t> body, add_path_families expected, bgp_update &update) {
  read_update(byte_cursor(body), expected, update);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 0xffff) return 0;
  const add_path_families negotiated{(data[0] & 1) != 0, (data[0] & 2) != 0};
  const std::span<const uint8_t> body(data + 1, size - 1);
  static bgp_update used;  // as in a session, with what the message before left
  bgp_update fresh;
  read(body, negotiated, used);
  read(body, negotiated, fresh);
  check(used);
  const auto named = [](const bgp_update &u) {
    return keys({&u.withdrawn, &u.classic.routes, &u.multiprotocol.routes});
  };
  REQUIRE(named(used) == named(fresh) && used.targets == fresh.targets);
  REQUIRE(used.fault.kind == fresh.fault.kind && used.fault.offset == fresh.fault.offset);
  if (fresh.fault.action == fault_action::withdraw) return 0;

  const std::vector<uint8_t> bad = spoilt(body);
  if (bad.empty()) return 0;
  read(bad, negotiated, used);
  REQUIRE(used.fault.action == fault_action::withdraw);
  check(used);
  REQUIRE(keys({&used.withdrawn}) == named(fresh));
  return 0;
}
