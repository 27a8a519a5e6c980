#include "columns/condition.h"

#include <algorithm>
#include <bit>
#include <compare>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qx::collection {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;

// Up to so many ranges are tested one after the other, each on 64 rows; more are searched.
constexpr std::size_t kFewRanges = 8;

// A key of a column, and how a literal compares with its value.
struct Place {
  std::int64_t key;
  std::strong_ordering literal;
};

// -0.0 and 0.0 are one number with two keys, this being the latter's.
std::int64_t key_of_number(double number) {
  const std::int64_t key = key_of(number);
  return key == -1 ? 0 : key;
}

Place place_among_integers(double literal) {
  if (literal >= kTwoTo63) return {INT64_MAX, std::strong_ordering::greater};
  if (literal < -kTwoTo63) return {INT64_MIN, std::strong_ordering::less};
  const auto integer = static_cast<std::int64_t>(literal);
  return {integer, key_of_number(literal) <=> key_of(static_cast<double>(integer))};
}

// Whatever the rounding mode, no double lies between an integer and what it converts to.
Place place_among_reals(std::int64_t literal) {
  const auto real = static_cast<double>(literal);
  if (real == kTwoTo63) return {key_of(real), std::strong_ordering::less};
  return {key_of(real), literal <=> static_cast<std::int64_t>(real)};
}

Place place_of(ColumnType type, const Literal& literal) {
  const auto* integer = std::get_if<std::int64_t>(&literal);
  const auto* real = std::get_if<double>(&literal);
  const auto equal = std::strong_ordering::equal;
  if (type == ColumnType::kReal) {
    return real != nullptr ? Place{key_of_number(*real), equal} : place_among_reals(*integer);
  }
  if (real != nullptr) return place_among_integers(*real);
  return {integer != nullptr ? *integer : std::get<bool>(literal), equal};
}

// An end of a range of keys: before or after a key.
struct Cut {
  std::int64_t key;
  bool after;
};

Cut cut_of(ColumnType type, RangeEnd end) {
  const auto [key, literal] = place_of(type, end.literal);
  const bool after = literal > 0 || (literal == 0 && end.side == Side::kAfter);
  return {type == ColumnType::kReal && key == 0 && !after ? -1 : key, after};
}

std::string cut_of(RangeEnd end) {
  auto text = std::get<std::string>(end.literal);
  if (end.side == Side::kAfter) text.push_back('\0');
  return text;
}

// Joins it to the last range if no key is between. Requires: it does not begin before that one.
void append(KeyRanges& ranges, KeyRange next) {
  std::int64_t* last = ranges.empty() ? nullptr : &ranges.back().last;
  if (last != nullptr && (next.first <= *last || next.first == *last + 1)) {
    *last = std::max(*last, next.last);
  } else {
    ranges.push_back(next);
  }
}

// The last range that begins at or before the key decides.
bool contains(const KeyRanges& ranges, std::int64_t key) {
  if (ranges.empty()) return false;
  const KeyRange* range = ranges.data();
  for (std::size_t left = ranges.size(); left > 1; left -= left / 2) {
    range += left / 2 * (range[left / 2].first <= key);  // Not a branch: it could not be predicted.
  }
  return range->first <= key && key <= range->last;
}

bool contains(const std::vector<TextRange>& ranges, std::string_view text) {
  const auto next = std::ranges::upper_bound(ranges, text, {}, &TextRange::from);
  if (next == ranges.begin()) return false;
  const std::optional<std::string>& to = std::prev(next)->to;
  return !to || text < *to;
}

// The bits of 64 keys that are in a range. From the last key on, each comparison leaves its bit in
// the carry, which an addition takes up.
template <typename Key>
std::uint64_t mask_in(const Key* keys, KeyRange range) {
  const auto first = static_cast<std::uint64_t>(range.first);
  const std::uint64_t width = static_cast<std::uint64_t>(range.last) - first;
  std::uint64_t outside = 0;
  for (int i = 63; i >= 0; --i) {
    outside += outside + (width < static_cast<std::uint64_t>(keys[i]) - first);
  }
  return ~outside;
}

template <typename Key>
using MaskIn = std::uint64_t (*)(const Key* keys, KeyRange range);

#if defined(__x86_64__)
// Four keys at a time.
__attribute__((target("avx2"))) std::uint64_t mask_in_avx2(const std::int64_t* keys,
                                                           KeyRange range) {
  const __m256i first = _mm256_set1_epi64x(range.first), last = _mm256_set1_epi64x(range.last);
  std::uint64_t outside = 0;
  for (int i = 0; i < 64; i += 4) {
    const __m256i four = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(keys + i));
    const __m256i out =
        _mm256_or_si256(_mm256_cmpgt_epi64(first, four), _mm256_cmpgt_epi64(four, last));
    outside |= static_cast<std::uint64_t>(_mm256_movemask_pd(_mm256_castsi256_pd(out))) << i;
  }
  return ~outside;
}

MaskIn<std::int64_t> best_mask_in() {
  constexpr MaskIn<std::int64_t> kBySupport[] = {mask_in<std::int64_t>, mask_in_avx2};
  return kBySupport[__builtin_cpu_supports("avx2") != 0];
}
#else
MaskIn<std::int64_t> best_mask_in() { return mask_in<std::int64_t>; }
#endif

// The bits of `rows` of which the test is true.
template <typename Test>
std::uint64_t mask_of_each(std::uint64_t rows, Test test) {
  std::uint64_t mask = 0;
  for (; rows != 0; rows &= rows - 1) {
    const int i = std::countr_zero(rows);
    mask |= std::uint64_t{test(i)} << i;
  }
  return mask;
}

template <typename Key>
void keep_in(const Key* keys, const KeyRanges& ranges, std::uint64_t flip,
             std::span<std::uint64_t> bits, MaskIn<Key> in) {
  for (std::size_t w = 0; w < bits.size(); ++w, keys += 64) {
    if (bits[w] == 0) continue;
    std::uint64_t mask = 0;
    if (ranges.size() <= kFewRanges) {
      for (const KeyRange& range : ranges) mask |= in(keys, range);
    } else {
      mask = mask_of_each(bits[w], [&](int i) { return contains(ranges, keys[i]); });
    }
    bits[w] &= mask ^ flip;
  }
}

}  // namespace

void Condition::add(ColumnType type, RangeEnd low, RangeEnd high) {
  if (type == ColumnType::kText) {
    TextRange range;
    if (low.side != Side::kOpen) range.from = cut_of(low);
    if (high.side != Side::kOpen) range.to = cut_of(high);
    if (!range.to || range.from < *range.to) texts_.push_back(std::move(range));
    return;
  }
  const double infinity = std::numeric_limits<double>::infinity();
  const bool real = type == ColumnType::kReal;
  Cut from{real ? key_of(-infinity) : INT64_MIN, false};
  Cut to{real ? key_of(infinity) : INT64_MAX, true};
  if (low.side != Side::kOpen) from = cut_of(type, low);
  if (high.side != Side::kOpen) to = cut_of(type, high);
  if ((from.after && from.key == INT64_MAX) || (!to.after && to.key == INT64_MIN)) return;
  const KeyRange range{from.key + (from.after ? 1 : 0), to.key - (to.after ? 0 : 1)};
  if (range.first <= range.last) keys_.push_back(range);
}

void Condition::sort() {
  std::ranges::sort(keys_, {}, &KeyRange::first);
  KeyRanges joined;
  for (const KeyRange& range : keys_) append(joined, range);
  keys_ = std::move(joined);
  std::ranges::sort(texts_, {}, &TextRange::from);
  const auto same = [](const TextRange& a, const TextRange& b) { return a.from == b.from; };
  texts_.erase(std::unique(texts_.begin(), texts_.end(), same), texts_.end());
}

bool Condition::is_true_of(const Value& value) const {
  const bool null = std::holds_alternative<std::monostate>(value);
  if (null || test_ == Test::kNull) return null && test_ == Test::kNull;
  const auto* text = std::get_if<std::string_view>(&value);
  const bool in = text != nullptr ? contains(texts_, *text) : contains(keys_, key_of(value));
  return in == (test_ == Test::kIn);
}

void Condition::keep(const Column& column, std::int64_t first,
                     std::span<std::uint64_t> bits) const {
  const auto word = static_cast<std::size_t>(first / 64), row = word * 64;
  const std::uint64_t all = column.is_all_null() ? 0 : ~std::uint64_t{0};
  const std::uint64_t* known = column.known().empty() ? nullptr : column.known().data() + word;
  for (std::size_t w = 0; w < bits.size(); ++w) {
    const std::uint64_t rows = known != nullptr ? known[w] : all;
    bits[w] &= test_ == Test::kNull ? ~rows : rows;
  }
  if (test_ == Test::kNull || column.is_all_null()) return;
  if (column.type() == ColumnType::kText) return keep_texts(column, first, bits);
  if (column.type() != ColumnType::kBoolean) {
    return keep_in(column.keys().data() + row, keys_, flip(), bits, best_mask_in());
  }
  const std::uint64_t if_true = contains(keys_, 1) ? all : 0,
                      if_false = contains(keys_, 0) ? all : 0;
  for (std::size_t w = 0; w < bits.size(); ++w) {
    const std::uint64_t rows = column.booleans()[word + w];
    bits[w] &= ((rows & if_true) | (~rows & if_false)) ^ flip();
  }
}

// Looks up whatever there is least of: rows, distinct texts of the column, or texts of the list.
void Condition::keep_texts(const Column& column, std::int64_t first,
                           std::span<std::uint64_t> bits) const {
  std::size_t rows = 0;
  for (const std::uint64_t word : bits) rows += static_cast<std::size_t>(std::popcount(word));
  const std::uint32_t* codes = column.codes().data() + first;
  if (rows >= texts_.size() || rows >= static_cast<std::size_t>(column.texts())) {
    return keep_in(codes, codes_of(column), flip(), bits, mask_in<std::uint32_t>);
  }
  for (std::uint64_t& word : bits) {
    word &=
        flip() ^ mask_of_each(word, [&](int i) { return contains(texts_, column.text(codes[i])); });
    codes += 64;
  }
}

KeyRanges Condition::codes_of(const Column& column) const {
  KeyRanges codes;
  if (texts_.size() > static_cast<std::size_t>(column.texts())) {
    for (std::int64_t code = 0; code < column.texts(); ++code) {
      if (contains(texts_, column.text(code))) append(codes, {code, code});
    }
    return codes;
  }
  for (const TextRange& range : texts_) {
    const std::int64_t begin = column.first_code_from(range.from);
    const std::int64_t end = range.to ? column.first_code_from(*range.to) : column.texts();
    if (begin < end) append(codes, {begin, end - 1});
  }
  return codes;
}

}  // namespace qx::collection
