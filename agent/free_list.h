// Items in a vector whose places are used again, with a list of the free ones.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent {

/// Makes room for one item more, and for every place to be listed as free: after it neither an
/// addition nor a release allocates. It may throw std::bad_alloc; then nothing has changed.
template <typename T>
void make_room(std::vector<T> &items, std::vector<uint32_t> &free_places) {
  constexpr size_t kFirst = 16;
  if (items.size() == items.capacity()) items.reserve(std::max(kFirst, 2 * items.size()));
  free_places.reserve(items.capacity());
}

}  // namespace agent
