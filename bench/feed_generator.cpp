// Writes a generated stream to a file or standard output: for tarvo-agent --replay, or for a
// socket.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "bench/stream_options.h"

int main(int argc, char **argv) {
  CLI::App app("Writes a BMP or BGP stream of VPN routes.");
  bench::stream_shape shape;
  std::string path = "-";
  bench::add_stream_options(app, shape);
  app.add_flag_callback(
      "--bgp", [&] { shape.speaks = bench::protocol::bgp; }, "not BMP but BGP");
  app.add_option("file", path, "where to write; - is standard output");
  CLI11_PARSE(app, argc, argv);

  FILE *out = path == "-" ? stdout : fopen(path.c_str(), "wb");
  const std::vector<uint8_t> stream = bench::make_stream(shape);
  if (out == nullptr || fwrite(stream.data(), 1, stream.size(), out) != stream.size() ||
      fclose(out) != 0) {
    fprintf(stderr, "feed_generator: %s: %s\n", path.c_str(), strerror(errno));
    return 1;
  }
}
