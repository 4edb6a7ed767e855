#include "agent/rib_thread.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <system_error>
#include <utility>

#include "agent/diagnostics.h"
#include "agent/fence.h"
#include "agent/progress.h"
#include "agent/redistribution.h"
#include "agent/rib.h"

namespace agent {

// How often a dump's progress is looked at.
static constexpr std::chrono::milliseconds kLook{200};

rib_thread::rib_thread(rib &routes, redistribution &reports, fence &pace)
    : routes_(routes),
      reports_(reports),
      pace_(pace),
      wakeup_fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (wakeup_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  polled_.push_back({wakeup_fd_, POLLIN, 0});
  watched_.emplace_back();
  reports_.set_wakeup([this] { wake(); });
  thread_ = std::thread([this] { loop(); });
}

rib_thread::~rib_thread() {
  {
    scoped_lock held(lock_);
    stop_ = true;
  }
  wake();
  thread_.join();
  reports_.set_wakeup(nullptr);
  close(wakeup_fd_);
}

// It fails only with the counter at its limit, and then a wake-up is still to be seen.
void rib_thread::wake() { eventfd_write(wakeup_fd_, 1); }

// ---- Other threads ----

void rib_thread::call(const std::function<void()> &run) {
  if (std::this_thread::get_id() == thread_.get_id()) {
    run();
    return;
  }
  job mine{run};
  scoped_lock held(lock_);
  job **last = &jobs_;
  while (*last != nullptr) last = &(*last)->next;
  *last = &mine;
  wake();
  while (!mine.done) changed_.wait(lock_);
  if (mine.failure) std::rethrow_exception(mine.failure);
}

void rib_thread::await_idle() {
  scoped_lock held(lock_);
  ++idle_waiters_;
  wake();
  const uint64_t before = reports_.reported();
  if (dumps_ != nullptr) dumps_->begin("dump", "routes reported");
  for (uint64_t seen = idles_; idles_ == seen;) {
    if (dumps_ == nullptr) {
      changed_.wait(lock_);
    } else if (changed_.wait_for(lock_, kLook) == std::cv_status::timeout) {
      dumps_->update(reports_.reported() - before);
    }
  }
  if (dumps_ != nullptr) dumps_->end(reports_.reported() - before);
}

// What was queued before is handled once the first wait returns, so its requests to the RIB are
// made; then the RIB answers them; then the module handles the answers.
void rib_thread::settle() {
  if (!pace_.is_open()) return;
  pace_.wait();
  await_idle();
  pace_.wait();
}

// ---- The RIB thread ----

void rib_thread::loop() {
  pthread_setname_np(pthread_self(), "rib");
  for (;;) {
    bool busy = routes_.work();
    {
      scoped_lock held(lock_);
      if (stop_) return;
      // Idle still: a request may have come after work() looked, and its waiter after it.
      if (!busy && jobs_ == nullptr && idle_waiters_ > 0 && reports_.idle()) {
        idle_waiters_ = 0;
        ++idles_;
        changed_.notify_all();
      }
    }
    const bool ready = poll_or_tell(polled_, busy ? 0 : -1, told_poll_) > 0;
    eventfd_t wakeups;
    if (ready && polled_[0].revents != 0) eventfd_read(wakeup_fd_, &wakeups);
    run_jobs();
    if (ready) serve_fds();
  }
}

void rib_thread::run_jobs() {
  job *jobs = nullptr;
  {
    scoped_lock held(lock_);
    jobs = std::exchange(jobs_, nullptr);
  }
  if (jobs == nullptr) return;
  for (job *j = jobs; j != nullptr; j = j->next) {
    try {
      j->run();
    } catch (...) {
      j->failure = std::current_exception();
    }
  }
  scoped_lock held(lock_);
  for (job *j = jobs; j != nullptr; j = j->next) j->done = true;
  changed_.notify_all();
}

void rib_thread::serve_fds() {
  constexpr std::chrono::milliseconds kPause{100};
  bool failed = false;
  // By index: `ready` may add descriptors, and removes them only in name, since it may be its own.
  for (size_t i = 1, count = polled_.size(); i < count; ++i) {
    short revents = polled_[i].revents;
    if (revents == 0 || watched_[i].removed) continue;
    try {
      auto ready = watched_[i].ready;
      ready(revents);
    } catch (const std::bad_alloc &) {
      failed = true;
    }
  }
  // What could not be done is still to do, and poll() would say so at once. Told once.
  if (failed && !told_memory_) diagnose("tarvo-agent: out of memory; trying again");
  told_memory_ = failed;
  if (failed) std::this_thread::sleep_for(kPause);
  size_t kept = 1;
  for (size_t i = 1; i < polled_.size(); ++i) {
    if (watched_[i].removed) continue;
    polled_[kept] = polled_[i];
    if (kept != i) watched_[kept] = std::move(watched_[i]);
    ++kept;
  }
  polled_.resize(kept);
  watched_.resize(kept);
}

void rib_thread::add_fd(int fd, short events, std::function<void(short)> ready) {
  watched_.push_back({std::move(ready)});
  try {
    polled_.push_back({fd, events, 0});
  } catch (const std::bad_alloc &) {
    watched_.pop_back();
    throw;
  }
}

void rib_thread::remove_fd(int fd) {
  for (size_t i = 1; i < polled_.size(); ++i) {
    if (polled_[i].fd != fd) continue;
    polled_[i].fd = -1;  // poll() passes over it
    watched_[i].removed = true;
  }
}

}  // namespace agent
