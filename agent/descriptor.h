// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace agent {

/// A negative number is none.
struct descriptor {
  descriptor() = default;
  explicit descriptor(int fd) : number(fd) {}
  descriptor(descriptor &&other) noexcept : number(std::exchange(other.number, -1)) {}
  descriptor &operator=(descriptor other) noexcept {
    std::swap(number, other.number);
    return *this;
  }
  ~descriptor() {
    if (number >= 0) ::close(number);
  }

  int number = -1;
};

}  // namespace agent
