// The naive model of a collection: what qx_collection.h says, once more, over standard containers.
// It shares nothing with the library: a map of rows, a search that scores every row and sorts all,
// a filter that is evaluated as the tree that it was drawn as. Scores are computed beforehand, for
// each of the vectors that rows may have (`Row::vector` is its number) and each query.
#pragma once

#include <algorithm>
#include <cmath>
#include <compare>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace qx_test {

// One of both counts, the other is empty.
struct Id {
  std::int64_t number = 0;
  std::string text;
  friend auto operator<=>(const Id&, const Id&) = default;
};

using Value = std::variant<std::monostate, std::int64_t, double, bool, std::string>;
using Record = std::vector<Value>;  // a value for each column
using Floats = std::vector<float>;

struct Row {
  std::size_t vector;
  Record values;
};

enum class Metric : std::int32_t { kInnerProduct, kCosine, kEuclidean };
inline constexpr Metric kMetrics[] = {Metric::kInnerProduct, Metric::kCosine, Metric::kEuclidean};

// What a row or a query is kept as: a vector of norm 1, up to the rounding of its components,
// stays.
inline Floats kept(Metric metric, Floats vector) {
  double square = 0;
  for (const float x : vector) square += double{x} * double{x};
  const bool is_unit = square == 0 || (square >= 1 - 0x1.01p-23 && square <= 1 + 0x1.01p-23);
  if (metric != Metric::kCosine || is_unit) return vector;
  for (float& x : vector) x = static_cast<float>(double{x} / std::sqrt(square));
  return vector;
}

// Of vectors that are kept.
inline float score_of(Metric metric, const Floats& vector, const Floats& query) {
  float sum = 0.0f;
  for (std::size_t i = 0; i < vector.size(); ++i) {
    const float difference = vector[i] - query[i];
    const bool is_distance = metric == Metric::kEuclidean;
    sum = is_distance ? sum + difference * difference : std::fma(vector[i], query[i], sum);
  }
  return sum;
}

struct Hit {
  const Id* id;
  float score;
};

class Model {
 public:
  using Passes = std::function<bool(const Id&, const Row&)>;
  std::map<Id, Row> rows;
  bool is_distance = false;  // what a score is

  void upsert(const std::vector<Id>& ids, const std::vector<Row>& new_rows) {
    for (std::size_t i = 0; i < ids.size(); ++i) rows[ids[i]] = new_rows[i];
  }

  std::int64_t remove(const std::vector<Id>& ids) {
    std::int64_t removed = 0;
    for (const Id& id : ids) removed += static_cast<std::int64_t>(rows.erase(id));
    return removed;
  }

  // `scores` are those of the vectors.
  std::vector<Hit> search(const Floats& scores, std::int64_t k, const Passes& passes) const {
    std::vector<Hit> hits;
    for (const auto& [id, row] : rows) {
      const float score = scores[row.vector];
      const bool counts = is_distance ? score < 1e30f : score > -1e30f;
      if (counts && passes(id, row)) hits.push_back({&id, score});
    }
    std::sort(hits.begin(), hits.end(), [this](const Hit& a, const Hit& b) {
      if (a.score == b.score) return *a.id < *b.id;
      return is_distance ? a.score < b.score : a.score > b.score;
    });
    hits.resize(std::min(hits.size(), static_cast<std::size_t>(k)));
    return hits;
  }

  // The ids of a page; `after` may be null.
  std::vector<Id> list(const Id* after, std::int64_t most, const Passes& passes) const {
    std::vector<Id> page;
    for (const auto& [id, row] : rows) {
      if (std::ssize(page) == most) break;
      if ((after == nullptr || id > *after) && passes(id, row)) page.push_back(id);
    }
    return page;
  }
};

enum class Truth { kFalse, kUnknown, kTrue };
inline Truth operator!(Truth truth) { return Truth{2 - static_cast<int>(truth)}; }
inline Truth truth_of(bool fact) { return fact ? Truth::kTrue : Truth::kFalse; }

// A filter that knows its text. A condition is of one column.
struct Filter {
  enum Kind { kCompare, kBetween, kIn, kIsNull, kColumn, kConstant, kNot, kAnd, kOr };
  Kind kind;
  std::size_t column = 0;
  bool is_negated = false;  // NOT BETWEEN, NOT IN, IS NOT NULL; of a constant: FALSE
  std::string comparison = "=";
  Record literals = {};
  std::vector<Filter> parts = {};

  Truth of(const Record& row) const {
    const auto both = [&](auto choose) { return choose(parts[0].of(row), parts[1].of(row)); };
    if (kind == kAnd) return both([](Truth a, Truth b) { return std::min(a, b); });
    if (kind == kOr) return both([](Truth a, Truth b) { return std::max(a, b); });
    if (kind == kNot) return !parts[0].of(row);
    if (kind == kConstant) return truth_of(!is_negated);
    const Value& value = row[column];
    const bool is_null = value.index() == 0;
    if (kind == kIsNull) return truth_of(is_null != is_negated);
    if (is_null) return Truth::kUnknown;
    if (kind == kColumn) return truth_of(std::get<bool>(value));
    return is_negated ? !truth_of(holds(value)) : truth_of(holds(value));
  }

  std::string text(const std::vector<std::string>& names) const {
    const auto joined = [&](const char* word) {
      return "(" + parts[0].text(names) + word + parts[1].text(names) + ")";
    };
    if (kind == kAnd) return joined(" AND ");
    if (kind == kOr) return joined(" or ");
    if (kind == kNot) return "NOT (" + parts[0].text(names) + ")";
    if (kind == kConstant) return is_negated ? "false" : "TRUE";
    std::string name = quoted(names[column], '"');
    const std::string negation = is_negated ? " NOT" : "";
    if (kind == kColumn) return name;
    if (kind == kIsNull) return name + " IS" + negation + " NULL";
    if (kind == kCompare) return name + comparison + literal(literals[0]);
    if (kind == kBetween) {
      return name + negation + " BETWEEN " + literal(literals[0]) + " AND " + literal(literals[1]);
    }
    std::string list;
    for (const Value& value : literals) list += (list.empty() ? "" : ", ") + literal(value);
    return name + negation + " in (" + list + ")";
  }

 private:
  // Long doubles hold every integer of 64 bits and every double.
  static std::partial_ordering order(const Value& a, const Value& b) {
    if (const auto* text = std::get_if<std::string>(&a)) {
      return text->compare(std::get<std::string>(b)) <=> 0;
    }
    if (const auto* fact = std::get_if<bool>(&a)) return *fact <=> std::get<bool>(b);
    const auto number = [](const Value& value) -> long double {
      const auto* const integer = std::get_if<std::int64_t>(&value);
      if (integer == nullptr) return std::get<double>(value);
      return static_cast<long double>(*integer);
    };
    return number(a) <=> number(b);
  }

  bool holds(const Value& value) const {
    const auto is = [&](const Value& other) { return order(value, other) == 0; };
    if (kind == kIn) return std::any_of(literals.begin(), literals.end(), is);
    const std::partial_ordering first = order(value, literals[0]);
    if (kind == kBetween) return first >= 0 && order(value, literals[1]) <= 0;
    if (comparison == "=") return first == 0;
    if (comparison == "<>") return first != 0;
    if (comparison == "<") return first < 0;
    if (comparison == "<=") return first <= 0;
    return comparison == ">" ? first > 0 : first >= 0;
  }

  static std::string quoted(const std::string& bytes, char mark) {
    std::string text(1, mark);
    for (const char byte : bytes)
      text += byte == mark ? std::string(2, mark) : std::string(1, byte);
    return text + mark;
  }

  static std::string literal(const Value& value) {
    if (const auto* integer = std::get_if<std::int64_t>(&value)) return std::to_string(*integer);
    if (const auto* fact = std::get_if<bool>(&value)) return *fact ? "TRUE" : "False";
    if (const auto* text = std::get_if<std::string>(&value)) return quoted(*text, '\'');
    char digits[40];
    std::snprintf(digits, sizeof digits, "%.17e", std::get<double>(value));
    return digits;
  }
};

}  // namespace qx_test
