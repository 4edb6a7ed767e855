// Dotted-decimal text of IPv4 addresses. No state. Every notification's trace comes through here,
// so the digits are written by hand instead of through a format.
#include "inet_text.h"

#include <string.h>

static char *write_octet(char *out, unsigned value) {
  if (value >= 100) *out++ = static_cast<char>('0' + value / 100);
  if (value >= 10) *out++ = static_cast<char>('0' + value / 10 % 10);
  *out++ = static_cast<char>('0' + value % 10);
  return out;
}

char *inet_ntoa_r(struct in_addr address, char *buffer, size_t size) {
  unsigned char octets[4];
  memcpy(octets, &address, sizeof octets);  // network byte order: most significant first

  char text[sizeof "255.255.255.255"];
  char *end = text;
  for (unsigned char octet : octets) {
    end = write_octet(end, octet);
    *end++ = '.';
  }
  end[-1] = '\0';

  const size_t length = static_cast<size_t>(end - text);
  if (buffer == nullptr || size < length) return nullptr;
  memcpy(buffer, text, length);
  return buffer;
}
