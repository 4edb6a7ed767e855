// Well-formed streams, cut short at every byte and with every length field wrong in turn. What is
// learned is what a correct reading of the rest gives, or there is a report; never a wrong PE.
#include <fstream>
#include <map>
#include <set>

#include "tests/agent/bmp_world.h"

namespace agent {
namespace {

using counts = std::map<std::string_view, size_t>;

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
  std::string_view of;  ///< what it is the length of
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
  counts of;
  bool exact = true;  ///< every list ended where the field before it said

 private:
  using directions = std::map<size_t, size_t>;  ///< of path identifiers, by SAFI

  size_t number(size_t at, int size) const { return ::agent::number(stream_, at, size); }
  size_t length(size_t at, int size, std::string_view what) {
    fields.push_back({messages.size() - 1, at, size, what});
    ++of[what];
    return number(at, size);
  }
  void walk_message(size_t at) {
    messages.push_back(at);
    const size_t end = at + length(at + 1, 4, "BMP message");
    const size_t type = number(at + 5, 1);
    if (type == 0) exact &= walk_update(at) == end;
    if (type == 3) exact &= walk_opens(at) == end;
    if (type != 4) return;
    for (at += 6; at < end;) at += 4 + length(at + 2, 2, "information");
    exact &= at == end;
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
  size_t walk_open(size_t at, directions &added) {
    const size_t end = at + length(at + 16, 2, "BGP message");
    size_t size = length(at + 28, 1, "parameters");
    at += 29;
    const int wide = number(at, 1) == 255 ? 2 : 1;
    if (wide == 2) size = length(at + 1, 2, "parameters"), at += 3;
    exact &= at + size == end;
    while (at < end) {
      size_t capability = at + 1 + static_cast<size_t>(wide);
      at = capability + length(at + 1, wide, "parameter");
      while (capability < at) capability = walk_capability(capability, added);
      exact &= capability == at;
    }
    return end;
  }
  size_t walk_capability(size_t at, directions &added) {
    const size_t code = number(at, 1), end = at + 2 + length(at + 1, 1, "capability");
    at += 2;
    if (code == 69)
      for (; at < end; at += 4) added[number(at + 2, 1)] = number(at + 3, 1);
    else if (code == 73)
      while (at < end) at += 1 + length(at, 1, "name");
    else
      return end;
    exact &= at == end;
    return end;
  }

  size_t walk_update(size_t message) {
    const bytes peer = (number(message + 7, 1) & 0x40) != 0 ? "" : peer_at(message);
    const auto walk_routes = [&](size_t at, size_t end, size_t safi) {
      const size_t id = identified_.contains({peer, safi}) ? 4 : 0;
      while (at < end) at += id + 1 + (length(at + id, 1, "prefix") + 7) / 8;
      exact &= at == end;
    };
    size_t at = message + 48;
    const size_t end = at + length(at + 16, 2, "BGP message");
    const size_t withdrawn = at + 21;
    at = withdrawn + length(at + 19, 2, "withdrawn routes");
    walk_routes(withdrawn, at, 1);
    const size_t attributes_end = at + 2 + length(at, 2, "attributes");
    for (at += 2; at < attributes_end;) {
      const int size = (number(at, 1) & 0x10) != 0 ? 2 : 1;
      const size_t type = number(at + 1, 1);
      size_t value = at + 2 + static_cast<size_t>(size);
      at = value + length(at + 2, size, "attribute");
      if (type == 14)
        walk_routes(value + 5 + length(value + 3, 1, "next hop"), at, number(value + 2, 1));
      if (type == 15) walk_routes(value + 3, at, number(value + 2, 1));
      if (type != 2) continue;
      while (value < at) value += 2 + 4 * length(value + 1, 1, "AS_PATH segment");
      exact &= value == at;
    }
    exact &= at == attributes_end;
    walk_routes(at, end, 1);
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
const counts kRecordedFields{{"BMP message", 48}, {"information", 2},       {"BGP message", 52},
                             {"parameters", 10},  {"parameter", 10},        {"capability", 60},
                             {"name", 20},        {"withdrawn routes", 42}, {"attributes", 42},
                             {"attribute", 174},  {"next hop", 33},         {"prefix", 42}};
const counts kRichFields{{"BMP message", 13},     {"information", 1}, {"BGP message", 13},
                         {"parameters", 6},       {"parameter", 4},   {"capability", 4},
                         {"withdrawn routes", 9}, {"attributes", 9},  {"attribute", 24},
                         {"AS_PATH segment", 7},  {"next hop", 5},    {"prefix", 12}};

/// A stream, in a view that its routes are read in.
struct swept {
  const char *name;
  bmp_view view;
  bytes stream;
  bytes routes;
  counts of;

  friend void PrintTo(const swept &, std::ostream *) {}
};

class Sweep : public testing::TestWithParam<swept> {
 protected:
  /// What a replay gives: its routes; whether it told of a fault, and every PE that it showed.
  struct outcome {
    std::string routes;
    bool reported = false;
    std::set<std::pair<uint32_t, uint32_t>> pes;  ///< by table
  };

  static outcome replay(const bytes &stream) {
    outcome got;
    world w(GetParam().view, kind::recording);
    for (size_t at = 0, size = 0; at < stream.size(); at += size) {
      // Whole messages as the stream's own lengths have them, so that each one's result is seen.
      size = std::min(stream.size() - at, std::max<size_t>(number(stream, at + 1, 4), 1));
      w.feed(stream.substr(at, size));
      for (const route_count &c : w.routes.count_routes()) got.pes.insert({c.table_id, c.nexthop});
    }
    w.session.finish("");
    got.routes = w.learned();
    got.reported = !w.session.info().malformed.empty();
    return got;
  }

  /// Clears the bits beyond each prefix in its last octet, if the prefixes fill their lists.
  static bool clear_beyond_prefixes(bytes &stream) {
    const walker other(stream);
    for (const length_field &field : other.fields) {
      if (field.of != "prefix" || !other.exact) continue;
      const size_t bits = number(stream, field.at, 1);
      char &last = stream[field.at + (bits + 7) / 8];
      last = static_cast<char>(last & (0xff << (8 - bits % 8) % 8));
    }
    return other.exact;
  }

  const bytes &stream = GetParam().stream;
  const walker known{stream};
};

TEST_P(Sweep, KnowsTheStream) {
  EXPECT_TRUE(known.exact);
  EXPECT_EQ(known.of, GetParam().of);
  EXPECT_EQ(replay(stream).routes, GetParam().routes);
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
    others.erase(begin, field.of == "BMP message" ? bytes::npos : number(stream, begin + 1, 4));
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
      const bool others_as_good = field.of == "prefix" && clear_beyond_prefixes(broken);
      EXPECT_EQ(got.routes, others_as_good ? replay(broken).routes : right.routes);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    , Sweep,
    testing::Values(
        swept{"LocRib", bmp_view::loc_rib, recording(), kRecorded, kRecordedFields},
        swept{"PostPolicy", bmp_view::post_policy, recording(), kRecorded, kRecordedFields},
        swept{"PrePolicy", bmp_view::pre_policy, recording(), kRecorded, kRecordedFields},
        swept{"Rich", bmp_view::pre_policy, kRich, kRichState, kRichFields}),
    [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace agent
