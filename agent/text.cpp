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
  for (size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
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

std::string printable(std::string_view text) {
  std::string result(text);
  std::replace_if(
      result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return result;
}

}  // namespace agent
