// What a filter's text says, as a tree. NOT stands at the conditions alone: of De Morgan's laws,
// which hold in the logic of three values too, parsing makes use. So it suffices to know of each
// node the rows of which it is true.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "columns/condition.h"

namespace qx::collection {

struct FilterNode {
  // kAll: every child is true; without children it is TRUE. kAny: some child is; else FALSE.
  enum class Kind : std::uint8_t { kCondition, kAll, kAny };
  Kind kind;
  std::vector<FilterNode> children;
  Condition condition;
};

// Refuses a text that is no filter over the schema.
FilterNode parse_filter(std::string_view text, const Schema& schema);

}  // namespace qx::collection
