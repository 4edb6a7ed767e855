// The operational-data store's lists against a model; record descriptors against tables of what is
// refused; encoded records through another reader of CBOR.
#include <deque>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/bag.h"
#include "platform/ods.h"
#include "platform_test.h"

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

TEST(Ods, ListsKeepCopiesInOrder) {
  void *keys = nullptr, *data = nullptr;
  ASSERT_EQ(ods_list_create(&keys, nullptr, nullptr), 0u);
  ASSERT_EQ(ods_datalist_create(&data, nullptr, nullptr), 0u);
  std::vector<std::string> model;
  const ods_entry_t *first = nullptr;
  for (uint32_t n = 0; n < 100; ++n) {
    std::string key(n, static_cast<char>('a' + n % 26));
    model.push_back(key);
    ASSERT_EQ(ods_list_add(keys, key.c_str(), ODS_RANK_LAST, 0), 0u);
    ASSERT_EQ(ods_datalist_add(data, key.c_str(), 7, 0, key.data(), n), 0u);
    std::fill(key.begin(), key.end(), '-');  // what is kept is a copy
    if (n == 0) first = ods_list_entry(data, 0);
  }
  EXPECT_EQ(first, ods_list_entry(data, 0));  // entries stay where they are
  const uint32_t refused[] = {
      ods_list_create(nullptr, nullptr, nullptr),    ods_list_add(nullptr, "", ODS_RANK_LAST, 0),
      ods_list_add(keys, nullptr, ODS_RANK_LAST, 0), ods_list_add(keys, "", 0, 0),
      ods_list_add(keys, "", ODS_RANK_LAST, 1),      ods_datalist_add(data, nullptr, 7, 0, "", 0),
      ods_datalist_add(data, "", 7, 1, "", 0),       ods_datalist_add(data, "", 7, 0, nullptr, 1)};
  for (const uint32_t code : refused) EXPECT_EQ(code, ODS_ERR_ARGUMENT);
  for (uint32_t i = 0; i < model.size(); ++i) {
    const ods_entry_t k = *ods_list_entry(keys, i), d = *ods_list_entry(data, i);
    EXPECT_EQ(std::tuple(k.key, k.type, k.length, k.buffer), std::tuple(model[i], 0u, 0u, nullptr));
    EXPECT_EQ(std::tuple(d.key, d.type, d.length), std::tuple(model[i], 7u, i));
    EXPECT_EQ(std::string(static_cast<const char *>(d.buffer), d.length), model[i]);
  }
  EXPECT_EQ(ods_list_entry(keys, 100), nullptr);
  EXPECT_EQ(ods_list_entry(data, 100), nullptr);
  ods_list_set_more_flag(data);
  EXPECT_EQ(std::pair(ods_list_more(keys), ods_list_more(data)), std::pair(0, 1));
  ods_list_free(keys);
  ods_datalist_free(data);
  ods_list_free(nullptr);
}

std::string shorten(const std::string &schema) {
  std::string text;
  char until = 0;  // what ends the name being left out
  bool reference = false;
  for (const char *c = schema.c_str(); *c != 0; ++c) {
    if (until == 0) until = *c == '{' ? '}' : *c == '[' ? ']' : *c == '<' ? '>' : 0;
    if (until == 0) text += *c;
    if (*c == until) until = 0;
    reference = *c == '$' || (reference && isdigit(*c));
    if (reference && isdigit(*c) && !isdigit(c[1]) && c[1] != '=') text += '.';
  }
  return text;
}

// A record of every kind of element; the compiler lays it out.
struct pair_t {
  uint8_t small;
  uint16_t port;
};
struct six_t {
  alignas(8) uint8_t bytes[16];
};
struct choice_t {
  uint32_t kind;
  union {
    uint32_t number;
    pair_t pair;
    six_t six;
    const char *other;
  };
};
struct counted_t {
  uint32_t count;
  const void *elements;
};
struct all_t {
  uint64_t wide;
  uint32_t plain;
  uint8_t address[4];
  uint8_t small;
  uint32_t code;
  uint8_t yes;
  uint16_t port;
  const char *text;
  alignas(8) uint8_t raw[5];
  counted_t numbers, pairs, texts;
  six_t six;
  choice_t choice;
  uint32_t mode;
  uint32_t deep;
};
#define AT(field) offsetof(all_t, field)
#define COUNTED(field) AT(field), AT(field) + offsetof(counted_t, elements)

struct all_table {
  bag_type_table_t own;
  bag_nested_type_t nested[3];
};
uint64_t all_offsets[] = {AT(wide), AT(plain),        AT(address),    AT(small),
                          AT(code), AT(yes),          AT(port),       AT(text),
                          AT(raw),  COUNTED(numbers), COUNTED(pairs), COUNTED(texts),
                          AT(six),  AT(choice),       AT(mode),       AT(deep)};
uint64_t pair_offsets[] = {0, offsetof(pair_t, port)}, choice_offsets[] = {0, 8};
all_table all_types = {{3, sizeof(all_t), all_offsets},
                       {{2, sizeof(pair_t), pair_offsets},
                        {3, sizeof(six_t), nullptr},
                        {4, sizeof(choice_t), choice_offsets}}};
const std::string kAllSchema =
    "$9={Wide}H{Plain}D%h{Address}N{Small}C{Code}[code_enum]e{Yes}b{Port}I{Text}s{Raw}5x"
    "{Numbers}70000a(D%h){Pairs}4a($2){Texts}2a(s){Six}$3{Choice}$4"
    "?(<Mode,mode_enum>,0:v,4294967295:{Deep}D);$2={Small}C{Port}I;$3=16x%s;"
    "$4=?(<Kind,kind_enum>,1:{Number}D,?:{Other}s,2:{Pair}$2,7:{Six}$3,9:v);";
const std::string kAllShort = shorten(kAllSchema);
bag_descriptor_t all_descriptor = {BAG_FORMAT,       "all",          BAG_LAYOUT_FORMAT,
                                   "library",        &all_types.own, kAllSchema.c_str(),
                                   kAllShort.c_str()};

// The code of an encoding; what it brought in `out`.
uint32_t encode(const void *native, const bag_descriptor_t &d,
                std::vector<uint8_t> *out = nullptr) {
  char untouched;
  void *buffer = &untouched;
  uint32_t length = 77;
  const uint32_t code = bag_encode(&buffer, &length, native, &d);
  EXPECT_EQ(code != 0, buffer == &untouched && length == 77);
  if (code != 0) return code;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  if (out != nullptr) out->assign(bytes, bytes + length);
  free(buffer);
  return 0;
}

json binary(const uint8_t *bytes, size_t size, int tag) {
  const std::vector<uint8_t> copy(bytes, bytes + size);
  return tag == 0 ? json::binary(copy) : json::binary(copy, static_cast<uint8_t>(tag));
}

template <typename element_t>
json list(
    const counted_t &array, json (*value)(const element_t &) = [](auto &e) { return json(e); }) {
  json all = json::array();
  const auto *elements = static_cast<const element_t *>(array.elements);
  for (uint32_t i = 0; i < array.count; ++i) all += value(elements[i]);
  return all;
}

json pair(const pair_t &p) { return {{"Small", p.small}, {"Port", p.port}}; }

json expected(const all_t &r) {
  const uint32_t kind = r.choice.kind;
  json choice = {{"Kind", kind}};
  if (kind == 1) choice["Number"] = r.choice.number;
  if (kind == 2) choice["Pair"] = pair(r.choice.pair);
  if (kind == 7) choice["Six"] = binary(r.choice.six.bytes, 16, 54);
  if (kind == 0) choice["Other"] = r.choice.other;
  json all = {{"Wide", r.wide},
              {"Plain", r.plain},
              {"Address", binary(r.address, 4, 52)},
              {"Small", r.small},
              {"Code", r.code},
              {"Yes", r.yes != 0},
              {"Port", r.port},
              {"Text", r.text},
              {"Raw", binary(r.raw, 5, 0)},
              {"Numbers", list<uint32_t>(r.numbers)},
              {"Pairs", list<pair_t>(r.pairs, pair)},
              {"Texts", list<const char *>(r.texts)},
              {"Six", binary(r.six.bytes, 16, 54)},
              {"Choice", choice},
              {"Mode", r.mode}};
  if (r.mode != 0) all["Deep"] = r.deep;
  return all;
}

// An encoded key begins with its length.
void expect_sorted(const ordered_json &value) {
  if (!value.is_structured()) return;
  std::vector<std::pair<size_t, std::string>> keys;
  for (const auto &[key, inner] : value.items()) {
    keys.emplace_back(key.size(), key);
    expect_sorted(inner);
  }
  EXPECT_TRUE(value.is_array() || std::is_sorted(keys.begin(), keys.end()));
}

void expect_encoded(const all_t &r) {
  constexpr auto kTags = json::cbor_tag_handler_t::store;
  std::vector<uint8_t> bytes;
  ASSERT_EQ(encode(&r, all_descriptor, &bytes), 0u);
  EXPECT_EQ(json::from_cbor(bytes, true, false, kTags), expected(r));
  const auto ordered =
      ordered_json::from_cbor(bytes, true, false, ordered_json::cbor_tag_handler_t::store);
  expect_sorted(ordered);
  EXPECT_TRUE(ordered_json::to_cbor(ordered) == bytes);  // shortest heads, definite lengths
}

all_t sample() {
  all_t r;
  memset(static_cast<void *>(&r), 0xa5, sizeof r);  // padding must not show
  r.text = r.choice.other = "";
  r.choice.kind = r.mode = 0;
  r.numbers = r.pairs = r.texts = {0, nullptr};
  return r;
}

TEST(Bag, EncodesEveryKindOfElement) {
  static const uint32_t numbers[65536] = {23, 24, 0xffffffff};
  static const pair_t pairs[4] = {{1, 0x102}, {24, 255}, {255, 256}, {0, 65535}};
  static const char *const texts[] = {"", "\xc3\xa9"};
  for (const uint64_t n : {UINT64_C(0), UINT64_C(23), UINT64_C(24), UINT64_C(255), UINT64_C(256),
                           UINT64_C(65535), UINT64_C(65536), UINT64_C(0xffffffff),
                           UINT64_C(0x100000000), UINT64_C(0xffffffffffffffff)}) {
    all_t r = sample();
    r.wide = n;
    r.plain = r.code = r.deep = static_cast<uint32_t>(n);
    r.small = r.yes = static_cast<uint8_t>(n);
    r.port = static_cast<uint16_t>(n);
    const std::string text(n <= 65536 ? n : 1, 't');
    r.text = text.c_str();
    r.numbers = {n <= 65536 ? static_cast<uint32_t>(n) : 3, numbers};
    r.pairs = {static_cast<uint32_t>(n % 5), pairs};
    r.texts = {static_cast<uint32_t>(n % 3), texts};
    for (const uint32_t kind : {0, 1, 2, 7, 9}) {
      r.choice.kind = kind;
      r.choice.six = {
          {static_cast<uint8_t>(n), 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};
      if (kind == 0) r.choice.other = "default";
      r.mode = kind == 1 ? UINT32_MAX : 0;
      expect_encoded(r);
    }
  }
}

TEST(Bag, RefusesValues) {
  static const char *const texts[] = {"", nullptr, ""};
  const struct {
    uint32_t code;
    void (*change)(all_t &r);
  } kChanges[] = {{BAG_ERR_VALUE, [](all_t &r) { r.text = nullptr; }},
                  {BAG_ERR_VALUE, [](all_t &r) { r.choice.other = nullptr; }},
                  {BAG_ERR_VALUE,
                   [](all_t &r) {
                     r.numbers = {1, nullptr};
                   }},
                  {BAG_ERR_VALUE,
                   [](all_t &r) {
                     r.texts = {2, texts};
                   }},
                  {BAG_ERR_COUNT,
                   [](all_t &r) {
                     r.texts = {3, texts};
                   }},
                  {BAG_ERR_COUNT,
                   [](all_t &r) {
                     r.pairs = {5, nullptr};
                   }},
                  {BAG_ERR_DISCRIMINATOR, [](all_t &r) { r.mode = 1; }}};
  for (const auto &c : kChanges) {
    all_t r = sample();
    c.change(r);
    EXPECT_EQ(encode(&r, all_descriptor), c.code) << &c - kChanges;
  }
  void *buffer;
  uint32_t length;
  EXPECT_EQ(bag_encode(&buffer, &length, nullptr, &all_descriptor), BAG_ERR_VALUE);
  EXPECT_EQ(bag_encode(&buffer, nullptr, &length, &all_descriptor), BAG_ERR_VALUE);
  EXPECT_EQ(bag_encode(nullptr, &length, &length, &all_descriptor), BAG_ERR_VALUE);
  // Eight bytes more than the opaque ones: one too many. None of them is looked at.
  const uint64_t at_start = 0;
  const bag_type_table_t table = {0, 4294967288, nullptr}, one = {0, 8, &at_start};
  EXPECT_EQ(encode("", {1, "", 4, "", &table, "$1={A}4294967288x;", "$1=4294967288x;"}),
            BAG_ERR_VALUE);

  const auto text_code = [&](const std::string &text) {
    const char *native = text.c_str();
    return encode(&native, {1, "", 4, "", &one, "$1={T}s;", "$1=s;"});
  };
  for (const uint32_t point :
       {0x1, 0x7f, 0x80, 0x7ff, 0x800, 0xd7ff, 0xd800, 0xdfff, 0xe000, 0xfffd, 0xffff, 0x10000,
        0x3ffff, 0x10ffff, 0x110000, 0x140000, 0x1fffff}) {
    constexpr uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000, 0x200000},
                       kLead[] = {0, 0xc0, 0xe0, 0xf0};
    for (size_t more = 0; more < 4; ++more) {  // bytes after the first: right, overlong, or too few
      if (point >= (more == 0 ? 0x80u : 1u << (6 * more + 6 - more))) continue;
      std::string text(1, static_cast<char>(kLead[more] | point >> (6 * more)));
      for (size_t i = more; i-- > 0;) text += static_cast<char>(0x80 | (point >> (6 * i) & 0x3f));
      const bool fine =
          point >= kLeast[more] && point <= 0x10ffff && (point < 0xd800 || point > 0xdfff);
      EXPECT_EQ(text_code("a" + text + "b"), fine ? 0 : BAG_ERR_VALUE) << std::hex << point;
      for (size_t i = 1; i <= more; ++i) EXPECT_EQ(text_code(text.substr(0, i)), BAG_ERR_VALUE);
      for (size_t i = 1; i <= more; ++i) {
        std::string broken = text;
        broken[i] = static_cast<char>(broken[i] ^ 0xc0);
        EXPECT_EQ(text_code(broken), BAG_ERR_VALUE);
      }
    }
  }
  for (const char *text : {"\x80", "\xbf", "\xf8\x88\x80\x80\x80", "\xff"}) {
    EXPECT_EQ(text_code(text), BAG_ERR_VALUE);
  }
}

// The format once for every number, which stands for '#', and the next one for '@'.
std::string many(int from, int to, const std::string &format) {
  std::string text;
  for (int i = from; i <= to; ++i) {
    for (const char c : format)
      text += c == '#' || c == '@' ? std::to_string(i + (c == '@')) : std::string(1, c);
  }
  return text;
}

const std::string kUses64 = "$1=" + many(2, 64, "{F#}$#") + ";" + many(2, 64, "$#={A}D;");
const std::string kGood = R"(
    $1={A}D; $1=D; $1=16x%s; $1=3a(I); $1={A}5x{B}3a($2);$2={B}3a(s%h); $1=?(<F,T>,1:{A}D); $0={A}b;
    $1={A}D?(<F,T>,?:v,0:{B}3x)?(<G,T>,0:{C}$2);$2={A}D; $2={A}$3{B}$1;$1={A}D;$3={A}2a($1);
    $1={A}4294967288x; )" +
                          kUses64 + " $1=" + many(1, 64, "{F#}C") + "; $1=?(<F,T>" +
                          many(1, 63, ",#:v") + "); " + many(1, 7, "$#={A}D{B}$@;") + "$8={A}D;";
const std::string kBad = R"(
    $1 $1=; $1={A}D 1={A}D; $={A}D; $4294967296={A}D; $1={A}D;x $1={A}D;; $1={A}Q; $1={A}; $1={}D;
    $1={AD; $1={A}e; $1={A}[T]D; $1={A}[]e; $1={A}[T-u]e; $1={A}D%x; $1={A}0x; $1={A}4294967296x;
    $1={A}v; $1=v; $1={A}8x%s; $1={A-b}D; $1={é}D; $1={A}D{A}D; $1=DD; $1={A}DD; $1={A}$;
    $1={A}4294967295x; $1={A}$2{B}$2;$2={A}4294967280x;
    $1={A}3a(v); $1={A}3a(3x); $1={A}3a(3a(D)); $1={A}3a(?(<F,T>,1:{B}D)); $1={A}3a(); $1={A}3a(DD);
    $1={A}3a({B}D); $1={A}0a(D); $1={A}3a(D; $1={A}3aD;
    $1={U}?(<F,T>,1:{A}D); $1=?(<F,T>); $1=?(,1:{A}D); $1=?(<F>,1:{A}D); $1=?(<F,T>,x:v);
    $1=?(<F,T-u>,1:{A}D); $1=?(<F,T>,1:{A}D,1:{B}D); $1=?(<F,T>,1:v,01:v); $1=?(<F,T>,?:v,?:v);
    $1=?(<F,T>,1:{A}v); $1=?(<F,T>,1:D); $1=?(<F,T>,1:{F}D); $1={A}D?(<F,T>,1:{A}D);
    $1=?(<F,T>,1:{A}D,2:{A}D); $1=?(<F,T>,1:{A}D)?(<F,T>,1:{B}D); $1=?(<F,T>,1:{A}2a(D));
    $1=?(<F,T>,1:{A}D2:{B}D); $1=?(<F,T>,1:?(<G,T>,1:{B}D)); $1=?(<F,T>,1:{A}8x%s);
    $1={A}$2; $1={A}3a($2); $1={A}D;$2={B}D; $1={A}$2;$2={B}D;$3={C}D; $1={A}$1; $1={A}3a($1);
    $1={A}$3{B}$2;$3={C}D;$2={D}D; $1={A}$2;$2={B}D;$2={B}D; $1={A}D;$1={A}D;
    $1={A}$2;$2={B}$3;$3=?(<F,T>,1:{X}$2,?:v);
    $1=)" + many(2, 65, "{F#}$#") +
                         ";" + many(2, 65, "$#={A}D;") + " $1=" + many(1, 65, "{F#}C") +
                         "; $1={A}$3{B}$2;$2={A}$3;" + many(3, 8, "$#={A}$@;") + "$9={A}D;" +
                         " $1={A}C?(<F,T>" + many(1, 63, ",#:v") + "); " +
                         many(1, 8, "$#={A}D{B}$@;") + "$9={A}D;";

TEST(Bag, ReadsTheSchemaLanguage) {
  const auto check = [](const std::string &long_schema, uint32_t code) {
    // This fits no schema, so that is what is wrong with those that are fine themselves.
    const bag_type_table_t table = {99, 0, nullptr};
    const std::string short_schema = shorten(long_schema);
    const bag_descriptor_t d = {1, "", 4, "", &table, long_schema.c_str(), short_schema.c_str()};
    EXPECT_EQ(encode("", d), code) << long_schema;
  };
  check("", BAG_ERR_SCHEMA);
  std::istringstream good(kGood), bad(kBad);
  for (std::string schema; good >> schema;) check(schema, BAG_ERR_LAYOUT);
  for (std::string schema; bad >> schema;) check(schema, BAG_ERR_SCHEMA);
}

TEST(Bag, ComparesTheShortFormAndTheTable) {
  const all_t r = sample();
  for (size_t i = 0; i <= kAllShort.size(); ++i) {
    for (const char *instead : {"", "q", "qq"}) {  // not a letter of it
      const std::string text = std::string(kAllShort).replace(i, 1, instead);
      if (text == kAllShort) continue;
      bag_descriptor_t d = all_descriptor;
      d.short_schema = text.c_str();
      EXPECT_EQ(encode(&r, d), BAG_ERR_SCHEMA) << text;
    }
  }
  const auto check_words = [&](void *words, size_t count, auto change, uint32_t code) {
    for (size_t i = 0; i < count; ++i) {
      auto *word = static_cast<uint64_t *>(words) + i;
      const uint64_t right = *word;
      *word = change(i, right);
      EXPECT_EQ(encode(&r, all_descriptor), code) << i;
      *word = right;
    }
  };
  const auto other = [](size_t, uint64_t word) { return word ^ 1; };
  check_words(all_offsets, std::size(all_offsets), other, BAG_ERR_LAYOUT);
  check_words(pair_offsets, 2, other, BAG_ERR_LAYOUT);
  check_words(choice_offsets, 2, other, BAG_ERR_LAYOUT);
  // Every third word is a pointer to offsets.
  for (const uint64_t bits : {1, 4}) {
    const auto other_or_null = [bits](size_t i, uint64_t word) {
      if (i % 3 != 2) return word ^ bits;
      return word == 0 ? reinterpret_cast<uintptr_t>(all_offsets) : 0;
    };
    check_words(&all_types, sizeof all_types / 8, other_or_null, BAG_ERR_LAYOUT);
  }
  const auto zero = [](size_t, uint64_t) { return uint64_t{0}; };
  check_words(&all_descriptor, sizeof all_descriptor / 8, zero, BAG_ERR_DESCRIPTOR);
  EXPECT_EQ(bag_encode(nullptr, nullptr, nullptr, nullptr), BAG_ERR_DESCRIPTOR);
}

// Records with at most one nested type, each type one element of four bytes. Kept, as the registry
// may refer to them as long as the process lasts.
const bag_descriptor_t *record(const char *name, const char *schema) {
  struct kept {
    std::string name, long_schema, short_schema;
    all_table table;
    bag_descriptor_t d;
  };
  static const uint64_t at_start = 0;
  static std::deque<kept> all;
  kept &k = all.emplace_back(kept{name, schema, shorten(schema), {}, {}});
  const auto nested = k.long_schema.find(";$");
  k.table.own = {nested == std::string::npos ? 0u : 1u, 4, &at_start};
  if (k.table.own.nested_count != 0)
    k.table.nested[0] = {strtoull(schema + nested + 2, nullptr, 10), 4, &at_start};
  k.d = {1,
         k.name.empty() ? nullptr : k.name.c_str(),
         4,
         "",
         &k.table.own,
         k.long_schema.c_str(),
         k.short_schema.c_str()};
  return &k.d;
}

TEST(Bag, RegistersInTransactions) {
  enum operation { START, ADD, END, ABORT };
  constexpr struct {
    operation op;
    const char *name, *schema;
    uint32_t code, count;
  } kSteps[] = {
      {ADD, "", "", BAG_ERR_NOT_OPEN, 0},
      {END, "", "", BAG_ERR_NOT_OPEN, 0},
      {ABORT, "", "", 0, 0},
      {START, "", "", 0, 0},
      {START, "", "", BAG_ERR_BUSY, 0},
      {ADD, "", "", BAG_ERR_DESCRIPTOR, 0},
      {ADD, "a", "$12={B}D;", 0, 0},
      {ADD, "a", "$12={C}D;", BAG_ERR_DUPLICATE_NAME, 0},
      {ADD, "b", "$12={C}D;", BAG_ERR_DUPLICATE_TYPE, 0},
      {ADD, "a", "$12={C}Q;", BAG_ERR_SCHEMA, 0},
      {ADD, "a", "$12={C}H;", BAG_ERR_LAYOUT, 0},
      {ADD, "b", "$11={A}$12;$12={C}D;", BAG_ERR_OTHER_BODY, 0},
      {ADD, "b", "$11={A}$12;$12={B}D;", 0, 0},
      {ADD, "c", "$14={A}$13;$13={B}D;", 0, 0},
      {ADD, "d", "$13={C}D;", BAG_ERR_OTHER_BODY, 0},
      {ADD, "d", "$13={B}D;", BAG_ERR_ORDER, 0},
      {ADD, "b", "$13={C}D;", BAG_ERR_DUPLICATE_NAME, 0},
      {ABORT, "", "", 0, 0},
      {ADD, "d", "$13={B}D;", BAG_ERR_NOT_OPEN, 0},
      {START, "", "", 0, 0},
      {ADD, "d", "$13={C}D;", 0, 0},
      {ADD, "c", "$14={A}$13;$13={C}D;", 0, 0},
      {END, "", "", 0, 2},
      {END, "", "", BAG_ERR_NOT_OPEN, 2},
      {ABORT, "", "", 0, 2},
      {START, "", "", 0, 2},
      {ADD, "e", "$15={A}$13;$13={C}D;", 0, 2},
      {ADD, "c", "$16={A}D;", BAG_ERR_DUPLICATE_NAME, 2},
      {ABORT, "", "", 0, 2},
      {START, "", "", 0, 2},
      {ADD, "e", "$15={A}N;", 0, 2},
      {ADD, "f", "$13={C}D;", BAG_ERR_DUPLICATE_TYPE, 2},
      {END, "", "", 0, 3},
  };
  for (const auto &s : kSteps) {
    uint32_t code = 0;
    if (s.op == START) code = bag_register_start(nullptr);
    if (s.op == ADD) code = bag_register(record(s.name, s.schema));
    if (s.op == END) code = bag_register_end();
    if (s.op == ABORT) bag_register_abort();
    EXPECT_EQ(code, s.code) << &s - kSteps;
    EXPECT_EQ(bag_registered_count(), s.count) << &s - kSteps;
  }
}

TEST(Bag, OneRegistersAtATimeAndAllEncode) {
  const uint32_t before = bag_registered_count();
  on_threads(4, [&](int) {
    const all_t r = sample();
    for (int i = 0; i < 300; ++i) {
      EXPECT_EQ(encode(&r, all_descriptor), 0u);
      if (bag_register_start(nullptr) != 0) continue;
      EXPECT_EQ(bag_register(&all_descriptor), 0u);
      EXPECT_EQ(bag_registered_count(), before);
      bag_register_abort();
    }
  });
  EXPECT_EQ(bag_registered_count(), before);
}

}  // namespace
