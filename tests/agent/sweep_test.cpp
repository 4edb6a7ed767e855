// Well-formed streams, in chunks of many sizes, cut short at every byte and with every length field
// wrong in turn. What is learned is what a correct reading of the rest gives, or there is a report;
// never a wrong PE.
#include <fstream>
#include <map>
#include <set>

#include "tests/agent/bmp_world.h"

namespace agent {
namespace {

/// As far as the stream goes.
size_t number(const bytes &stream, size_t at, int size) {
  size_t value = 0;
  for (; size > 0 && at < stream.size(); --size)
    value = value << 8 | static_cast<uint8_t>(stream[at++]);
  return value;
}

struct length_field {
  size_t message;  ///< which of the stream's
  size_t at;
  int size;
  bool of_prefix;
};

/// Finds the messages and length fields of a well-formed stream; it shares nothing with the agent's
/// reader. Path identifiers stand where the OPENs say so, except in a post-policy view, which the
/// recorded router writes without.
class walker {
 public:
  explicit walker(const bytes &stream) : stream_(stream) {
    for (size_t at = 0; at < stream.size(); at += number(at + 1, 4)) walk_message(at);
  }

  std::vector<size_t> messages;  ///< where they begin
  std::vector<length_field> fields;
  bool exact = true;  ///< every list ended where the field before it said

 private:
  using directions = std::map<size_t, size_t>;  ///< of path identifiers, by SAFI

  size_t number(size_t at, int size) const { return ::agent::number(stream_, at, size); }
  size_t length(size_t at, int size, bool of_prefix = false) {
    fields.push_back({messages.size() - 1, at, size, of_prefix});
    return number(at, size);
  }
  /// `walk_item` takes where an item begins, and gives where it ends.
  void walk_list(size_t at, size_t end, const auto &walk_item) {
    while (at < end) at = walk_item(at);
    exact &= at == end;
  }
  void walk_message(size_t at) {
    messages.push_back(at);
    const size_t end = at + length(at + 1, 4), type = number(at + 5, 1);
    if (type == 0) exact &= walk_update(at) == end;
    if (type == 3) exact &= walk_opens(at) == end;
    if (type == 4) walk_list(at + 6, end, [&](size_t tlv) { return tlv + 4 + length(tlv + 2, 2); });
  }
  bytes peer_at(size_t message) const { return stream_.substr(message + 8, 24); }

  size_t walk_opens(size_t message) {
    directions sent, received;
    const size_t end = walk_open(walk_open(message + 68, sent), received);
    for (const auto &[safi, direction] : sent)
      if ((direction & 1) != 0 && (received[safi] & 2) != 0)
        identified_.insert({peer_at(message), safi});
    return end;
  }
  size_t walk_open(size_t open, directions &added) {
    const size_t end = open + length(open + 16, 2);
    size_t at = open + 29, size = length(open + 28, 1), wide = 1;
    if (number(at, 1) == 255) {
      size = length(at + 1, 2);
      at += 3;
      wide = 2;
    }
    exact &= at + size == end;
    walk_list(at, end, [&](size_t parameter) {
      const size_t value = parameter + 1 + wide;
      const size_t next = value + length(parameter + 1, static_cast<int>(wide));
      walk_list(value, next, [&](size_t capability) { return walk_capability(capability, added); });
      return next;
    });
    return end;
  }
  size_t walk_capability(size_t at, directions &added) {
    const size_t code = number(at, 1), value = at + 2, end = value + length(at + 1, 1);
    if (code == 73) walk_list(value, end, [&](size_t name) { return name + 1 + length(name, 1); });
    if (code == 69)
      walk_list(value, end, [&](size_t family) {
        added[number(family + 2, 1)] = number(family + 3, 1);
        return family + 4;
      });
    return end;
  }

  size_t walk_update(size_t message) {
    const bytes peer = (number(message + 7, 1) & 0x40) != 0 ? "" : peer_at(message);
    const auto walk_routes = [&](size_t list, size_t list_end, size_t safi) {
      const size_t id = identified_.contains({peer, safi}) ? 4 : 0;
      walk_list(list, list_end, [&](size_t route) {
        return route + id + 1 + (length(route + id, 1, true) + 7) / 8;
      });
    };
    const size_t bgp = message + 48, end = bgp + length(bgp + 16, 2), withdrawn = bgp + 21;
    const size_t attributes = withdrawn + length(bgp + 19, 2);
    walk_routes(withdrawn, attributes, 1);
    const size_t routes = attributes + 2 + length(attributes, 2);
    walk_list(attributes + 2, routes, [&](size_t at) {
      const bool wide = (number(at, 1) & 0x10) != 0;
      const size_t type = number(at + 1, 1), value = at + (wide ? 4 : 3);
      const size_t next = value + length(at + 2, wide ? 2 : 1);
      if (type == 2)
        walk_list(value, next, [&](size_t part) { return part + 2 + 4 * length(part + 1, 1); });
      if (type == 14) walk_routes(value + 5 + length(value + 3, 1), next, number(value + 2, 1));
      if (type == 15) walk_routes(value + 3, next, number(value + 2, 1));
      return next;
    });
    walk_routes(routes, end, 1);
    return end;
  }

  const bytes &stream_;
  std::set<std::pair<bytes, size_t>> identified_;  ///< peers and SAFIs with path identifiers
};

bytes recording() {
  std::ifstream file(EXAMPLES "/two-vpns.bmp", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

const char kRecorded[] = " A1*2 A2*2 A3*1 B1*1 B3*1 C3*1 C5*1";

/// A stream, in a view that its routes are read in.
struct swept {
  const char *name;
  bmp_view view;
  bytes stream;
  bytes routes;
  size_t fields;

  friend void PrintTo(const swept &, std::ostream *) {}
};

class Sweep : public testing::TestWithParam<swept> {
 protected:
  /// What a replay gives: its routes; how many messages it read, whether it told of a fault, and
  /// every PE that it showed.
  struct outcome {
    std::string routes;
    uint64_t messages = 0;
    bool reported = false;
    std::set<std::pair<uint32_t, uint32_t>> pes;  ///< by table
  };

  static outcome replay(const bytes &stream, size_t chunk = 0) {
    outcome got;
    world w({GetParam().view, kind::recording});
    for (size_t at = 0, size = 0; at < stream.size(); at += size) {
      // Whole messages as the stream's own lengths have them, so that each one's result is seen.
      size = chunk != 0 ? chunk : std::max<size_t>(number(stream, at + 1, 4), 1);
      size = std::min(size, stream.size() - at);
      w.feed(stream.substr(at, size));
      for (const route_count &c : w.routes.count_routes()) got.pes.insert({c.table_id, c.nexthop});
    }
    w.session.finish("");
    got.routes = w.learned();
    got.messages = w.session.info().messages;
    got.reported = !w.session.info().malformed.empty();
    return got;
  }

  /// Clears the bits beyond each prefix in its last octet, if the prefixes fill their lists.
  static bool clear_beyond_prefixes(bytes &stream) {
    const walker other(stream);
    for (const length_field &field : other.fields) {
      if (!field.of_prefix || !other.exact) continue;
      const size_t bits = number(stream, field.at, 1);
      char &last = stream[field.at + (bits + 7) / 8];
      last = static_cast<char>(last & (0xff << (8 - bits % 8) % 8));
    }
    return other.exact;
  }

  const bytes &stream = GetParam().stream;
  const walker known{stream};
};

TEST_P(Sweep, ChunksGiveTheSame) {
  EXPECT_TRUE(known.exact);
  EXPECT_EQ(known.fields.size(), GetParam().fields);
  for (size_t chunk = 1; chunk < stream.size(); chunk += 1 + chunk / 8) {
    const outcome got = replay(stream, chunk);
    ASSERT_EQ(got.routes, GetParam().routes) << "in chunks of " << chunk;
    ASSERT_EQ(got.messages, known.messages.size()) << "in chunks of " << chunk;
    ASSERT_FALSE(got.reported) << "in chunks of " << chunk;
  }
}

TEST_P(Sweep, EveryTruncationGivesTheWholeMessages) {
  std::string whole;
  for (size_t size = 0, next = 0; size < stream.size(); ++size) {
    const bool boundary = next < known.messages.size() && known.messages[next] == size;
    const outcome cut = replay(stream.substr(0, size));
    if (boundary) whole = cut.routes, ++next;
    EXPECT_EQ(cut.routes, whole) << size;
    EXPECT_EQ(cut.reported, !boundary) << size;
  }
}

TEST_P(Sweep, EveryWrongLengthGivesTheRestOrAReport) {
  const outcome right = replay(stream);
  for (const length_field &field : known.fields) {
    const size_t size = static_cast<size_t>(field.size);
    const uint64_t value = number(stream, field.at, field.size);
    // A BMP message's own length tells where the others are: without it what came before is all.
    const size_t begin = known.messages[field.message];
    bytes others = stream;
    others.erase(begin, field.at == begin + 1 ? bytes::npos : number(stream, begin + 1, 4));
    const std::string rest = replay(others).routes;

    for (const uint64_t wrong :
         {uint64_t{0}, value - 1, value + 1, (uint64_t{1} << 8 * size) - 1}) {
      SCOPED_TRACE(std::to_string(wrong) + " at byte " + std::to_string(field.at));
      bytes broken = stream;
      broken.replace(field.at, size, be(wrong, field.size));
      if (broken == stream) continue;
      const outcome got = replay(broken);
      for (const auto &pe : got.pes)
        EXPECT_TRUE(right.pes.contains(pe)) << address_text(pe.second) << " is a wrong PE";
      if (got.reported) {
        EXPECT_TRUE(got.routes == rest || got.routes == right.routes) << got.routes;
        continue;
      }
      // Prefixes that fill their list are others, as good, whatever the bits beyond them say.
      const bool others_as_good = field.of_prefix && clear_beyond_prefixes(broken);
      EXPECT_EQ(got.routes, others_as_good ? replay(broken).routes : right.routes);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    , Sweep,
    testing::Values(swept{"LocRib", bmp_view::loc_rib, recording(), kRecorded, 535},
                    swept{"PostPolicy", bmp_view::post_policy, recording(), kRecorded, 535},
                    swept{"PrePolicy", bmp_view::pre_policy, recording(), kRecorded, 535},
                    swept{"OneOfEverything", bmp_view::pre_policy, kStream, kStreamState, 115}),
    [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace agent
