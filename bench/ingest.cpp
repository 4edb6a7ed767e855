// What a BMP feed costs from its first byte to the last notification, with the module active.
//
// The agent's own parts run in this process, with clients of all VPNs. Printed is a header and a
// row of a table: the feed's shape, then microseconds of CPU (all threads) and bytes of memory
// (grown at the peak, so the queue's backlog is in it), both a route, microseconds a route of a RIB
// restart until the module has handled every report of it, notifications, and the RIB's own bytes a
// route. Standard error gets a line of it in words, with the time that the restart takes.
#include <arpa/inet.h>
#include <sys/resource.h>
#include <unistd.h>

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

/// CPU seconds of all threads, as `work` runs.
template <typename Work>
double cpu_of(Work work) {
  const auto now = [] {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) {
      return double(t.tv_sec) + double(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
  };
  const double before = now();
  work();
  return now() - before;
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
  bool start(const bench::stream_shape &shape, uint32_t clients) {
    install_services(reports_, global_);
    void *manager = event_mgr_create();
    if (manager == nullptr || tarvo_nd_init(manager) != TARVO_ND_OK) return false;
    // The module has no shutdown, so its manager and the thread that serves it end with us.
    std::thread([manager] { event_mgr_dispatch(manager); }).detach();
    if (!fence_.open()) return false;
    for (uint32_t client = 1; client <= clients; ++client)
      tarvo_pe_discovery_register(client, nullptr, on_event);
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
  void stop(uint32_t clients) {
    for (uint32_t client = 1; client <= clients; ++client) tarvo_pe_discovery_unregister(client);
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
  uint32_t clients = 1;
  bench::add_stream_options(app, shape);
  app.add_option("--clients", clients, "of all VPNs")->check(CLI::Range(1, 1000000));
  CLI11_PARSE(app, argc, argv);

  static host agent;
  if (!agent.start(shape, clients)) return fprintf(stderr, "ingest: the agent doesn't start\n"), 1;

  // Before the stream is made: memory that its making leaves to the heap counts as grown.
  const double before = memory("VmRSS:");
  const std::string path = write_temporary(shape);
  if (path.empty()) return perror("ingest: temporary file"), 1;
  std::ofstream("/proc/self/clear_refs") << 5;  // the peak begins anew
  std::string error;
  const double feed = cpu_of([&] { error = agent.replay(path); });
  unlink(path.c_str());
  const double grown = memory("VmHWM:") - before;
  const auto began = std::chrono::steady_clock::now();
  const double restart = cpu_of([&] { agent.restart(); });
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  if (!error.empty()) return fprintf(stderr, "ingest: %s\n", error.c_str()), 1;

  const double routes = shape.routes;
  printf("routes\tvrfs\tnexthops\tclients\tcpu\tmemory\trestart\tnotifications\trib\n");
  printf("%u\t%u\t%u\t%u\t%.3f\t%.1f\t%.3f\t%lu\t%.1f\n", shape.routes, shape.vrfs, shape.pes,
         clients, feed / routes * 1e6, grown / routes, restart / routes * 1e6, events.load(),
         double(agent.rib_memory()) / routes);
  fprintf(stderr, "%.0f routes a CPU second, %.1f bytes a route, rib restart in %.3f s\n",
          routes / feed, grown / routes, took.count());
  agent.stop(clients);
}
