// The platform layer's calls as the contract's cases make them: through pointers into the library
// that is checked. In this namespace each hides the declaration of the same name, so the cases read
// like any user's code, and the program links no platform layer.
#pragma once
#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/bag.h"
#include "platform/event.h"
#include "platform/inet_text.h"
#include "platform/message_log.h"
#include "platform/named_alloc.h"
#include "platform/ods.h"
#include "platform/pool.h"
#include "platform/queue.h"
#include "platform/revival.h"
#include "platform/thread_diag.h"
#include "platform/timer.h"
#include "platform/tree.h"

namespace contract {

#define SERVICE(name, calls) calls
#define CALL(name) inline decltype(&::name) name = nullptr;
#include "services.def"
#undef SERVICE
#undef CALL

// Runs body(0) to body(n - 1), each on a thread of its own, until all have ended.
template <typename body_t>
void on_threads(int n, const body_t &body) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
}

}  // namespace contract
