// Event manager: coalescing, raises from other threads and from handlers, stopping, refusals.
#include "platform/event.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <thread>

namespace {

struct fixture : testing::Test {
  void *mgr = event_mgr_create();
  ~fixture() override { event_mgr_destroy(mgr); }

  struct sigevent attach(event_handler handler, void *context) {
    struct sigevent event = {};
    const int code = event_async_attach(mgr, EVENT_COALESCE, handler, context);
    EXPECT_GE(code, 0);
    EXPECT_EQ(event_init_sigevent(mgr, code, 0, 0, &event), 0);
    EXPECT_EQ(event.sigev_notify, SIGEV_THREAD);
    return event;
  }
};
using Event = fixture;

void raise_event(const struct sigevent &event) { event.sigev_notify_function(event.sigev_value); }

struct counted {
  void *mgr;
  int runs = 0;
  int stop_at = 1;
  struct sigevent again = {};  // raised by the handler until it stops
  static int handler(void *context) {
    auto *c = static_cast<counted *>(context);
    if (++c->runs == c->stop_at)
      event_mgr_stop(c->mgr);
    else
      raise_event(c->again);
    return 0;
  }
};

TEST_F(Event, CoalescesRaisesAndRunsAgainForARaiseDuringTheRun) {
  counted first{mgr}, second{mgr, 0, 3};
  const struct sigevent raise_first = attach(counted::handler, &first);
  second.again = attach(counted::handler, &second);

  for (int i = 0; i < 3; ++i) raise_event(raise_first);
  EXPECT_EQ(event_mgr_dispatch(mgr), 0);
  EXPECT_EQ(first.runs, 1);
  EXPECT_EQ(second.runs, 0);

  raise_event(second.again);
  EXPECT_EQ(event_mgr_dispatch(mgr), 0);
  EXPECT_EQ(second.runs, 3);
  EXPECT_EQ(first.runs, 1);
}

TEST_F(Event, AStopIsNotLostNorWhatItLeavesBehind) {
  counted c{mgr};
  const struct sigevent event = attach(counted::handler, &c);
  event_mgr_stop(mgr);
  raise_event(event);
  EXPECT_EQ(event_mgr_dispatch(mgr), 0);
  EXPECT_EQ(c.runs, 0);
  EXPECT_EQ(event_mgr_dispatch(mgr), 0);
  EXPECT_EQ(c.runs, 1);
}

// Every value that a thread stored before its raise is seen by a later run of the handler.
TEST_F(Event, NoRaiseOfAnyThreadIsLost) {
  constexpr int kThreads = 3, kRaises = 3000;
  struct shared {
    void *mgr;
    std::atomic<int> posted{0};
    int seen = 0;
  } s{mgr};
  const struct sigevent event = attach(
      [](void *context) {
        auto *x = static_cast<shared *>(context);
        x->seen = x->posted.load(std::memory_order_relaxed);
        if (x->seen == kThreads * kRaises) event_mgr_stop(x->mgr);
        return 0;
      },
      &s);
  std::thread dispatcher([this] { EXPECT_EQ(event_mgr_dispatch(mgr), 0); });
  std::thread threads[kThreads];
  for (std::thread &t : threads) {
    t = std::thread([&] {
      for (int i = 0; i < kRaises; ++i) {
        s.posted.fetch_add(1, std::memory_order_relaxed);
        raise_event(event);
      }
    });
  }
  for (std::thread &t : threads) t.join();
  dispatcher.join();
  EXPECT_EQ(s.seen, kThreads * kRaises);
}

TEST_F(Event, Refuses) {
  const auto handler = [](void *) { return 0; };
  struct sigevent event = {};
  const int known = event_async_attach(mgr, EVENT_COALESCE, handler, nullptr);
  const struct {
    const char *what;
    int rc;
  } kCalls[] = {
      {"no manager", (errno = 0, event_async_attach(nullptr, EVENT_COALESCE, handler, nullptr))},
      {"unknown kind", (errno = 0, event_async_attach(mgr, 1, handler, nullptr))},
      {"no handler", (errno = 0, event_async_attach(mgr, EVENT_COALESCE, nullptr, nullptr))},
      {"unknown code", (errno = 0, event_init_sigevent(mgr, known + 1, 0, 0, &event))},
      {"no sigevent", (errno = 0, event_init_sigevent(mgr, known, 0, 0, nullptr))},
      {"nothing to dispatch", (errno = 0, event_mgr_dispatch(nullptr))},
  };
  for (const auto &c : kCalls) EXPECT_EQ(c.rc, -1) << c.what;
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
