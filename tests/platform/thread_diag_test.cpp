// Names and announced waits, as the walk shows them to another thread.
#include "platform/thread_diag.h"

#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>

namespace {

// All known threads as "name object caller line kind", one a line.
std::string threads_now() {
  std::string text;
  ptd_walk_threads(
      [](const ptd_info_t *i, void *arg) {
        auto &t = *static_cast<std::string *>(arg);
        t += std::string(i->name) + " " + (i->object != nullptr ? "object" : "-") + " " +
             (i->caller != nullptr ? i->caller : "-") + " " + std::to_string(i->line) + " " +
             std::to_string(i->wait_kind) + "\n";
        return 1;
      },
      &text);
  return text;
}

std::string system_name() {
  char name[16];
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(ThreadDiag, ShowsWhatAnotherThreadWaitsFor) {
  int object = 0;
  const struct {
    const char *shown;
    void (*step)(void *object);
  } kSteps[] = {
      {"", [](void *) {}},
      {" object take 42 0\n", [](void *o) { ptd_set_mutex_block(o, "take", 42); }},
      {" - - 0 0\n", [](void *) { ptd_unset_mutex_block(); }},
      {"mpls_vpn - - 0 0\n", [](void *) { set_thread_name("mpls_vpn", pthread_self()); }},
      {"mpls_vpn object - 0 6\n",
       [](void *o) { ptd_set_syscall_block_internal(PTD_WAIT_CONDITION, o, 0, 0); }},
      {"mpls_vpn - - 0 0\n", [](void *) { ptd_set_syscall_unblock(); }},
      {"a_name_of_more_ - - 0 0\n",
       [](void *) { set_thread_name("a_name_of_more_than_fifteen", pthread_self()); }},
      {" - - 0 0\n", [](void *) { remove_thread_name(nullptr); }},
  };
  std::string seen, expected;
  std::thread([&] {
    for (const auto &s : kSteps) {
      s.step(&object);
      std::thread([&] { seen += threads_now() + "|"; }).join();
      expected += std::string(s.shown) + "|";
    }
  }).join();
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(threads_now(), "") << "a thread that ended is unknown";
}

TEST(ThreadDiag, NamesTheSystemsThreadToo) {
  const std::string before = system_name();
  std::latch named(1);
  std::string other_name;
  std::thread other([&] {
    named.wait();
    other_name = system_name();
  });
  set_thread_name("given", other.native_handle());
  named.count_down();
  other.join();
  EXPECT_EQ(other_name, "given");
  EXPECT_EQ(system_name(), before);
  EXPECT_EQ(threads_now(), "") << "a name given by another thread announces nothing";

  set_thread_name("mine", pthread_self());
  EXPECT_EQ(system_name(), "mine");
  remove_thread_name(nullptr);
  EXPECT_NE(system_name(), "mine");
}

TEST(ThreadDiag, IsWalkedWhileThreadsComeAndGo) {
  std::thread churn([] {
    for (int i = 0; i < 300; ++i) {
      std::thread([object = i]() mutable {
        set_thread_name("short-lived", pthread_self());
        for (int line = 1; line <= 20; ++line) {
          ptd_set_mutex_block(&object, "take", line);
          ptd_unset_mutex_block();
        }
      }).join();
    }
  });
  ptd_set_mutex_block(&churn, "this thread", 1);
  for (int i = 0; i < 2000; ++i) {
    ASSERT_NE(threads_now().find("this thread"), std::string::npos);
  }
  churn.join();
}

}  // namespace
