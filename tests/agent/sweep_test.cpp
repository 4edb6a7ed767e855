// The recording, cut short at every byte and with every length field wrong in turn. What is learned
// is what a correct reading of the rest gives, or there is a report; never a wrong PE.
#include <fstream>
#include <set>

#include "tests/agent/bmp_world.h"

namespace agent {
namespace {

struct length_field {
  size_t message;  ///< which of the stream's
  size_t at;
  int size;
  bool prefix = false;  ///< an NLRI's, in bits
};

/// Finds the messages and length fields of a well-formed recording without path identifiers; it
/// shares nothing with the agent's reader.
class walker {
 public:
  explicit walker(const bytes &stream) : stream_(stream) {
    for (size_t at = 0; at < stream.size(); at += number(at + 1, 4)) walk_message(at);
  }
  std::vector<size_t> messages;  ///< where they begin
  std::vector<length_field> fields;

 private:
  size_t number(size_t at, int size) const {
    size_t value = 0;
    while (size-- > 0) value = value << 8 | static_cast<uint8_t>(stream_[at++]);
    return value;
  }
  size_t length(size_t at, int size, bool prefix = false) {
    fields.push_back({messages.size() - 1, at, size, prefix});
    return number(at, size);
  }
  void walk_message(size_t at) {
    messages.push_back(at);
    const size_t end = at + length(at + 1, 4);
    const size_t type = number(at + 5, 1);
    if (type == 0) walk_update(at + 48);
    if (type == 3) walk_open(at + 68 + walk_open(at + 68));
    if (type == 4)
      for (at += 6; at < end; at += 4 + number(at + 2, 2)) length(at + 2, 2);
  }
  size_t walk_open(size_t at) {
    const size_t size = length(at + 16, 2);
    for (size_t parameter = at + 29, end = parameter + length(at + 28, 1); parameter < end;) {
      size_t capability = parameter + 2;
      parameter = capability + length(parameter + 1, 1);
      for (; capability < parameter; capability += 2 + number(capability + 1, 1))
        length(capability + 1, 1);
    }
    return size;
  }
  void walk_routes(size_t at, size_t end) {
    while (at < end) at += 1 + (length(at, 1, true) + 7) / 8;
  }
  void walk_update(size_t at) {
    const size_t end = at + length(at + 16, 2);
    at += 21 + length(at + 19, 2);
    walk_routes(at - number(at - 2, 2), at);
    size_t attributes_end = at + 2 + length(at, 2);
    for (at += 2; at < attributes_end;) {
      const int size = (number(at, 1) & 0x10) != 0 ? 2 : 1;
      const size_t type = number(at + 1, 1), value = at + 2 + static_cast<size_t>(size);
      at = value + length(at + 2, size);
      if (type == 14) walk_routes(value + 5 + length(value + 3, 1), at);
      if (type == 15) walk_routes(value + 3, at);
    }
    walk_routes(at, end);
  }

  const bytes &stream_;
};

/// What a replay gives: its routes; whether it told of a fault, and every PE that it showed.
struct outcome {
  std::string routes;
  bool reported = false;
  std::set<std::pair<uint32_t, uint32_t>> pes;  ///< by table

  explicit outcome(const bytes &stream) {
    world w(kRecording);
    for (size_t at = 0, size = 0; at < stream.size(); at += size) {
      // Whole messages as the stream's own lengths have them, so that each one's result is seen.
      size = std::min(stream.size() - at, next_size(stream, at));
      w.feed(stream.substr(at, size));
      for (const route_count &c : w.routes.count_routes()) pes.insert({c.table_id, c.nexthop});
    }
    w.session.finish("");
    routes = w.learned();
    reported = !w.session.info().malformed.empty();
  }

  static size_t next_size(const bytes &stream, size_t at) {
    size_t size = 0;
    for (size_t i = at + 1; i < at + 5 && i < stream.size(); ++i)
      size = size << 8 | static_cast<uint8_t>(stream[i]);
    return std::max<size_t>(size, 1);
  }
};

bytes recording() {
  std::ifstream file(EXAMPLES "/two-vpns.bmp", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Sweep, EveryTruncationGivesTheWholeMessages) {
  const bytes stream = recording();
  const walker known(stream);
  ASSERT_GT(known.messages.size(), 20u);
  std::string whole;
  for (size_t size = 0, next = 0; size < stream.size(); ++size) {
    const bool boundary = next < known.messages.size() && known.messages[next] == size;
    const outcome cut(stream.substr(0, size));
    if (boundary) whole = cut.routes, ++next;
    EXPECT_EQ(cut.routes, whole) << size;
    EXPECT_EQ(cut.reported, !boundary) << size;
  }
}

TEST(Sweep, EveryWrongLengthGivesTheRestOrAReport) {
  const bytes stream = recording();
  const walker known(stream);
  const outcome right(stream);
  ASSERT_GT(known.fields.size(), 200u);
  for (const length_field &field : known.fields) {
    const bytes good = stream.substr(field.at, static_cast<size_t>(field.size));
    uint64_t value = 0;
    for (const char c : good) value = value << 8 | static_cast<uint8_t>(c);
    const size_t begin = known.messages[field.message];
    // The message's own length tells where the others are: without it there is no rest.
    const bool framing = field.at == begin + 1;
    bytes others = stream;
    others.erase(begin, outcome::next_size(stream, begin));
    const std::string rest = outcome(others).routes;

    for (const uint64_t wrong : {uint64_t{0}, value - 1, value + 1, ~uint64_t{0}}) {
      SCOPED_TRACE(std::to_string(wrong) + " at byte " + std::to_string(field.at));
      bytes broken = stream;
      broken.replace(field.at, good.size(), be(wrong, field.size));
      if (broken == stream) continue;
      const outcome got(broken);
      for (const auto &pe : got.pes)
        EXPECT_TRUE(right.pes.contains(pe)) << address_text(pe.second) << " is a wrong PE";
      if (got.routes == right.routes) continue;
      // A prefix of as many octets is another, as good.
      EXPECT_TRUE(got.reported || (field.prefix && (wrong + 7) / 8 == (value + 7) / 8));
      EXPECT_TRUE(!got.reported || framing || got.routes == rest) << got.routes;
    }
  }
}

}  // namespace
}  // namespace agent
