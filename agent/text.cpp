#include "agent/text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "platform/inet_text.h"

namespace agent {

std::string address_text(uint32_t address) {
  std::array<char, INET_ADDRSTRLEN> buffer;
  return inet_ntoa_r(in_addr{address}, buffer.data(), buffer.size());
}

std::string prefix_text(uint32_t address, unsigned length) {
  return address_text(address) + '/' + std::to_string(length);
}

std::string target_text(route_target target) {
  const auto type = static_cast<uint16_t>(target >> 48);
  const auto wide = static_cast<uint32_t>(target >> 16);
  const auto narrow = static_cast<uint16_t>(target);
  switch (type) {
    case 0x0002:
      return std::to_string(static_cast<uint16_t>(target >> 32)) + ':' +
             std::to_string(static_cast<uint32_t>(target));
    case 0x0102:
      return address_text(htonl(wide)) + ':' + std::to_string(narrow);
    default:
      return std::to_string(wide) + ':' + std::to_string(narrow);
  }
}

std::vector<std::string> target_texts(std::span<const route_target> targets) {
  std::vector<std::string> texts;
  for (const route_target target : targets) texts.push_back(target_text(target));
  return texts;
}

// Its forms are those of a target, under other type bytes.
std::string distinguisher_text(uint64_t rd) {
  const uint64_t form = rd >> 48 & 0xff, value = rd & 0xffffffffffff;
  return target_text(form << 56 | uint64_t{0x02} << 48 | value);
}

std::string grouped(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
  return text;
}

std::string utc_text(std::chrono::system_clock::time_point time) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
  const time_t seconds = ms.count() / 1000;
  tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 40> day;
  std::array<char, 48> text;
  strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text.data(), text.size(), "%s.%03dZ", day.data(), static_cast<int>(ms.count() % 1000));
  return text.data();
}

std::string code_text(uint32_t code) {
  std::array<char, 12> text;
  snprintf(text.data(), text.size(), "0x%08x", code);
  return text.data();
}

namespace {

/// Bytes of the character that the text begins with; 0: it is a control character or no UTF-8.
size_t printable_size(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
  const size_t size = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < size) return 0;
  uint32_t code = lead & (0x7f >> size);
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3f);
  }
  constexpr uint32_t kFirst[] = {0, 0, 0xa0, 0x800, 0x10000};  // below 0xa0 are more controls
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  return code < kFirst[size] || surrogate || code > 0x10ffff ? 0 : size;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const size_t size = printable_size(text);
    result += size == 0 ? "?" : text.substr(0, size);
    text.remove_prefix(std::max<size_t>(size, 1));
  }
  return result;
}

std::string place_text(std::string_view source, size_t line, size_t column) {
  std::string text(source);
  if (line != 0) text.append(":").append(std::to_string(line));
  if (column != 0) text.append(line != 0 ? ":" : ": column ").append(std::to_string(column));
  return text + ": ";
}

}  // namespace agent
