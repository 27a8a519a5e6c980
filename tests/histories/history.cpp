// The frame of a history: choosing calls, and comparing what the two sides did.
#include "histories/history.h"

#include <cstdio>
#include <utility>

#include "kernels/kernels.h"
#include "support/child.h"

namespace qx_test {
namespace {

// What an output element holds before a call: neither a sentinel nor a value that tests draw.
constexpr std::int64_t kUntouchedId = 0x5A5A5A5A5A5A5A5A;
constexpr float kUntouchedFloat = 12345.678f;

// Infinities and the like, of which a long base would have some for sure, leave nothing to
// estimate.
Values draw_values(Random& random, bool is_long) {
  static const std::vector<Values> finite = {Values::kTies, Values::kSmooth, Values::kGiants};
  return is_long && random.percent(90) ? random.any_of(finite)
                                       : static_cast<Values>(random.between(0, 5));
}

}  // namespace

History::History(Random random, CallCounts& calls, bool trace)
    : random_(std::move(random)),
      calls_(calls),
      trace_(trace),
      long_(random_.percent(7)),
      values_(draw_values(random_, long_)),
      sparse_(random_.percent(1)),
      id_span_(!long_ && random_.percent(70) ? random_.between(1, 60) : random_.between(61, 4096)),
      model_(draw_new_dim(), static_cast<std::uint32_t>(random_.bits())) {
  begin("qx_index_new", "dim " + std::to_string(model_.dim));
  index_ = qx_index_new(static_cast<std::uint32_t>(model_.dim), model_.user_tag);
}

History::~History() {
  begin("qx_index_free", "");
  qx_index_free(index_);
}

std::string History::play() {
  struct Choice {
    int weight;
    void (History::*call)();
  };
  static const std::vector<Choice> choices = {
      {1, &History::renew},          {3, &History::accessors},
      {1, &History::tuner},          {5, &History::build},
      {2, &History::rejected_build}, {2, &History::export_base},
      {6, &History::search_full},    {5, &History::search_partition},
      {6, &History::scatter_topk},   {10, &History::insert},
      {8, &History::erase},          {4, &History::set_ivf},
      {1, &History::has_ivf},        {1, &History::clear_ivf},
      {2, &History::set_ivf_nprobe}, {8, &History::search_ivf},
      {8, &History::search_mvcc},    {6, &History::set_rowmeta},
      {3, &History::export_rowmeta}, {9, &History::search_filtered},
      {5, &History::match_ids},      {4, &History::visible},
      {4, &History::export_visible}};
  static const std::vector<Choice> by_weight = [] {
    std::vector<Choice> repeated;
    for (const Choice& choice : choices) {
      repeated.insert(repeated.end(), static_cast<std::size_t>(choice.weight), choice);
    }
    return repeated;
  }();
  const auto steps = random_.between(5, 60);
  for (step_ = 0; step_ < steps && !ended_ && !random_.exhausted(); ++step_) {
    const auto call = long_ && step_ == 0 ? &History::build : random_.any_of(by_weight).call;
    (this->*call)();
    check_inputs();
    if (!disagreement_.empty()) break;
  }
  return disagreement_;
}

void History::begin(const char* function, const std::string& arguments) {
  ++calls_[function];
  last_call_ = std::string(function) + "(" + arguments + ")";
  if (trace_) std::printf("%4d  %s\n", step_, last_call_.c_str());
}

void History::check(bool agrees, const char* what) {
  if (agrees || !disagreement_.empty()) return;
  disagreement_ = "step " + std::to_string(step_) + ", " + last_call_ + ", kernel " +
                  qx::kernels().name + ": " + what;
}

void History::under_every_kernel(const std::function<void()>& body) {
  for (const qx::Kernels* const* kernels = qx::all_kernels(); *kernels != nullptr; ++kernels) {
    if (!qx::force_kernels((*kernels)->name)) continue;
    body();
  }
  qx::force_kernels(nullptr);
}

void History::compare_search(std::int64_t granted_ids, std::int64_t granted_floats,
                             const ModelSearch& expect, const EngineSearch& call) {
  // Often exactly the granted elements, so that one more would fault; sometimes more, so that a
  // write behind them is seen as a change.
  const std::int64_t spare = random_.percent(60) ? 0 : random_.between(1, 5);
  const Ids ids(static_cast<std::size_t>(granted_ids + spare), kUntouchedId);
  const Floats floats(static_cast<std::size_t>(granted_floats + spare), kUntouchedFloat);
  const Edge ids_edge = draw_edge();
  const Edge floats_edge = draw_edge();
  const auto run = [&] {
    out_ids_.assign(ids, ids_edge);
    out_floats_.assign(floats, floats_edge);
    return call(out_ids_.data(), out_floats_.data());
  };
  Ids expected_ids = ids;
  Floats expected_floats = floats;
  std::int64_t expected = 0;
  try {
    expected = expect(expected_ids, expected_floats);
  } catch (const OutOfBounds& end) {
    under_every_kernel([&] { expect_end(end, run); });
    return;
  }
  under_every_kernel([&] {
    check(run() == expected, "another result");
    check(out_ids_.equals(expected_ids), "other ids");
    check(out_floats_.equals(expected_floats), "other floats");
    check(out_ids_.margins_intact() && out_floats_.margins_intact(), "written outside the outputs");
  });
}

void History::expect_end(const OutOfBounds& end, const std::function<void()>& call) {
  const ChildEnd child = run_in_child(call);
  check(child.trapped, "the process goes on, where its end was due");
  check(is_bounds_line(child.standard_error, end.index, end.length), "another last line");
}

template <typename T>
const T* History::place(Inputs<T>& inputs, const std::vector<T>& values) {
  Guarded<T>& slot = inputs.placed[inputs.used];
  slot.assign(values, draw_edge());
  inputs.values[inputs.used++] = values;
  return slot.data();
}

const float* History::input(const Floats& values) { return place(floats_, values); }
const std::int64_t* History::input(const Ids& values) { return place(longs_, values); }
const std::int32_t* History::input(const std::vector<std::int32_t>& values) {
  return place(ints_, values);
}

template <typename T>
void History::check_inputs(Inputs<T>& inputs) {
  for (std::size_t i = 0; i < inputs.used; ++i) {
    check(inputs.placed[i].equals(inputs.values[i]), "an input was changed");
    check(inputs.placed[i].margins_intact(), "written beside an input");
  }
  inputs.used = 0;
}

void History::check_inputs() {
  check_inputs(floats_);
  check_inputs(longs_);
  check_inputs(ints_);
}

// ---- Drawing of arguments ----

std::uint32_t History::draw_new_dim() {
  if (random_.percent(3)) return random_.percent(50) ? 0xFFFFFFFFu : 0x80000000u;
  return static_cast<std::uint32_t>(draw_build_dim());
}

std::int32_t History::draw_build_dim() {
  if (random_.percent(5)) return 0;
  if (long_) return random_.between32(8, 40);
  if (random_.percent(10)) return random_.between32(64, 300);
  return random_.percent(75) ? random_.between32(1, 20) : random_.between32(21, 70);
}

Ids History::draw_base_ids(std::int64_t n) {
  Ids ids;
  const std::int64_t span = sparse_ ? (1 << 22) : id_span_;
  const bool permuted = random_.percent(50);
  Random& random = random_.for_array(n);
  for (std::int64_t i = 0; i < n; ++i) ids.push_back(permuted ? i : random.between(0, span));
  if (permuted && random.percent(60)) random.shuffle(ids);
  return ids;
}

std::int64_t History::draw_id() {
  static const Ids extremes = {INT64_MIN, INT64_MIN + 1, -2,        -1,
                               INT64_MAX, INT64_MAX - 1, 1LL << 40, (1LL << 40) - 1};
  if (random_.percent(5)) return random_.any_of(extremes);
  if (random_.percent(5)) return static_cast<std::int64_t>(random_.bits());
  if (random_.percent(5)) return -random_.between(0, id_span_);
  if (!model_.base_ids.empty() && random_.percent(50)) return random_.any_of(model_.base_ids);
  if (!model_.delta_ids.empty() && random_.percent(30)) return random_.any_of(model_.delta_ids);
  return random_.between(0, id_span_);
}

Ids History::draw_ids(std::int64_t count) {
  Ids ids;
  for (std::int64_t i = 0; i < count; ++i) ids.push_back(draw_id());
  return ids;
}

std::int32_t History::draw_count() {
  if (random_.percent(6)) return random_.percent(50) ? 0 : random_.between32(-3, -1);
  if (random_.percent(1)) return INT32_MIN;
  return random_.percent(85) ? random_.between32(1, 12) : random_.between32(13, 150);
}

std::int32_t History::draw_candidate_count() {
  return long_ && random_.percent(50) ? random_.between32(300, 1200) : draw_count();
}

Floats History::draw_array(std::int64_t count) {
  return draw_floats(random_.for_array(count), values_, count);
}

// Equal factors let giants cancel.
Floats History::draw_query() {
  if (values_ != Values::kGiants) return draw_array(model_.width());
  return Floats(static_cast<std::size_t>(model_.width()), random_.percent(50) ? 1.0f : -1.5f);
}

std::int32_t History::draw_small_k(std::int64_t near) {
  static const std::vector<std::int32_t> edges = {INT32_MIN, -1, 0, 1, 1, 2, 63, 64, 65, 128, 1500};
  if (random_.percent(15)) return random_.any_of(edges);
  if (random_.percent(20)) return static_cast<std::int32_t>(near) + random_.between32(-1, 2);
  return random_.between32(1, 20);
}

std::int32_t History::draw_k(std::int64_t near) {
  return random_.percent(5) ? INT32_MAX : draw_small_k(near);
}

History::Predicate History::draw_predicate() {
  static const std::vector<std::uint32_t> modes = {0, 1, 1, 2, 2, 2, 7, 0x80000000u, 0xFFFFFFFFu};
  const auto ncols = static_cast<std::int32_t>(model_.columns.size());
  const bool outside = random_.percent(8);
  const std::int32_t column =
      outside || ncols == 0
          ? random_.any_of(std::vector<std::int32_t>{INT32_MIN, -1, ncols, ncols + 1, INT32_MAX})
          : random_.between32(0, ncols - 1);
  return {random_.any_of(modes), column, random_.between(-1, 2)};
}

std::vector<std::int32_t> History::draw_offsets(std::int32_t nlist, std::int64_t n_ids) {
  std::vector<std::int32_t> offsets;
  if (nlist < 0) return offsets;
  for (std::int32_t i = 0; i < nlist; ++i) {
    offsets.push_back(static_cast<std::int32_t>(random_.between(0, n_ids)));
  }
  std::sort(offsets.begin(), offsets.end());
  offsets.push_back(static_cast<std::int32_t>(n_ids));
  if (random_.percent(5)) {
    const auto spoiled = static_cast<std::size_t>(random_.between(0, nlist));
    offsets[spoiled] = random_.any_of(std::vector<std::int32_t>{
        INT32_MIN, -1, 0, static_cast<std::int32_t>(n_ids) + 1, INT32_MAX});
  }
  return offsets;
}

}  // namespace qx_test
