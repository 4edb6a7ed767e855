// The operational-data store's lists against a model; record descriptors against tables of what is
// refused; encoded records against those of another writer of CBOR.
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "contract.h"

namespace contract {
namespace {

TEST(lists, KeepCopiesInOrder) {
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
  for (void *list : {keys, data}) EXPECT_EQ(ods_list_entry(list, 100), nullptr);
  ods_list_set_more_flag(data);
  EXPECT_EQ(std::pair(ods_list_more(keys), ods_list_more(data)), std::pair(0, 1));
  ods_list_free(keys);
  ods_datalist_free(data);
  ods_list_free(nullptr);
}

// ---- A model: another reader of schemas, for those that are right, and another writer of CBOR
// ----

// An encoded key begins with its length, so the shorter ones come first.
struct in_order {
  bool operator()(const std::string &a, const std::string &b) const {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
  }
};
template <typename key_t, typename value_t, typename, typename allocator_t>
using ordered_map = std::map<key_t, value_t, in_order, allocator_t>;
using json = nlohmann::basic_json<ordered_map>;

json binary(const std::string &bytes, uint8_t tag) {
  const std::vector<uint8_t> copy(bytes.begin(), bytes.end());
  return tag == 0 ? json::binary(copy) : json::binary(copy, tag);
}

template <typename value_t>
std::string bytes_of(const value_t &value) {
  return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

struct element {
  char kind;
  std::string field;
  uint64_t number;     // of bytes, elements, or a type
  std::string inside;  // the parentheses, which hold no others
  bool as_text;
};

element take_element(std::string &body) {
  static const std::regex form(
      R"((?:\{(\w*)\})?(?:\[\w*\])?(\d*)(.)(\d*)(?:\(([^)]*)\))?(?:%(.))?(.*))");
  std::smatch m;
  const std::string text = body;
  std::regex_match(text, m, form);
  body = m[7];
  return {m.str(3)[0], m[1], strtoull((m.str(2) + m.str(4)).c_str(), nullptr, 10), m[5],
          m[6] == "s"};
}

// A native value, laid out as a C compiler does it, and what it is encoded as.
struct native {
  std::string bytes = "";
  uint64_t align = 1;
  json value = json::object();
  std::vector<uint64_t> offsets = {};

  void pad(uint64_t to_align) {  // with something that must not show
    align = std::max(align, to_align);
    bytes.resize((bytes.size() + to_align - 1) / to_align * to_align, '\xa5');
  }
  void put(const std::string &member, uint64_t to_align) {
    pad(to_align);
    offsets.push_back(bytes.size());
    bytes += member;
  }
};

std::string shorten(const std::string &schema) {
  static const std::regex names(R"(\{[^}]*\}|\[[^\]]*\]|<[^>]*>)"), uses(R"(\$\d+(?![=\d]))");
  return std::regex_replace(std::regex_replace(schema, names, ""), uses, "$&.");
}

// A record with values at random, and what describes it.
struct record {
  std::string name, long_schema, short_schema;
  std::mt19937_64 random;
  std::map<uint64_t, std::string> bodies = {};
  std::deque<std::string> kept = {};          // what pointers lead to
  std::deque<native> types = {};              // in the order of their definitions
  std::vector<bag_nested_type_t> table = {};  // the first stands for a bag_type_table_t
  bag_descriptor_t d = {};

  record(const std::string &called, const std::string &schema, unsigned seed = 0)
      : name(called), long_schema(schema), short_schema(shorten(schema)), random(seed) {
    static const std::regex definition(R"(\$(\d+)=([^;]*);)");
    const std::sregex_iterator first(schema.begin(), schema.end(), definition), end;
    for (auto m = first; m != end; ++m) bodies[std::stoull((*m)[1])] = (*m)[2];
    for (auto m = first; m != end; ++m) {
      const native &t = types.emplace_back(structure((*m)[2]));
      table.push_back({m == first ? bodies.size() - 1 : std::stoull((*m)[1]), t.bytes.size(),
                       t.offsets.empty() ? nullptr : t.offsets.data()});
    }
    const auto *own = reinterpret_cast<const bag_type_table_t *>(table.data());
    d = {1, name.c_str(), 4, "library", own, long_schema.c_str(), short_schema.c_str()};
  }
  record(const record &) = delete;

  native pointer_to(const std::string &bytes, const json &value) {
    return {bytes_of(kept.emplace_back(bytes).data()), 8, value};
  }
  native scalar(char kind) {
    const size_t size = kind == 'H' ? 8 : kind == 'I' ? 2 : kind == 'C' || kind == 'b' ? 1 : 4;
    const std::string bytes = bytes_of(random() >> random() % 64).substr(0, size);
    uint64_t number = 0;
    memcpy(&number, bytes.data(), size);
    if (kind == 'N') return {bytes, size, binary(bytes, 52)};
    return {bytes, size, kind == 'b' ? json(number != 0) : json(number)};
  }
  native array(const element &e) {
    const auto count = static_cast<uint32_t>(random() % (std::min<uint64_t>(e.number, 30) + 1));
    std::string elements;
    native array{"", 8, json::array()};
    for (uint32_t i = 0; i < count; ++i) {
      std::string inside = e.inside;
      const native one = value_of(take_element(inside));
      elements += one.bytes;
      array.value += one.value;
    }
    array.put(bytes_of(count), 8);
    array.put(pointer_to(elements, {}).bytes, 8);
    return array;
  }
  native value_of(const element &e) {
    constexpr size_t kLengths[] = {0, 1, 23, 24, 255, 256, 65535, 65536};
    const size_t length = e.kind == 'x' ? e.number : kLengths[random() % 8];
    const std::string text(length, static_cast<char>('a' + random() % 26));
    if (e.kind == '$') return structure(bodies.at(e.number));
    if (e.kind == 'a') return array(e);
    if (e.kind == 's') return pointer_to(text, text);
    if (e.kind == 'x') return {text, 8, binary(text, e.as_text ? 54 : 0)};
    return e.kind == 'v' ? native() : scalar(e.kind);
  }
  void put_union(native &t, const element &u) {
    std::string field, arms = u.inside.substr(u.inside.find('>') + 1);
    native storage, chosen;
    uint32_t label = 0;
    for (size_t n = 1; !arms.empty(); ++n) {
      const std::string number = arms.substr(1, arms.find(':') - 1);
      arms.erase(0, number.size() + 2);
      const element e = take_element(arms);
      const native arm = value_of(e);
      storage.align = std::max(storage.align, arm.align);
      storage.bytes.resize(std::max(storage.bytes.size(), arm.bytes.size()), '\xa5');
      if (random() % n != 0) continue;
      label = number == "?" ? 999 : static_cast<uint32_t>(std::stoul(number));
      field = e.field;
      chosen = arm;
    }
    const uint64_t align = std::max<uint64_t>(storage.align, 4);
    t.put(bytes_of(label), align);
    t.put(storage.bytes.replace(0, chosen.bytes.size(), chosen.bytes), align);
    t.pad(align);
    t.value[u.inside.substr(1, u.inside.find(',') - 1)] = label;
    if (!field.empty()) t.value[field] = chosen.value;
  }
  native structure(std::string body) {
    native t;
    while (!body.empty()) {
      const element e = take_element(body);
      if (e.kind == '?') {
        put_union(t, e);
        continue;
      }
      const native member = value_of(e);
      t.put(member.bytes, member.align);
      (e.field.empty() ? t.value : t.value[e.field]) = member.value;
      if (e.kind == 'a') t.offsets.push_back(t.offsets.back() + 8);
      if (e.kind == 'x' && body.empty() && t.offsets.size() == 1) t.offsets.clear();
    }
    t.pad(t.align);
    return t;
  }
};

// The code of an encoding; what it brought in `out`.
uint32_t encode(const void *from, const bag_descriptor_t &d, std::vector<uint8_t> *out = nullptr) {
  char untouched;
  void *buffer = &untouched;
  uint32_t length = 77;
  const uint32_t code = bag_encode(&buffer, &length, from, &d);
  EXPECT_EQ(code != 0, buffer == &untouched && length == 77);
  if (code != 0) return code;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  if (out != nullptr) out->assign(bytes, bytes + length);
  free(buffer);
  return 0;
}

uint32_t encode(const record &r) { return encode(r.types[0].bytes.data(), r.d); }

void expect_encoded(const std::string &schema, unsigned seed) {
  const record r("", schema, seed);
  std::vector<uint8_t> bytes;
  EXPECT_EQ(encode(r.types[0].bytes.data(), r.d, &bytes), 0u) << schema;
  EXPECT_EQ(bytes, json::to_cbor(r.types[0].value)) << schema << " " << r.types[0].value;
}

const std::string kEverything =
    "$9={Wide}H{Plain}D%h{Address}N{Small}C{Code}[code_enum]e{Yes}b{Port}I{Text}s{Raw}5x"
    "{Numbers}70000a(D%h){Pairs}4a($2){Texts}2a(s){Six}$3{Choice}$4"
    "?(<Mode,mode_enum>,0:v,4294967295:{Deep}D);$2={Small}C{Port}I;$3=16x%s;"
    "$4=?(<Kind,kind_enum>,1:{Number}D,?:{Other}s,2:{Pair}$2,7:{Six}$3,9:v);";

TEST(records, EncodeEveryKindOfElement) {
  for (unsigned seed = 0; seed < 100; ++seed) expect_encoded(kEverything, seed);
}

TEST(records, RefuseValues) {
  static const char *const texts[] = {"", nullptr, ""};
  const auto number = [](uintptr_t n) { return reinterpret_cast<const void *>(n); };
  const struct {
    uint32_t code;
    const char *schema;
    const void *first, *second;  // of 16 bytes
  } kRows[] = {{0, "$1={A}1a(D);", nullptr, nullptr},
               {BAG_ERR_VALUE, "$1={A}H{B}s;", nullptr, nullptr},
               {BAG_ERR_VALUE, "$1=?(<A,T>,1:{B}D,?:{C}s);", nullptr, nullptr},
               {BAG_ERR_VALUE, "$1={A}1a(D);", number(1), nullptr},
               {BAG_ERR_VALUE, "$1={A}2a(s);", number(2), texts},
               {BAG_ERR_COUNT, "$1={A}2a(s);", number(3), texts},
               {BAG_ERR_COUNT, "$1={A}4a(D);", number(5), nullptr},
               {BAG_ERR_DISCRIMINATOR, "$1=?(<A,T>,1:v,2:{B}H);", nullptr, nullptr}};
  for (const auto &row : kRows)
    EXPECT_EQ(encode(&row.first, record("", row.schema).d), row.code) << row.schema;
  const record r("", kEverything);
  void *buffer;
  uint32_t length;
  EXPECT_EQ(bag_encode(&buffer, &length, nullptr, &r.d), BAG_ERR_VALUE);
  EXPECT_EQ(bag_encode(&buffer, nullptr, &length, &r.d), BAG_ERR_VALUE);
  EXPECT_EQ(bag_encode(nullptr, &length, &length, &r.d), BAG_ERR_VALUE);
  // Eight bytes more than the opaque ones: one too many. None of them is looked at.
  const bag_type_table_t huge = {0, 4294967288, nullptr};
  EXPECT_EQ(encode("", {1, "", 4, "", &huge, "$1={A}4294967288x;", "$1=4294967288x;"}),
            BAG_ERR_VALUE);
}

TEST(records, RefuseWhatIsNoUtf8) {
  const std::string bytes =
      "a\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf\xe0\xe1\xec\xed\xee\xef\xf0\xf1\xf4\xf5\xff";
  const record r("", "$1={A}s;");
  const size_t n = bytes.size();
  for (size_t i = 0; i < n * n * n; ++i) {
    for (const char *last : {"", "a", "\x7f", "\x80", "\xbf", "\xc0"}) {
      const std::string text = {bytes[i % n], bytes[i / n % n], bytes[i / n / n], *last};
      const char *first = text.c_str();
      const std::string good = json(first).dump(-1, ' ', false, json::error_handler_t::ignore);
      const bool all_good = good == '"' + std::string(first) + '"';  // or else cut out
      ASSERT_EQ(encode(&first, r.d), all_good ? 0 : BAG_ERR_VALUE) << testing::PrintToString(text);
    }
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
)" + kUses64 + " $1=" + many(1, 64, "{F#}C") +
                          "; $1=?(<F,T>" + many(1, 63, ",#:v") + "); " +
                          many(1, 7, "$#={A}D{B}$@;") + "$8={A}D;";
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

TEST(records, ReadTheSchemaLanguage) {
  std::istringstream good(kGood), bad(kBad);
  for (std::string schema; good >> schema;)
    for (unsigned seed = 0; seed < 5; ++seed) expect_encoded(schema, seed);
  const bag_type_table_t none = {0, 0, nullptr};
  for (std::string schema; bad >> schema;)
    EXPECT_EQ(encode("", {1, "", 4, "", &none, schema.c_str(), shorten(schema).c_str()}),
              BAG_ERR_SCHEMA)
        << schema;
  EXPECT_EQ(encode("", {1, "", 4, "", &none, "", ""}), BAG_ERR_SCHEMA);
}

TEST(records, CompareTheShortFormAndTheTable) {
  record r("", kEverything);
  for (size_t i = 0; i <= r.short_schema.size(); ++i) {
    for (const char *instead : {"", "q", "qq"}) {  // not a letter of it
      const std::string text = std::string(r.short_schema).replace(i, 1, instead);
      r.d.short_schema = text.c_str();
      EXPECT_EQ(encode(r), text == r.short_schema ? 0 : BAG_ERR_SCHEMA) << text;
    }
  }
  r.d.short_schema = r.short_schema.c_str();
  // Every word of the tables and the descriptor, one at a time.
  const auto check_word = [&r](auto &word, auto wrong, uint32_t code) {
    std::swap(word, wrong);
    EXPECT_EQ(encode(r), code);
    std::swap(word, wrong);
  };
  for (native &t : r.types)
    for (uint64_t &offset : t.offsets) check_word(offset, offset ^ 1, BAG_ERR_LAYOUT);
  for (bag_nested_type_t &row : r.table) {
    for (const uint64_t bit : {1, 4}) {
      check_word(row.type, row.type ^ bit, BAG_ERR_LAYOUT);
      check_word(row.size, row.size ^ bit, BAG_ERR_LAYOUT);
    }
    const uint64_t *other = row.offsets == nullptr ? r.table[0].offsets : nullptr;
    check_word(row.offsets, other, BAG_ERR_LAYOUT);
  }
  auto *words = reinterpret_cast<uint64_t *>(&r.d);
  for (size_t i = 0; i < sizeof r.d / 8; ++i) check_word(words[i], uint64_t{0}, BAG_ERR_DESCRIPTOR);
  EXPECT_EQ(bag_encode(nullptr, nullptr, nullptr, nullptr), BAG_ERR_DESCRIPTOR);
}

TEST(records, RegisterInTransactions) {
  const std::map<std::string, uint32_t> codes = {{"good", 0},
                                                 {"not_open", BAG_ERR_NOT_OPEN},
                                                 {"busy", BAG_ERR_BUSY},
                                                 {"schema", BAG_ERR_SCHEMA},
                                                 {"layout", BAG_ERR_LAYOUT},
                                                 {"name", BAG_ERR_DUPLICATE_NAME},
                                                 {"type", BAG_ERR_DUPLICATE_TYPE},
                                                 {"body", BAG_ERR_OTHER_BODY},
                                                 {"order", BAG_ERR_ORDER}};
  // What is done, or a record's name and schema, and what comes of it; or the count of records.
  std::istringstream steps(R"(
      d $13={B}D; not_open      end not_open  abort good  start good  start busy
      a $12={B}D; good          a $12={C}D; name          b $12={C}D; type
      a $12={C}Q; schema        a $12={C}H; layout        b $11={A}$12;$12={C}D; body
      b $11={A}$12;$12={B}D; good                         c $14={A}$13;$13={B}D; good
      d $13={C}D; body          d $13={B}D; order         b $13={C}D; name
      count 0                   abort good                d $13={B}D; not_open
      start good                d $13={C}D; good          c $14={A}$13;$13={C}D; good
      count 0                   end good  count 2         end not_open
      abort good  count 2       start good                e $15={A}$13;$13={C}D; good
      c $16={A}D; name          count 2                   abort good
      start good                e $15={A}N; good          f $13={C}D; type
      count 2                   end good                  count 3)");
  const uint32_t before = bag_registered_count();
  std::deque<record> kept;  // the registry refers to them
  for (std::string step, result; steps >> step >> result;) {
    if (step == "count") {
      EXPECT_EQ(bag_registered_count() - before, std::stoul(result));
      continue;
    }
    uint32_t code = 0;
    if (step == "start") code = bag_register_start(nullptr);
    if (step == "end") code = bag_register_end();
    if (step == "abort") bag_register_abort();
    if (step.size() == 1) {
      record &r = kept.emplace_back(step, result);
      steps >> result;
      if (result == "layout") r.table[0].size = 0;
      code = bag_register(&r.d);
    }
    EXPECT_EQ(code, codes.at(result)) << step << " " << kept.size();
  }
}

TEST(records, AreRegisteredByOneAtATimeAndEncodedByAll) {
  const uint32_t before = bag_registered_count();
  const record r("all", kEverything);
  on_threads(4, [&](int) {
    for (int i = 0; i < 300; ++i) {
      EXPECT_EQ(encode(r), 0u);
      if (bag_register_start(nullptr) != 0) continue;
      EXPECT_EQ(bag_register(&r.d), 0u);
      EXPECT_EQ(bag_registered_count(), before);
      bag_register_abort();
    }
  });
  EXPECT_EQ(bag_registered_count(), before);
}

}  // namespace
}  // namespace contract
