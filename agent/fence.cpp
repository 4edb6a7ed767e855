#include "agent/fence.h"

#include <chrono>
#include <thread>

#include "agent/pools.h"
#include "tarvo/discovery.h"

namespace agent {

// The command grammar splits at spaces, so no VRF can have this name.
static constexpr char kVrfName[] = " agent fence";

// The worker answers a registration with END unless it has no memory for it; how long to believe
// that the answer is still on its way.
static constexpr std::chrono::seconds kRegistrationLimit{10};

static fence *the_fence;

fence::fence() { the_fence = this; }

fence::~fence() {
  close();
  the_fence = nullptr;
}

void fence::on_event(uint32_t, uint32_t event, const void *) { the_fence->handle(event); }

// On the worker, with the nd mutex held.
void fence::handle(uint32_t event) {
  scoped_lock held(lock_);
  if (event == TARVO_ND_EVENT_END) registered_ = true;
  if (event == TARVO_ND_EVENT_RESEND_END) ++handled_;
  changed_.notify_all();
}

bool fence::open() {
  scoped_lock held(lock_);
  if (open_) return true;

  // Open first: registering activates discovery, and the dumps that this brings must not be lost.
  open_ = true;
  registered_ = false;
  if (tarvo_pe_discovery_register(kClientId, kVrfName, on_event) != TARVO_ND_OK) {
    open_ = false;
    return false;
  }
  auto limit = std::chrono::steady_clock::now() + kRegistrationLimit;
  while (!registered_) {
    if (changed_.wait_until(lock_, limit) == std::cv_status::timeout && !registered_) {
      // Nothing will ever answer a resend: what was issued meanwhile is written off.
      open_ = false;
      handled_ = issued_;
      changed_.notify_all();
      tarvo_pe_discovery_unregister(kClientId);
      return false;
    }
  }
  return true;
}

void fence::close() {
  scoped_lock held(lock_);
  if (!open_) return;
  open_ = false;
  await(issued_);
  // Without memory for the request discovery stays active, and so does the fence.
  if (tarvo_pe_discovery_unregister(kClientId) != TARVO_ND_OK) open_ = true;
}

bool fence::is_open() const {
  scoped_lock held(lock_);
  return open_;
}

// A resend that finds no memory issues nothing; whoever waits then waits for the fence before.
void fence::issue() {
  if (tarvo_pe_discovery_resend(kClientId, kVrfName) == TARVO_ND_OK) ++issued_;
}

void fence::await(uint64_t ticket) {
  while (handled_ < ticket) changed_.wait(lock_);
}

void fence::wait() {
  scoped_lock held(lock_);
  if (!open_) return;
  issue();
  await(issued_);
}

bool fence::module_answers() {
  constexpr std::chrono::milliseconds kLook{10}, kPatience{1000};
  if (is_open()) {
    wait();
    return true;
  }
  {
    // Under the lock, so that it is queued before the fence's registration, and answered by nobody.
    scoped_lock held(lock_);
    if (open_) return true;  // just opened, so it answered
    if (tarvo_pe_discovery_resend(kClientId, kVrfName) != TARVO_ND_OK) return false;
  }
  const auto limit = std::chrono::steady_clock::now() + kPatience;
  while (requests_queued() > 0) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(kLook);
  }
  return true;
}

bool fence::pass(const std::function<void()> &hand_over) {
  scoped_lock held(lock_);
  await(burst_);
  if (!open_) return false;
  issue();
  hand_over();
  issue();
  burst_ = issued_;
  return true;
}

}  // namespace agent
