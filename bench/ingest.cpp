// What a BMP feed costs from its first byte to the last notification, with the module active.
//
// The agent's own parts run in this process, with one client of all VPNs. Printed are the CPU
// time of all threads and the memory grown (peak, so the queue's backlog is in it), both by route,
// and the time of a RIB restart until the module has handled every report of it.
#include <arpa/inet.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "bench/stream_options.h"
#include "platform/event.h"
#include "tarvo/discovery.h"

namespace {

using namespace agent;

struct cost {
  double wall = 0;  // seconds
  double cpu = 0;   // seconds, all threads
};

cost now() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  std::chrono::duration<double> wall = std::chrono::steady_clock::now().time_since_epoch();
  return {wall.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

template <typename Work>
cost measure(Work work) {
  cost before = now();
  work();
  cost after = now();
  return {after.wall - before.wall, after.cpu - before.cpu};
}

/// A line of /proc/self/status in bytes, as "VmRSS:" or "VmHWM:".
double memory(const std::string &field) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kibibytes = 0;
    if (word == field && status >> kibibytes) return kibibytes * 1024;
  }
  return 0;
}

std::atomic<uint64_t> events;

void on_event(uint32_t, uint32_t event, const void *) {
  if (event == TARVO_ND_EVENT_ADD || event == TARVO_ND_EVENT_REMOVE) ++events;
}

class host {
 public:
  bool start(const bench::stream_shape &shape) {
    install_services(reports_, global_);
    void *manager = event_mgr_create();
    if (manager == nullptr || tarvo_nd_init(manager) != TARVO_ND_OK) return false;
    // The module has no shutdown, so its manager and the thread that serves it end with us.
    std::thread([manager] { event_mgr_dispatch(manager); }).detach();
    if (!fence_.open()) return false;
    tarvo_pe_discovery_register(1, nullptr, on_event);
    for (uint32_t pe = 0; pe < shape.pes; ++pe) global_.add(bench::pe_address(pe), 32);
    for (uint32_t v = 1; v <= shape.vrfs; ++v) {
      std::string name = "VRF-" + std::to_string(v);
      loop_.call([&] { routes_.add_vrf({name, v, {bench::vrf_target(v)}}); });
      registered_tables().ital->table_update(name.c_str(), v, 1);
    }
    loop_.settle();
    return true;
  }
  std::string replay(const std::string &path) {
    std::string error = station_.replay(path);
    loop_.settle();
    return error;
  }
  void restart() {
    registered_tables().rib->rib_restart();
    loop_.settle();
  }
  size_t rib_memory() {
    size_t bytes = 0;
    loop_.call([&] { bytes = routes_.memory(); });
    return bytes;
  }
  size_t count_routes() {
    size_t routes = 0;
    loop_.call([&] {
      for (const route_count &c : routes_.count_routes()) routes += c.routes;
    });
    return routes;
  }
  void stop() {
    tarvo_pe_discovery_unregister(1);
    fence_.close();
  }

 private:
  fence fence_;
  redistribution reports_{fence_};
  global_table global_;
  rib routes_{global_, reports_};
  rib_thread loop_{routes_, reports_, fence_};
  bmp_station station_{routes_, loop_, bmp_view::loc_rib};
};

std::string write_temporary(const bench::stream_shape &shape) {
  std::string path = "/tmp/ingest-XXXXXX";
  int fd = mkstemp(path.data());
  const std::vector<uint8_t> stream = bench::make_stream(shape);
  bool written = fd >= 0 && write(fd, stream.data(), stream.size()) == ssize_t(stream.size());
  if (fd >= 0) close(fd);
  return written ? path : "";
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("Measures the road of VPN routes from BMP to notifications.");
  bench::stream_shape shape;
  bench::add_stream_options(app, shape);
  CLI11_PARSE(app, argc, argv);

  static host agent;
  if (!agent.start(shape)) return fprintf(stderr, "ingest: the agent doesn't start\n"), 1;

  // Before the stream is made: memory that its making leaves to the heap counts as grown.
  const double before = memory("VmRSS:");
  const std::string path = write_temporary(shape);
  if (path.empty()) return perror("ingest: temporary file"), 1;
  std::ofstream("/proc/self/clear_refs") << 5;  // the peak begins anew
  std::string error;
  const cost feed = measure([&] { error = agent.replay(path); });
  unlink(path.c_str());
  const double grown = memory("VmHWM:") - before;
  const double changes = double(shape.routes) + std::min(shape.withdrawals, shape.routes);
  printf("changes              %.0f, %zu routes left, %lu notifications%s\n", changes,
         agent.count_routes(), events.load(), error.c_str());
  printf("CPU per change       %.3f us, %.0f a CPU second\n", feed.cpu / changes * 1e6,
         changes / feed.cpu);
  printf("wall                 %.3f s\n", feed.wall);
  printf("memory per route     %.1f bytes at the peak, RIB %.1f\n", grown / shape.routes,
         double(agent.rib_memory()) / shape.routes);
  const cost restart = measure([&] { agent.restart(); });
  printf("RIB restart          %.3f s, %.3f CPU s\n", restart.wall, restart.cpu);
  agent.stop();
}
