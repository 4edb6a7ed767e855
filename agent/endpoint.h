// Where to listen: an IPv4 address and a port.
#pragma once

#include <netinet/in.h>

#include <string>

namespace agent {

/// Reads "ADDRESS:PORT", or ":PORT" or "PORT" for 127.0.0.1. An empty string, or what is wrong.
std::string parse_endpoint(const std::string &text, sockaddr_in &endpoint);

std::string endpoint_text(const sockaddr_in &address);

}  // namespace agent
