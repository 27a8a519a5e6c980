// An id, of either kind.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string_view>

namespace qx::collection {

// A number, with an empty text; or a text, with number 0. So one comparison orders both kinds:
// numbers by size, texts by their bytes.
struct Key {
  std::int64_t number = 0;
  std::string_view text;
  friend bool operator==(const Key&, const Key&) = default;
  friend auto operator<=>(const Key&, const Key&) = default;
};

// For a quick test that two ids differ.
inline std::uint64_t hash_of(const Key& key) {
  return static_cast<std::uint64_t>(key.number) ^ std::hash<std::string_view>()(key.text);
}

}  // namespace qx::collection
