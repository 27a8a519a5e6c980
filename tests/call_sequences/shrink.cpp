// Delta debugging: removes whole calls, then components, rows, ids and lists. Each pass keeps what
// still fails; passes repeat until none finds anything.
#include <algorithm>
#include <chrono>
#include <string>

#include "call_sequences/call_sequence.h"

namespace qx_test {
namespace {

std::string digest_of(const CallSequence& sequence) {
  Digest digest;
  add_to(digest, sequence);
  return digest.text();
}

using Clock = std::chrono::steady_clock;

class Shrinker {
 public:
  Shrinker(const CallSequence& sequence, const std::function<bool(const CallSequence&)>& fails,
           int seconds)
      : best_(repair(sequence)), fails_(fails), end_(Clock::now() + std::chrono::seconds(seconds)) {
    if (!fails_(best_)) best_ = sequence;
  }

  CallSequence run() {
    do {
      improved_ = false;
      drop_calls();
      drop_components();
      for (std::size_t call = 0; call < best_.size(); ++call) drop_elements(call);
    } while (improved_ && Clock::now() < end_);
    return best_;
  }

 private:
  // Keeps a call sequence if it still fails.
  bool keep_if_failing(const CallSequence& candidate) {
    if (Clock::now() >= end_) return false;
    CallSequence valid = repair(candidate);
    if (digest_of(valid) == digest_of(best_) || !fails_(valid)) return false;
    best_ = std::move(valid);
    improved_ = true;
    return true;
  }

  // Removes spans of `size()` elements, halving their length down to one. `without(first, count)`
  // returns the call sequence without these elements.
  template <typename Size, typename Without>
  void drop_spans(Size size, Without without) {
    for (std::size_t span = std::max<std::size_t>(size(), 1); span > 0; span /= 2) {
      for (std::size_t first = 0; first < size();) {
        const std::size_t count = std::min(span, size() - first);
        const std::size_t before = size();
        if (!keep_if_failing(without(first, count)) || size() >= before) first += count;
      }
    }
  }

  void drop_calls() {
    drop_spans([&] { return best_.size(); },
               [&](std::size_t first, std::size_t count) {
                 CallSequence sequence = best_;
                 const auto at = sequence.begin() + static_cast<std::ptrdiff_t>(first);
                 sequence.erase(at, at + static_cast<std::ptrdiff_t>(count));
                 return sequence;
               });
  }

  // Removes component `j` of every vector in all calls.
  void drop_components() {
    for (std::int64_t j = 0; j < widest();) {
      const std::int64_t before = widest();
      if (!keep_if_failing(without_component(j)) || widest() >= before) ++j;
    }
  }

  std::int64_t widest() const {
    std::int64_t most = 0;
    for (const Call& call : best_) most = std::max(most, width_of(call));
    return most;
  }

  static std::int64_t width_of(const Call& call) {
    const std::int64_t rows = rows_of(call);
    return rows == 0 ? 0 : std::ssize(call.floats) / rows;
  }

  static std::int64_t rows_of(const Call& call) {
    if (call.function == Function::kBuild || call.function == Function::kInsert) {
      return std::ssize(call.ids);
    }
    if (call.function == Function::kSetIvf) return std::max<std::int64_t>(call.numbers[1], 0);
    return call.floats.empty() ? 0 : 1;
  }

  CallSequence without_component(std::int64_t j) const {
    CallSequence sequence = best_;
    for (Call& call : sequence) {
      const std::int64_t width = width_of(call);
      Floats narrower;
      for (std::int64_t i = 0; i < std::ssize(call.floats); ++i) {
        if (width == 0 || i % width != j) narrower.push_back(call.floats[std::size_t(i)]);
      }
      if (width > 0) call.floats = narrower;
      if (call.function == Function::kNew && static_cast<std::int32_t>(call.numbers[0]) > j) {
        --call.numbers[0];
      }
      if (call.function == Function::kBuild && call.numbers[kBuildDim] > j) {
        --call.numbers[kBuildDim];
      }
    }
    return sequence;
  }

  // Removes rows, ids, lists and partitions of one call, and the elements that belong to them.
  void drop_elements(std::size_t at) {
    const auto drop_of = [&](auto size, void (*drop)(Call&, std::size_t, std::size_t)) {
      drop_spans([&] { return at < best_.size() ? size(best_[at]) : 0; },
                 [&](std::size_t first, std::size_t count) {
                   CallSequence sequence = best_;
                   drop(sequence[at], first, count);
                   return sequence;
                 });
    };
    drop_of([](const Call& call) { return call.ids.size(); }, &drop_ids);
    const auto partitions = [](const Call& call) {
      return call.function == Function::kBuild ? call.more_ids.size() : 0;
    };
    drop_of(partitions, &drop_partitions);
    const auto lists = [](const Call& call) {
      const bool some = call.function == Function::kSetIvf && !call.ints.empty();
      return some ? call.ints.size() - 1 : 0;
    };
    drop_of(lists, &drop_lists);
  }

  template <typename T>
  static void erase_rows(std::vector<T>& values, std::size_t first, std::size_t count,
                         std::size_t width) {
    const std::size_t from = std::min(values.size(), first * width);
    const std::size_t to = std::min(values.size(), (first + count) * width);
    values.erase(values.begin() + static_cast<std::ptrdiff_t>(from),
                 values.begin() + static_cast<std::ptrdiff_t>(to));
  }

  static void drop_ids(Call& call, std::size_t first, std::size_t count) {
    const std::size_t rows = call.ids.size();
    if (call.function == Function::kBuild || call.function == Function::kInsert) {
      erase_rows(call.floats, first, count, call.floats.size() / rows);
    } else if (call.function == Function::kSetRowmeta) {
      erase_rows(call.values, first, count, call.values.size() / rows);
      erase_rows(call.more_ids, first, count, 1);
    } else if (call.function == Function::kSetIvf) {
      for (std::int32_t& offset : call.ints) {
        const std::int64_t after = std::int64_t{offset} - static_cast<std::int64_t>(first);
        if (offset > static_cast<std::int64_t>(rows) || after <= 0) continue;
        offset -= static_cast<std::int32_t>(std::min(after, static_cast<std::int64_t>(count)));
      }
    }
    erase_rows(call.ids, first, count, 1);
  }

  static void drop_partitions(Call& call, std::size_t first, std::size_t count) {
    erase_rows(call.more_ids, first, count, 1);
    erase_rows(call.ints, first, count, 1);
    erase_rows(call.more_ints, first, count, 1);
  }

  static void drop_lists(Call& call, std::size_t first, std::size_t count) {
    const auto nlist = static_cast<std::size_t>(std::max<std::int64_t>(call.numbers[1], 1));
    erase_rows(call.floats, first, count, call.floats.size() / nlist);
    erase_rows(call.ints, first, count, 1);
    call.numbers[1] -= static_cast<std::int64_t>(count);
  }

  CallSequence best_;
  const std::function<bool(const CallSequence&)>& fails_;
  Clock::time_point end_;
  bool improved_ = false;
};

}  // namespace

CallSequence shrink(const CallSequence& sequence,
                    const std::function<bool(const CallSequence&)>& fails, int seconds) {
  return Shrinker(sequence, fails, seconds).run();
}

}  // namespace qx_test
