// The options that describe a generated stream, common to the programs that use one.
#pragma once

#include <CLI/CLI.hpp>

#include "bench/route_stream.h"

namespace bench {

inline void add_stream_options(CLI::App &app, stream_shape &shape) {
  app.add_option("--routes", shape.routes, "VPN routes")->check(CLI::Range(1, 1 << 24));
  app.add_option("--vrfs", shape.vrfs, "VRFs")->check(CLI::Range(1, 65535));
  app.add_option("--pes", shape.pes, "remote PEs")->check(CLI::Range(1, 65535));
  app.add_option("--per-update", shape.per_update, "routes in an UPDATE")
      ->check(CLI::Range(1, 250));
  app.add_option("--withdrawals", shape.withdrawals, "routes withdrawn at the end");
  app.add_option("--seed", shape.seed, "of the random choices");
  app.option_defaults()->always_capture_default();
}

}  // namespace bench
