// The record encoder, on structures of the module's records: what it writes another CBOR reader
// takes; what it refuses is a value that can't be encoded; good values never are.
//
// Input: which record, whether values are any or good, the values.
#include <iterator>
#include <nlohmann/json.hpp>

#include "fuzz/native.h"
#include "tarvo/oper_records.h"

#define TYPE(number, name, size, body)
#define RECORD(number, name, size, body) &name##_bag,
static const bag_descriptor_t *const kRecords[] = {
#include "oper/record_types.def"
};
#undef TYPE
#undef RECORD

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using nlohmann::json;
  fuzz::source input(data, size);
  const bag_descriptor_t &descriptor = *kRecords[input.byte() % std::size(kRecords)];
  const auto what = input.byte() % 2 == 0 ? fuzz::values::any : fuzz::values::good;
  static bag::record record;
  record = {};
  REQUIRE(bag::read_record(&descriptor, record) == 0);
  fuzz::native_filler filler(record, input, what);
  std::vector<uint8_t> bytes;
  const std::vector<uint8_t> native = filler.fill();
  const uint32_t code = fuzz::encode_checked(descriptor, native.data(), bytes);
  REQUIRE(code == 0 || what == fuzz::values::any);
  if (code != 0) return 0;
  const json read = json::from_cbor(bytes, true, false, json::cbor_tag_handler_t::store);
  REQUIRE(!read.is_discarded());
  return 0;
}
