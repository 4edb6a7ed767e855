// What most tests of the platform use, and threads that end within a call.
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

// Runs body(0) to body(n - 1), each on a thread of its own, until all have ended.
template <typename body_t>
void on_threads(int n, const body_t &body) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
}
