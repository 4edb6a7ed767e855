// The other end of the agent's UNIX sockets.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "agent/descriptor.h"

namespace agent {

/// Bound or connected (`attach`) to a name; a '@' begins one outside the file system. Waits 5 s for
/// what is to come.
inline descriptor unix_socket(int type, decltype(&connect) attach, const std::string &name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path, sizeof address.sun_path - 1);
  if (name.starts_with('@')) address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  descriptor fd(socket(AF_UNIX, type, 0));
  const timeval patience{5, 0};
  setsockopt(fd.number, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  EXPECT_EQ(attach(fd.number, reinterpret_cast<sockaddr *>(&address), size), 0) << name;
  return fd;
}

/// What comes next: bytes of a stream, or a datagram; "END" where nothing comes any more, "" where
/// nothing came in time, or yet when `flags` say not to wait.
inline std::string received(const descriptor &from, int flags = 0) {
  std::string text(1 << 20, '\0');
  const ssize_t size = recv(from.number, text.data(), text.size(), flags);
  if (size < 0) return errno == ECONNRESET ? "END" : "";
  return size == 0 ? "END" : text.substr(0, static_cast<size_t>(size));
}

}  // namespace agent
