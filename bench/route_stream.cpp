#include "bench/route_stream.h"

#include <algorithm>
#include <numeric>
#include <random>
#include <string_view>

namespace bench {

namespace {

enum bmp_type : uint8_t { kRouteMonitoring = 0, kPeerUp = 3, kInitiation = 4 };
enum bgp_type : uint8_t { kOpen = 1, kUpdate = 2, kKeepalive = 4 };

constexpr uint16_t kAs = 65000;
constexpr uint32_t kRouterId = 0x0afffffe;

// Big-endian writer with lengths filled in afterwards.
class writer {
 public:
  void put(uint64_t value, int bytes) {
    while (bytes-- > 0) out.push_back(uint8_t(value >> 8 * bytes));
  }
  void put(std::string_view text) { out.insert(out.end(), text.begin(), text.end()); }
  /// Writes the distance from `start` to the end into a field of `bytes` at `field`.
  void set_length(size_t field, int bytes, size_t start) {
    uint64_t length = out.size() - start;
    for (int i = bytes; i-- > 0; length >>= 8) out[field + i] = uint8_t(length);
  }
  size_t here() const { return out.size(); }

  std::vector<uint8_t> out;
};

struct route {
  uint32_t vrf;
  uint32_t number;  // its /24
};

// Both framings write a length at the end of what `body` writes.

template <typename Body>
void put_bmp(writer &w, bmp_type type, Body body) {
  size_t start = w.here();
  w.put(3, 1);
  w.put(0, 4);
  w.put(type, 1);
  body();
  w.set_length(start + 1, 4, start);
}

template <typename Body>
void put_bgp(writer &w, bgp_type type, Body body) {
  size_t start = w.here();
  for (int i = 0; i < 16; ++i) w.put(0xff, 1);
  w.put(0, 2);
  w.put(type, 1);
  body();
  w.set_length(start + 16, 2, start);
}

void put_open(writer &w) {
  put_bgp(w, kOpen, [&] {
    w.put(4, 1);
    w.put(kAs, 2);
    w.put(0, 2);  // no hold time
    w.put(kRouterId, 4);
    w.put(14, 1);
    w.put(0x020c, 2);                // a parameter of capabilities:
    w.put(0x010400010080, 6);        // VPNv4,
    w.put(0x410400000000 | kAs, 6);  // AS numbers of four bytes
  });
}

void put_peer(writer &w) {
  w.put(3, 1);                               // Loc-RIB instance
  for (int i = 0; i < 25; ++i) w.put(0, 1);  // flags, distinguisher, address
  w.put(kAs, 4);
  w.put(kRouterId, 4);
  w.put(0, 8);  // time
}

void put_session_start(writer &w, protocol speaks) {
  if (speaks == protocol::bgp) {
    put_open(w);
    put_bgp(w, kKeepalive, [] {});
    return;
  }
  constexpr std::string_view name = "generator";
  put_bmp(w, kInitiation, [&] {
    w.put(2, 2);  // sysName
    w.put(name.size(), 2);
    w.put(name);
  });
  put_bmp(w, kPeerUp, [&] {
    put_peer(w);
    for (int i = 0; i < 20; ++i) w.put(0, 1);  // local address, ports
    put_open(w);
    put_open(w);
  });
}

/// One UPDATE whose attributes `attributes` writes.
template <typename Attributes>
void put_update(writer &w, protocol speaks, Attributes attributes) {
  const auto update = [&] {
    put_bgp(w, kUpdate, [&] {
      w.put(0, 2);  // no withdrawn IPv4 routes
      size_t total = w.here();
      w.put(0, 2);
      attributes();
      w.set_length(total, 2, total + 2);
    });
  };
  if (speaks == protocol::bgp) return update();
  put_bmp(w, kRouteMonitoring, [&] {
    put_peer(w);
    update();
  });
}

void put_nlri(writer &w, const route &r) {
  w.put(24 + 64 + 24, 1);
  w.put(uint64_t{16 + r.vrf} << 4 | 1, 3);  // label, bottom of stack
  w.put(vrf_target(r.vrf) & 0x0000ffffffffffff, 8);
  w.put(r.number, 3);
}

void put_announcement(writer &w, protocol speaks, const std::vector<route> &routes, uint32_t pe) {
  put_update(w, speaks, [&] {
    w.put(0x40010100, 4);        // ORIGIN IGP
    w.put(0x400200, 3);          // AS_PATH, empty
    w.put(0x40050400000064, 7);  // LOCAL_PREF 100
    w.put(0x900e, 2);            // MP_REACH_NLRI
    size_t reach = w.here();
    w.put(0, 2);
    w.put(0x0001800c, 4);
    w.put(0, 8);
    w.put(pe_address(pe), 4);
    w.put(0, 1);
    for (const route &r : routes) put_nlri(w, r);
    w.set_length(reach, 2, reach + 2);
    w.put(0xc01008, 3);  // extended communities
    w.put(vrf_target(routes[0].vrf), 8);
  });
}

void put_withdrawal(writer &w, protocol speaks, const route *first, const route *last) {
  put_update(w, speaks, [&] {
    w.put(0x900f, 2);  // MP_UNREACH_NLRI
    size_t unreach = w.here();
    w.put(0, 2);
    w.put(0x000180, 3);
    for (; first != last; ++first) put_nlri(w, *first);
    w.set_length(unreach, 2, unreach + 2);
  });
}

}  // namespace

std::vector<uint8_t> make_stream(const stream_shape &shape) {
  std::mt19937 random(shape.seed);
  std::vector<uint32_t> numbers(shape.routes);
  std::iota(numbers.begin(), numbers.end(), 0x010000);  // 1.0.0.0/24: 0.0.0.0/8 is no unicast
  std::shuffle(numbers.begin(), numbers.end(), random);

  writer w;
  put_session_start(w, shape.speaks);
  std::vector<route> all, update;
  for (uint32_t number : numbers) {
    uint32_t vrf = update.empty() ? 1 + random() % shape.vrfs : update[0].vrf;
    update.push_back({vrf, number});
    all.push_back(update.back());
    if (update.size() < shape.per_update && all.size() < shape.routes) continue;
    put_announcement(w, shape.speaks, update, random() % shape.pes);
    update.clear();
  }
  std::shuffle(all.begin(), all.end(), random);
  size_t gone = std::min(shape.withdrawals, shape.routes);
  for (size_t i = 0; i < gone; i += shape.per_update)
    put_withdrawal(w, shape.speaks, &all[i],
                   &all[0] + std::min<size_t>(i + shape.per_update, gone));
  return std::move(w.out);
}

}  // namespace bench
