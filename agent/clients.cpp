#include "agent/clients.h"

#include <atomic>
#include <chrono>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include "agent/fence.h"
#include "agent/oper_data.h"
#include "agent/output.h"
#include "agent/rib_thread.h"
#include "tarvo/discovery.h"

namespace agent {

namespace {

std::atomic<clients *> the_clients{nullptr};

/// With its last client the module has nobody to answer any more, so it is asked.
void await_inactive() {
  constexpr std::chrono::milliseconds kLook{1}, kPatience{1000};
  const auto limit = std::chrono::steady_clock::now() + kPatience;
  try {
    json state;
    while (oper_state(state) == 0 && std::chrono::steady_clock::now() < limit)
      std::this_thread::sleep_for(kLook);
  } catch (const std::bad_alloc &) {  // it has ended, or soon will have
  }
}

}  // namespace

clients::clients(rib_thread &loop, fence &pace, output &out) : loop_(loop), pace_(pace), out_(out) {
  the_clients = this;
}

clients::~clients() { the_clients = nullptr; }

std::string clients::watch(uint32_t id, const std::string &vrf) {
  vrf_name watched = vrf.empty() ? nullptr : std::make_shared<const std::string>(vrf);
  {
    scoped_lock held(lock_);
    watches_.emplace(id, std::move(watched));
  }
  if ((!pace_.is_open() && !pace_.open()) ||
      tarvo_pe_discovery_register(id, vrf.c_str(), on_event) != TARVO_ND_OK) {
    forget(id);
    return kNoMemory;
  }
  loop_.settle();
  return {};
}

std::string clients::unwatch(uint32_t id) {
  if (tarvo_pe_discovery_unregister(id) != TARVO_ND_OK) return kNoMemory;
  loop_.settle();
  forget(id);
  return {};
}

std::string clients::resend(uint32_t id) {
  vrf_name watched;
  {
    scoped_lock held(lock_);
    watched = watches_.at(id);
  }
  const char *vrf = watched ? watched->c_str() : "";
  if (tarvo_pe_discovery_resend(id, vrf) != TARVO_ND_OK) return kNoMemory;
  loop_.settle();
  return {};
}

void clients::unwatch_all() {
  for (;;) {
    std::optional<uint32_t> id;
    {
      scoped_lock held(lock_);
      if (!watches_.empty()) id = watches_.begin()->first;
    }
    if (!id) return;
    if (!unwatch(*id).empty()) forget(*id);  // no memory: the process ends anyway
  }
}

/// The last watch takes the fence along.
void clients::forget(uint32_t id) {
  bool last = false;
  {
    scoped_lock held(lock_);
    watches_.erase(id);
    last = watches_.empty();
  }
  if (!last) return;
  pace_.close();
  if (!pace_.is_open()) await_inactive();
}

void clients::on_event(uint32_t client_id, uint32_t event, const void *data) {
  if (clients *self = the_clients) self->pass_on(client_id, event, data);
}

void clients::pass_on(uint32_t client_id, uint32_t event, const void *data) {
  pe_event record;
  record.time = std::chrono::system_clock::now();
  record.client = client_id;
  record.event = event;
  if (event == TARVO_ND_EVENT_ADD || event == TARVO_ND_EVENT_REMOVE) {
    record.hop = *static_cast<const tarvo_nd_nhop_info_t *>(data);
  }
  {
    scoped_lock held(lock_);
    const auto watch = watches_.find(client_id);
    if (watch == watches_.end()) return;
    record.vrf = watch->second;
  }
  out_.post(std::move(record));
}

}  // namespace agent
