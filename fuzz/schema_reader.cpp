// The schema reader: whatever a descriptor says, it is refused or can be registered and used. The
// short form and the type table are derived here from the long form, unless the input spoils them,
// so that schemas get past the first check.
//
// Input: what to spoil, the long schema, values for a structure.
#include <map>
#include <nlohmann/json.hpp>

#include "fuzz/native.h"

namespace {

/// A type table in memory as descriptors have it.
class tables {
 public:
  explicit tables(std::string_view schema) {
    uint32_t number = 0;
    std::string_view body;
    while (bag::read_definition(schema, number, body)) {
      if (own_.empty())
        own_ = body;
      else
        bodies_.emplace_back(number, body);
      all_.emplace(number, body);
    }
    const entry own = lay_out(own_);
    words_ = {bodies_.size(), own.size, own.offsets};
    for (const auto &[nested, text] : bodies_) {
      const entry e = lay_out(text);
      words_.insert(words_.end(), {nested, e.size, e.offsets});
    }
  }
  const bag_type_table_t *get() const {
    return reinterpret_cast<const bag_type_table_t *>(words_.data());
  }
  /// Numbers, sizes and offsets; a pointer to nothing is not what a reader has to survive.
  void spoil(size_t word, uint64_t by) {
    if (word >= words_.size()) {
      offsets_[word % offsets_.size()][word / 8 % 4] += by;
    } else if (word % 3 != 2) {
      words_[word] += by;
    }
  }

 private:
  struct entry {
    uint64_t size = 0, offsets = 0;
  };
  entry lay_out(std::string_view body) {
    std::vector<uint64_t> &offsets = offsets_.emplace_back();
    bag::storage storage;
    bag::lay_out(
        body, [this](uint32_t number, bag::storage &out) { return find(number, out); },
        [&offsets](uint64_t at) { offsets.push_back(at); }, storage);
    offsets.resize(offsets.size() + 2 * 64);  // as far as a reader of another body may look
    return {storage.size, bag::opaque_alone(body) ? 0 : reinterpret_cast<uint64_t>(offsets.data())};
  }
  bool find(uint32_t number, bag::storage &out) {
    const auto known = sizes_.find(number);
    if (known != sizes_.end()) return out = known->second, true;
    const auto body = all_.find(number);
    if (body == all_.end() || depth_ > BAG_MAX_DEPTH) return false;
    ++depth_;
    const bool found = bag::lay_out(
        body->second, [this](uint32_t n, bag::storage &s) { return find(n, s); }, [](uint64_t) {},
        out);
    --depth_;
    if (found) sizes_[number] = out;
    return found;
  }

  std::string_view own_;
  std::vector<std::pair<uint32_t, std::string_view>> bodies_;
  std::map<uint32_t, std::string_view> all_;
  std::map<uint32_t, bag::storage> sizes_;
  std::deque<std::vector<uint64_t>> offsets_;
  std::vector<uint64_t> words_;
  int depth_ = 0;
};

// Without what stands in {}, [] and <>; a "." after each type number but a definition's own.
std::string short_form(std::string_view schema) {
  std::string text;
  char closing = 0;
  bool number = false, own = true;
  for (const char c : schema) {
    if (number && (c < '0' || c > '9')) {
      if (!own) text += '.';
      number = false;
    }
    if (closing != 0) {
      if (c == closing) closing = 0;
      continue;
    }
    closing = c == '{' ? '}' : c == '[' ? ']' : c == '<' ? '>' : 0;
    if (closing != 0) continue;
    if (c == '=') own = false;
    if (c == ';') own = true;
    if (c == '$') number = true;
    text += c;
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::source input(data, size);
  const uint8_t spoil = input.byte();
  const std::string long_schema = input.text();
  std::string short_schema = short_form(long_schema);
  tables types(long_schema);
  if (spoil == 1) short_schema += input.text();
  if (spoil == 2) short_schema.resize(input.byte() % (short_schema.size() + 1));
  if (spoil == 3) types.spoil(input.byte(), 1 + input.byte());

  const bag_descriptor_t descriptor = {BAG_FORMAT,          "fuzzed",    BAG_LAYOUT_FORMAT,
                                       "library",           types.get(), long_schema.c_str(),
                                       short_schema.c_str()};
  REQUIRE(bag_register_start(nullptr) == 0);
  const uint32_t code = bag_register(&descriptor);
  if (code == 0) REQUIRE(bag_register(&descriptor) == BAG_ERR_DUPLICATE_NAME);
  bag_register_abort();
  static bag::record record;
  record = {};
  REQUIRE(bag::read_record(&descriptor, record) == code);
  REQUIRE(code == 0 || code == BAG_ERR_SCHEMA || code == BAG_ERR_LAYOUT);
  if (code != 0) {
    void *buffer = nullptr;
    uint32_t length = 0;
    REQUIRE(bag_encode(&buffer, &length, data, &descriptor) == code);
    return 0;
  }

  constexpr uint64_t kLargest = 1 << 20;
  if (record.types[0].native.size > kLargest) return 0;
  fuzz::native_filler filler(record, input, fuzz::values::good);
  const std::vector<uint8_t> native = filler.fill();
  std::vector<uint8_t> bytes;
  REQUIRE(fuzz::encode_checked(descriptor, native.data(), bytes) == 0);
  using nlohmann::json;
  const json read = json::from_cbor(bytes, true, false, json::cbor_tag_handler_t::store);
  REQUIRE(!read.is_discarded());
  return 0;
}
