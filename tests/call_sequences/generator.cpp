// The order of the calls, and how single arguments are drawn.
#include "call_sequences/generator.h"

#include <algorithm>
#include <utility>

#include "qx_runtime.h"

namespace qx_test {
namespace {

// With any other kind of values almost every long base would contain infinities or NaNs, and none
// of its rows would be estimated.
Values draw_values(Random& random, bool is_long) {
  static const std::vector<Values> finite = {Values::kTies, Values::kSmooth, Values::kCancelling};
  return is_long && random.percent(90) ? random.any_of(finite)
                                       : static_cast<Values>(random.between(0, 5));
}

}  // namespace

CallSequence draw_call_sequence(Random random, Rebuilds rebuilds) {
  return Generator(std::move(random), rebuilds).draw();
}

Generator::Generator(Random random, Rebuilds rebuilds)
    : random_(std::move(random)),
      rebuilds_(rebuilds),
      long_(random_.percent(7)),
      values_(draw_values(random_, long_)),
      sparse_(random_.percent(1)),
      id_span_(!long_ && random_.percent(70) ? random_.between(1, 60) : random_.between(61, 4096)) {
  add({Function::kNew, {draw_new_dim(), static_cast<std::uint32_t>(random_.bits())}});
}

CallSequence Generator::draw() {
  struct Choice {
    int weight;
    void (Generator::*call)();
  };
  static const std::vector<Choice> choices = {
      {1, &Generator::renew},          {3, &Generator::accessors},
      {1, &Generator::tuner},          {5, &Generator::build},
      {2, &Generator::rejected_build}, {2, &Generator::export_base},
      {6, &Generator::search_full},    {5, &Generator::search_partition},
      {6, &Generator::scatter_topk},   {10, &Generator::insert},
      {8, &Generator::erase},          {4, &Generator::set_ivf},
      {1, &Generator::has_ivf},        {1, &Generator::clear_ivf},
      {2, &Generator::set_ivf_nprobe}, {8, &Generator::search_ivf},
      {8, &Generator::search_mvcc},    {6, &Generator::set_rowmeta},
      {3, &Generator::export_rowmeta}, {9, &Generator::search_filtered},
      {5, &Generator::match_ids},      {4, &Generator::visible},
      {4, &Generator::export_visible}};
  static const std::vector<Choice> by_weight = [] {
    std::vector<Choice> repeated;
    for (const Choice& choice : choices) {
      repeated.insert(repeated.end(), static_cast<std::size_t>(choice.weight), choice);
    }
    return repeated;
  }();
  const auto steps = random_.between(5, 60);
  for (std::int64_t step = 0; step < steps && !ended_ && !random_.exhausted(); ++step) {
    const auto call = long_ && step == 0 ? &Generator::build : random_.any_of(by_weight).call;
    (this->*call)();
  }
  add(Function::kFree);
  return std::move(sequence_);
}

void Generator::add(Call call) {
  // A quarter of the arrays begin at the start of their pages. Outputs often have exactly the
  // granted elements, so that a write past them faults; sometimes more, so that it is seen as a
  // change.
  constexpr std::int32_t kEveryArray = 0x1FF;
  call.starts = static_cast<std::uint32_t>(random_.between32(0, kEveryArray) &
                                           random_.between32(0, kEveryArray));
  call.spare = random_.percent(60) ? 0 : random_.between(1, 5);
  if (traits(call.function).changes) ended_ = expected_answer(model_, call).end.has_value();
  sequence_.push_back(std::move(call));
}

std::uint32_t Generator::draw_new_dim() {
  if (random_.percent(3)) return random_.percent(50) ? 0xFFFFFFFFu : 0x80000000u;
  return static_cast<std::uint32_t>(draw_build_dim());
}

std::int32_t Generator::draw_build_dim() {
  if (random_.percent(5)) return 0;
  if (long_) return random_.between32(8, 40);
  if (random_.percent(10)) return random_.between32(64, 300);
  return random_.percent(75) ? random_.between32(1, 20) : random_.between32(21, 70);
}

Ids Generator::draw_base_ids(std::int64_t n) {
  Ids ids;
  const std::int64_t span = sparse_ ? (1 << 22) : id_span_;
  const bool permuted = random_.percent(50);
  Random& random = random_.for_array(n);
  for (std::int64_t i = 0; i < n; ++i) ids.push_back(permuted ? i : random.between(0, span));
  if (permuted && random.percent(60)) random.shuffle(ids);
  return ids;
}

std::int64_t Generator::draw_id() {
  static const Ids extremes = {INT64_MIN,          INT64_MIN + 1, -2, -1, INT64_MAX, INT64_MAX - 1,
                               QX_MAX_BASE_ID + 1, QX_MAX_BASE_ID};
  if (random_.percent(5)) return random_.any_of(extremes);
  if (random_.percent(5)) return static_cast<std::int64_t>(random_.bits());
  if (random_.percent(5)) return -random_.between(0, id_span_);
  if (!model_.base_ids.empty() && random_.percent(50)) return random_.any_of(model_.base_ids);
  if (!model_.delta_ids.empty() && random_.percent(30)) return random_.any_of(model_.delta_ids);
  return random_.between(0, id_span_);
}

Ids Generator::draw_ids(std::int64_t count) {
  Ids ids;
  for (std::int64_t i = 0; i < count; ++i) ids.push_back(draw_id());
  return ids;
}

std::int32_t Generator::draw_count() {
  if (random_.percent(6)) return random_.percent(50) ? 0 : random_.between32(-3, -1);
  if (random_.percent(1)) return INT32_MIN;
  return random_.percent(85) ? random_.between32(1, 12) : random_.between32(13, 150);
}

std::int32_t Generator::draw_candidate_count() {
  return long_ && random_.percent(50) ? random_.between32(300, 1200) : draw_count();
}

Floats Generator::draw_array(std::int64_t count) {
  return draw_floats(random_.for_array(count), values_, count);
}

// Equal factors, so that the products of opposite components cancel.
Floats Generator::draw_query() {
  if (values_ != Values::kCancelling) return draw_array(model_.width());
  return Floats(static_cast<std::size_t>(model_.width()), random_.percent(50) ? 1.0f : -1.5f);
}

std::int32_t Generator::draw_small_k(std::int64_t near) {
  static const std::vector<std::int32_t> edges = {INT32_MIN, -1, 0, 1, 1, 2, 63, 64, 65, 128, 1500};
  if (random_.percent(15)) return random_.any_of(edges);
  if (random_.percent(20)) return static_cast<std::int32_t>(near) + random_.between32(-1, 2);
  return random_.between32(1, 20);
}

std::int32_t Generator::draw_k(std::int64_t near) {
  return random_.percent(5) ? INT32_MAX : draw_small_k(near);
}

void Generator::draw_predicate(Call& call) {
  constexpr std::uint32_t kLabel = QX_FILTER_LABEL;
  constexpr std::uint32_t kColumn = QX_FILTER_COLUMN;
  static const std::vector<std::uint32_t> modes = {
      QX_FILTER_ALL, kLabel, kLabel, kColumn, kColumn, kColumn, 7, 0x80000000u, 0xFFFFFFFFu};
  const auto ncols = static_cast<std::int32_t>(model_.columns.size());
  const bool outside = random_.percent(8);
  call.numbers[0] = random_.any_of(modes);
  call.numbers[1] = outside || ncols == 0
                        ? random_.any_of(Ints{INT32_MIN, -1, ncols, ncols + 1, INT32_MAX})
                        : random_.between32(0, ncols - 1);
  call.numbers[2] = random_.between(-1, 2);
}

Ints Generator::draw_offsets(std::int32_t nlist, std::int64_t n_ids) {
  Ints offsets;
  if (nlist < 0) return offsets;
  for (std::int32_t i = 0; i < nlist; ++i) {
    offsets.push_back(static_cast<std::int32_t>(random_.between(0, n_ids)));
  }
  std::sort(offsets.begin(), offsets.end());
  offsets.push_back(static_cast<std::int32_t>(n_ids));
  if (random_.percent(5)) {
    const auto spoiled = static_cast<std::size_t>(random_.between(0, nlist));
    offsets[spoiled] =
        random_.any_of(Ints{INT32_MIN, -1, 0, static_cast<std::int32_t>(n_ids) + 1, INT32_MAX});
  }
  return offsets;
}

}  // namespace qx_test
