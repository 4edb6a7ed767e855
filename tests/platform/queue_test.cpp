// Queues against a deque, over random operations; and the text of addresses against inet_ntop.
#include "platform/queue.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "platform/inet_text.h"
#include "platform/named_alloc.h"

namespace {

struct element {
  void *link;
};

TEST(Queue, AgreesWithADeque) {
  std::vector<element> elements(20);
  std::deque<void *> model;
  queue_t q;
  queue_init(&q, 0);
  std::mt19937 random(1);

  for (int step = 0; step < 20000; ++step) {
    element *e = &elements[random() % elements.size()];
    const auto at = std::find(model.begin(), model.end(), e);
    const bool queued = at != model.end();
    switch (random() % 4) {
      case 0:
      case 1:
        if (queued) break;
        queue_enqueue(&q, e);
        model.push_back(e);
        break;
      case 2:
        ASSERT_EQ(queue_dequeue(&q), model.empty() ? nullptr : model.front());
        if (!model.empty()) model.pop_front();
        break;
      case 3:
        if (queued && random() % 2 == 0)
          queue_remqueue(&q, e, at == model.begin() ? nullptr : at[-1]);
        else
          queue_unqueue(&q, e);
        if (queued) model.erase(at);
    }

    std::deque<void *> found;
    for (void *x = q.head; x != nullptr; x = queue_get_next(x)) found.push_back(x);
    ASSERT_EQ(found, model);
    ASSERT_EQ(q.count, model.size());
    ASSERT_EQ(q.tail, model.empty() ? nullptr : model.back());
  }
}

TEST(InetText, AgreesWithTheSystem) {
  std::mt19937 random(1);
  std::vector<uint32_t> addresses = {0, 0xffffffff, htonl(0x01020304), htonl(0x0a640963)};
  for (int i = 0; i < 2000; ++i) addresses.push_back(static_cast<uint32_t>(random()));
  for (uint32_t address : addresses) {
    char expected[INET_ADDRSTRLEN], text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, expected, sizeof expected);
    const size_t enough = strlen(expected) + 1;
    ASSERT_EQ(inet_ntoa_r({address}, text, enough), text);
    ASSERT_STREQ(text, expected);
    ASSERT_EQ(inet_ntoa_r({address}, text, enough - 1), nullptr);
  }
}

TEST(NamedAlloc, IsZeroed) {
  auto *bytes = static_cast<unsigned char *>(calloc_named(3, 100, "TEST"));
  ASSERT_NE(bytes, nullptr);
  EXPECT_TRUE(std::all_of(bytes, bytes + 300, [](unsigned char b) { return b == 0; }));
  free(bytes);
}

}  // namespace
