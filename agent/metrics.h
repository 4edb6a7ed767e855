// The figures that the agent shows to a monitoring system, in the Prometheus text format.
#pragma once

#include <string>

namespace agent {

class bmp_station;
class output;
class rib;
class rib_thread;

struct metrics_sources {
  rib &routes;
  rib_thread &loop;
  bmp_station &station;
  output &out;
};

/// The whole page. Any thread but the module's worker and the RIB's: the module's queries wait
/// while it has requests, the RIB's for its turn.
std::string metrics_page(const metrics_sources &from);

}  // namespace agent
