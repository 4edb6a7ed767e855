#include "agent/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "platform/thread_diag.h"

namespace agent {

output::output(bool json, sink write, std::function<void()> on_closed)
    : json_(json),
      write_(std::move(write)),
      on_closed_(std::move(on_closed)),
      writer_([this] { run(); }) {}

output::~output() {
  {
    scoped_lock held(lock_);
    stop_ = true;
  }
  changed_.notify_all();
  writer_.join();
}

void output::post(pe_event event) {
  {
    scoped_lock held(lock_);
    event.seq = ++seq_;
    // While some are lost so are those that follow, until the writer tells: it tells of one gap.
    if (lost_ > 0 || queue_.size() >= kMaxQueued) return lose();
    try {
      queue_.emplace_back(std::move(event));
    } catch (const std::bad_alloc &) {  // the module's worker has nobody to tell
      return lose();
    }
  }
  changed_.notify_all();
}

void output::lose() {
  ++lost_;
  ++lost_ever_;
  changed_.notify_all();
}

void output::print(std::string lines) {
  {
    scoped_lock held(lock_);
    if (error_ != 0) return;
    changed_.notify_all();  // first: there may be no memory for what follows, or for half of it
    if (lost_ > 0) queue_.emplace_back(std::string(line_of_lost(lost_, seq_).data()));
    lost_ = 0;
    queue_.emplace_back(std::move(lines));
  }
  flush();
}

void output::flush() {
  scoped_lock held(lock_);
  while ((!queue_.empty() || lost_ > 0 || writing_) && error_ == 0) changed_.wait(lock_);
}

uint64_t output::events() const {
  scoped_lock held(lock_);
  return seq_;
}

uint64_t output::events_lost() const {
  scoped_lock held(lock_);
  return lost_ever_;
}

int output::error() const {
  scoped_lock held(lock_);
  return error_;
}

void output::run() {
  set_thread_name("output", pthread_self());
  int error = 0;
  for (batch taken; take(taken);) {
    const bool was_open = error == 0;
    if (was_open) error = write_out(taken);
    {
      scoped_lock held(lock_);
      writing_ = false;
      error_ = error;
    }
    changed_.notify_all();
    if (was_open && error != 0) on_closed_();
  }
  remove_thread_name(nullptr);
}

/// Waits for something to write; false at the end.
bool output::take(batch &taken) {
  scoped_lock held(lock_);
  while (queue_.empty() && lost_ == 0 && !stop_) changed_.wait(lock_);
  if (queue_.empty() && lost_ == 0) return false;
  taken.entries.clear();
  taken.entries.swap(queue_);
  taken.lost = std::exchange(lost_, 0);
  taken.last_seq = seq_;
  writing_ = true;
  return true;
}

lost_line output::line_of_lost(uint64_t count, uint64_t last_seq) const {
  return json_ ? lost_json(count, last_seq) : lost_text(count);
}

/// An event's line; an empty one where there is no memory for it.
std::string output::line_of(const pe_event &event) {
  try {
    return (json_ ? event_json(event) : event_text(event)) + '\n';
  } catch (const std::bad_alloc &) {
    scoped_lock held(lock_);
    ++lost_ever_;
    return {};
  }
}

/// Lines wait for others to be written with; where they find no memory, they are written alone.
int output::write_out(const batch &taken) {
  constexpr size_t kWrite = 65536;
  std::string waiting;
  uint64_t lost = 0, lost_seq = 0;  // since the last line
  int error = 0;
  const auto write_now = [&](std::string_view lines) {
    if (error == 0 && !lines.empty()) error = write_(lines);
  };
  const auto write_waiting = [&] {
    write_now(waiting);
    waiting.clear();
  };
  const auto tell_lost = [&] {
    if (lost == 0) return;
    write_waiting();
    write_now(line_of_lost(std::exchange(lost, 0), lost_seq).data());
  };
  const auto add = [&](const std::string &lines) {
    tell_lost();
    try {
      waiting += lines;
    } catch (const std::bad_alloc &) {
      write_waiting();
      write_now(lines);
    }
    if (waiting.size() >= kWrite) write_waiting();
  };
  for (const entry &e : taken.entries) {
    if (error != 0) return error;
    const auto *event = std::get_if<pe_event>(&e);
    if (event == nullptr) {
      add(std::get<std::string>(e));
    } else if (const std::string line = line_of(*event); !line.empty()) {
      add(line);
    } else {
      ++lost;
      lost_seq = event->seq;
    }
  }
  // What was not queued came after all that was.
  if (taken.lost > 0) lost_seq = taken.last_seq;
  lost += taken.lost;
  tell_lost();
  write_waiting();
  return error;
}

output::sink write_to(int fd) {
  return [fd](std::string_view rest) {
    while (!rest.empty()) {
      const ssize_t written = write(fd, rest.data(), rest.size());
      if (written >= 0) {
        rest.remove_prefix(static_cast<size_t>(written));
      } else if (errno == EAGAIN) {  // somebody made the terminal non-blocking
        pollfd ready{fd, POLLOUT, 0};
        poll(&ready, 1, -1);
      } else if (errno != EINTR) {
        return errno;
      }
    }
    return 0;
  };
}

}  // namespace agent
