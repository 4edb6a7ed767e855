// One notification of the module, as it is kept until it is written, and how it is written.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "tarvo/records.h"

namespace agent {

struct pe_event {
  uint64_t seq = 0;  ///< from 1, without gaps but where events were lost
  std::chrono::system_clock::time_point time;
  uint32_t client = 0;
  uint32_t event = 0;                      ///< TARVO_ND_EVENT_*
  tarvo_nd_nhop_info_t hop{};              ///< ADD and REMOVE only
  std::shared_ptr<const std::string> vrf;  ///< what the client watches; null: every VPN
};

/// One line without its end.
std::string event_text(const pe_event &event);
std::string event_json(const pe_event &event);

/// With its end, in no memory of the heap, which may be what is missing.
using lost_line = std::array<char, 128>;

/// What stands in the place of `count` events, the last of them number `seq`, that were lost.
lost_line lost_text(uint64_t count);
lost_line lost_json(uint64_t count, uint64_t seq);

}  // namespace agent
