#include "agent/endpoint.h"

#include <arpa/inet.h>

#include <charconv>

namespace agent {

std::string endpoint_text(const sockaddr_in &address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string parse_endpoint(const std::string &text, sockaddr_in &endpoint) {
  const size_t colon = text.rfind(':');
  const std::string address = colon == std::string::npos ? "" : text.substr(0, colon);
  const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);

  uint16_t number = 0;
  const char *const end = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), end, number);
  if (error != std::errc() || stop != end) return "'" + port + "' is no port from 0 to 65535";

  endpoint = {};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(number);
  if (address.empty())
    endpoint.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  else if (inet_pton(AF_INET, address.c_str(), &endpoint.sin_addr) != 1)
    return "'" + address + "' is no IPv4 address";
  return "";
}

}  // namespace agent
