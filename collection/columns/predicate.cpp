#include "columns/predicate.h"

#include <algorithm>
#include <vector>

#include "columns/filter_tree.h"

namespace qx::collection {
namespace {

using Kind = FilterNode::Kind;

// Clears the bits of rows of which the node is not true.
void keep(const FilterNode& node, std::span<const Column> columns, std::int64_t first,
          std::span<std::uint64_t> bits) {
  if (node.kind == Kind::kCondition) {
    const auto column = static_cast<std::size_t>(node.condition.column());
    return node.condition.keep(columns[column], first, bits);
  }
  if (node.kind == Kind::kAll) {
    for (const FilterNode& child : node.children) keep(child, columns, first, bits);
    return;
  }
  std::vector<std::uint64_t> rest(bits.begin(), bits.end()), kept;
  for (const FilterNode& child : node.children) {
    kept = rest;
    keep(child, columns, first, kept);
    for (std::size_t w = 0; w < rest.size(); ++w) rest[w] &= ~kept[w];
  }
  for (std::size_t w = 0; w < rest.size(); ++w) bits[w] &= ~rest[w];
}

bool is_true(const FilterNode& node, std::span<const Value> values) {
  if (node.kind == Kind::kCondition) {
    return node.condition.is_true_of(values[static_cast<std::size_t>(node.condition.column())]);
  }
  const auto child_is_true = [&](const FilterNode& child) { return is_true(child, values); };
  return node.kind == Kind::kAll ? std::ranges::all_of(node.children, child_is_true)
                                 : std::ranges::any_of(node.children, child_is_true);
}

}  // namespace

Predicate::Predicate(std::unique_ptr<const FilterNode> root) : root_(std::move(root)) {}
Predicate::Predicate(Predicate&&) noexcept = default;
Predicate& Predicate::operator=(Predicate&&) noexcept = default;
Predicate::~Predicate() = default;

Predicate Predicate::parse(std::string_view text, const Schema& schema) {
  return Predicate(std::make_unique<const FilterNode>(parse_filter(text, schema)));
}

void Predicate::evaluate(std::span<const Column> columns, std::int64_t first, std::int64_t count,
                         std::uint64_t* passing) const {
  const std::span words(passing, static_cast<std::size_t>((count + 63) / 64));
  std::ranges::fill(words, ~std::uint64_t{0});
  if (count % 64 != 0) words.back() >>= 64 - count % 64;
  keep(*root_, columns, first, words);
}

bool Predicate::is_true_of(std::span<const Value> values) const { return is_true(*root_, values); }

}  // namespace qx::collection
