// How values are written for people and programs: addresses, prefixes, route targets, times.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/route.h"

namespace agent {

/// An address in network byte order.
std::string address_text(uint32_t address);

/// A prefix with its address in network byte order.
std::string prefix_text(uint32_t address, unsigned length);

/// `65000:1`, `10.255.1.1:7` or `4200000002:9`: what the command grammar reads.
std::string target_text(route_target target);

std::vector<std::string> target_texts(std::span<const route_target> targets);

/// A route distinguisher, in the three forms of a route target.
std::string distinguisher_text(uint64_t rd);

/// A number with its thousands apart: `12,345`.
std::string grouped(uint64_t number);

/// UTC with milliseconds: `2026-11-24T19:30:00.123Z`.
std::string utc_text(std::chrono::system_clock::time_point time);

/// A result code: `0x40828600`.
std::string code_text(uint32_t code);

/// The text without control characters and bytes that are no UTF-8 (each byte becomes '?'), so that
/// nothing a router or a file says can drive the terminal.
std::string printable(std::string_view text);

/// Where an error is: `FILE:LINE:COLUMN: `, or `SOURCE: column COLUMN: ` where there are no lines
/// (line 0). Column 0: it has none.
std::string place_text(std::string_view source, size_t line, size_t column);

}  // namespace agent
