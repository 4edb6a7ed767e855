// fuzz_seeds EXAMPLES DIRECTORY: writes a first corpus for each target, derived from the recording
// and its start-up file, with every kind of fault that is known to have broken other readers.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>
#include <variant>
#include <vector>

#include "agent/command.h"
#include "tarvo/oper_records.h"
#include "tests/agent/bmp_bytes.h"

#define TYPE(number, name, size, body)
#define RECORD(number, name, size, body) &name##_bag,
static const bag_descriptor_t *const kRecords[] = {
#include "oper/record_types.def"
};
#undef TYPE
#undef RECORD

using namespace agent;

namespace {

std::filesystem::path root;

void write(const char *target, const bytes &seed) {
  static size_t count = 0;
  std::ofstream(root / target / std::to_string(count++), std::ios::binary) << seed;
}

bytes contents(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) std::cerr << path << ": cannot be read\n", exit(1);
  return {std::istreambuf_iterator<char>(file), {}};
}

// In all three views, and as a recording. The streams are of the Loc-RIB.
void write_stream(const bytes &stream) {
  for (const auto &[how, peer] :
       {std::pair(0, kLoc), std::pair(1, kPost), std::pair(2, kPre), std::pair(6, kLoc)}) {
    bytes seen = stream;
    for (size_t at = 0; (at = seen.find(kLoc, at)) != bytes::npos; at += peer.size())
      seen.replace(at, peer.size(), peer);
    write("bmp_stream", be(how, 1) + be(seen.size(), 1) + seen);
  }
}

bytes repeated(const bytes &part, size_t times) {
  bytes text;
  while (times-- > 0) text += part;
  return text;
}
bytes segment(size_t numbers) { return be(2, 1) + be(numbers, 1) + zeros(4 * numbers); }
bytes with(const bytes &attributes) { return update(kBase + kRest + attributes); }
bytes cut(const bytes &whole, size_t by) { return whole.substr(0, whole.size() - by); }
/// An UPDATE whose two sections say lengths of their own.
bytes sections(size_t withdrawn, const bytes &w, size_t attributes, const bytes &a) {
  return bgp(2, be(withdrawn, 2) + w + be(attributes, 2) + a);
}

std::vector<bytes> hostile_updates() {
  const bytes many = repeated(segment(255), 20);
  std::vector<bytes> all = {
      // NLRI: bit lengths without bound, prefixes over 32 bits, label stacks without an end.
      announce(be(255, 1) + repeated(kOpenLabel, 11)), announce(be(87, 1) + zeros(11)),
      announce(be(121, 1) + be(1, 3) + zeros(13)), update(kBase + kNextHop, be(33, 1) + zeros(5)),
      update(kBase + kNextHop, be(255, 1) + zeros(32)), announce(be(200, 1) + kOpenLabel),
      announce(vpn(24, 0x0a010100, kOpenLabel)), announce(vpn(32, 1, repeated(kOpenLabel, 4))),
      update(unreach(vpn(24, 0x0a010100, kOpenLabel))), announce(cut(kPlain, 1)),
      update(kBase + kNextHop, be(24, 1) + zeros(2)),
      // MP_REACH cut short, next hops of lengths that their family doesn't have.
      update(kBase + attr(0x80, 14, zeros(4))), update(kBase + attr(0x80, 14, be(0x000180, 3))),
      update(kBase + reach(be(kHop1, 4), kPlain)), update(kBase + reach(hop(kHop1), kNine, 1)),
      update(kBase + reach(zeros(16), kPlain)), update(kBase + reach(zeros(24), kPlain)),
      update(kBase + reach(zeros(48), kPlain)),
      update(kBase + attr(0x80, 14, be(0x000180ff, 4) + kPlain)),
      update(kBase + reach(zeros(32), kNine, 1, 2)), update(kBase + attr(0x40, 3, zeros(3)), kNine),
      update(kBase + attr(0x40, 3, ""), kNine),
      // Sections shorter than what is in them, or longer than the message.
      sections(1, kNine, 0, ""), sections(9, kNine, 0, ""), sections(0xffff, "", 0xffff, ""),
      sections(0, "", 3, cut(kOrigin, 1)), sections(0, "", 9, kOrigin), sections(0, "", 1, "\x40"),
      sections(0, "", 4, be(0x40020f02, 4)),
      // Attributes of wrong length and flags, inner lengths beyond them, none at all, repeated.
      with(attr(0xc0, 4, zeros(4))), with(attr(0x80, 4, zeros(3))), with(attr(0x40, 8, zeros(4))),
      with(attr(0x00, 2, "")), update(attr(0x40, 1, "") + kPath + kRest),
      update(kOrigin + attr(0x40, 2, be(0x02ff0000fde8, 6)) + kRest),
      with(attr(0xc0, 23, be(0x000100ff, 4) + zeros(3))), with(attr(0xc0, 23, zeros(4))),
      update(kReach1), update("", kNine), update(kNextHop, kNine), update(unreach(kPlain), kNine),
      update(unreach("")), update(unreach("", 1)), with(kOrigin + kPath),
      with(reach(hop(kHop3), kTwo)), with(unreach(kPlain) + unreach(kTwo)),
      // What is almost an End-of-RIB.
      bgp(2, zeros(3)), bgp(2, zeros(5)), update(attr(0x80, 15, be(0x0001, 2))), bgp(2, ""),
      sections(0, "", 6, be(0x800f03000180, 6) + "x"),
      // Communities of odd size and in great number, long paths, extended messages.
      with(attr(0xc0, 16, zeros(7))), update(kBase + kReach1 + attr(0xc0, 16, zeros(8 * 5000))),
      update(kOrigin + attr(0x40, 2, many) + kRest), announce(repeated(vpn(32, 0x0a020000), 500)),
      // Path identifiers that nobody agreed on.
      announce(kId7 + kId8), update(kBase + kNextHop, be(7, 4) + kNine), update(unreach(kId7)),
      update("", "", be(7, 4) + kNine)};
  return all;
}

std::vector<bytes> hostile_streams() {
  const bytes open = bgp(1, zeros(9) + be(4, 1) + be(0x02020200, 4));
  const bytes looping = bgp(1, zeros(9) + be(0xffff0008, 4) + be(0xff0005, 3) + zeros(5));
  const bytes endless = bgp(1, zeros(9) + be(255, 1) + repeated(be(0x0200, 2), 100));
  return {up(1, 2) + tell(kId7),
          up(3, 3, kLoc, true) + tell(kId7 + kId8),
          from(kLoc, 3, zeros(20) + looping + open),
          from(kLoc, 3, zeros(20) + endless + endless),
          from(kLoc, 3, zeros(20) + open + cut(open, 2)),
          from(kLoc, 3, zeros(19)),
          from(kLoc, 3, ""),
          bmp(3, zeros(41)),
          from(kLoc, 2, ""),
          from(kLoc, 2, "\1" + bgp(3, "\6")),
          from(kLoc, 2, "\1" + bytes(10, '\xff')),
          from(kLoc, 1, zeros(3)),
          from(kLoc, 1, ""),
          from(kLoc, 1, be(0xffffffff, 4)),
          bmp(4, zeros(4)),
          bmp(4, be(0x00020000, 4)),
          bmp(4, be(2, 2) + be(9, 2) + "pe"),
          bmp(5, zeros(4)),
          bmp(5, "x"),
          bmp(0, ""),
          bmp(255, ""),
          monitor(announce(kPlain) + announce(kTwo)),
          monitor(announce(kPlain) + "x"),
          monitor(bytes(19, '\xff')),
          from(kLoc, 6, be(0x00000010, 4) + zeros(2)),
          bmp(6, zeros(70000)) + kGood,
          kGood + bmp(6, zeros(1 << 17)).substr(0, 1000),
          be(3, 1) + be(0, 4) + be(0, 1),
          be(3, 1) + be(0xffffffff, 4) + be(0, 1),
          "GET / HTTP/1.1\r\n",
          kInitiation + kGood + kTermination + kGood + kInitiation + kGood,
          kStream,
          kStream + kStream,
          tell(kPlain) + tell(kPlain, kLoc, kHop2) + take(kPlain) + down()};
}

/// The form with values in place of their names.
bytes example_of(const command_form &form) {
  bytes line(form.syntax);
  for (const auto &[name, value] : {std::pair("[VRF]", "CUST-A"),
                                    {"NAME", "CUST-A"},
                                    {"TABLE", "101"},
                                    {"RT...", "65000:1 10.255.1.1:7 4200000002:9"},
                                    {"PREFIX", "10.1.2.0/24"},
                                    {"ID", "2"},
                                    {"SECONDS", "30"},
                                    {"ADDRESS", "10.1.2.3"}})
    if (const size_t at = line.find(name); at != bytes::npos) line.replace(at, strlen(name), value);
  if (std::holds_alternative<command_error>(parse_command(line)))
    std::cerr << line << ": no example of '" << form.syntax << "'\n", exit(1);
  return line;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return std::cerr << "fuzz_seeds EXAMPLES DIRECTORY\n", 2;
  const std::filesystem::path examples = argv[1];
  root = argv[2];
  for (const char *target :
       {"bmp_stream", "bgp_update", "command", "record_encoder", "schema_reader"})
    std::filesystem::create_directories(root / target);

  const bytes recording = contents(examples / "two-vpns.bmp");
  write_stream(recording);
  for (size_t at = 0; at < recording.size();) {
    size_t size = 0;
    for (size_t i = at + 1; i < at + 5; ++i) size = size << 8 | static_cast<uint8_t>(recording[i]);
    const bytes message = recording.substr(at, size);
    write_stream(message);
    if (message[5] == 0) write("bgp_update", zeros(1) + message.substr(48 + 19));
    at += size;
  }
  for (const bytes &message : hostile_updates()) {
    write_stream(kGood + monitor(message));
    for (const int negotiated : {0, 3}) write("bgp_update", be(negotiated, 1) + message.substr(19));
  }
  for (const bytes &stream : hostile_streams()) write_stream(stream);

  const bytes commands = contents(examples / "two-vpns.conf");
  write("command", commands);
  for (const command_form &form : command_forms()) write("command", example_of(form));
  write("command", "vrf add A table 4294967296 import 1:1 65536:65536 1.2.3.4:x");

  for (size_t i = 0; i < std::size(kRecords); ++i) {
    for (const int what : {0, 1}) write("record_encoder", be(i, 1) + be(what, 1) + bytes(300, 'a'));
    for (const int spoil : {0, 1, 2, 3})
      write("schema_reader", be(spoil, 1) + kRecords[i]->long_schema + zeros(1) + bytes(300, 'b'));
  }
  for (const char *schema :
       {"$1=$1;", "$1={a}$2;$2={b}$1;", "$1={a}D{a}D;", "$1=99999999999x;", "$1=?(<a,b>,1:v);",
        "$1=?(<a,b>,1:{c}D,?:v,?:v);", "$1={a}4000000000a(D);", "$1={a}((((;", "$1={a}[b]e%h;",
        "$4294967295=D;", "$1={a}$2{b}$2;$2={c}4294967295x;", "$1={a}64a($2);$2={a}64a($3);$3=s;"})
    write("schema_reader", zeros(1) + schema + zeros(8));
}
