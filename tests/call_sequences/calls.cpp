// Draws a call sequence from random choices: the functions and their arguments. It follows the
// model to draw arguments that reach many cases, and knows nothing of the engine.
#include <algorithm>
#include <iterator>
#include <utility>

#include "call_sequences/call_sequence.h"
#include "support/random.h"

namespace qx_test {
namespace {

// With any other kind of values almost every long base would contain infinities or NaNs, and none
// of its rows would be estimated.
Values draw_values(Random& random, bool is_long) {
  static const std::vector<Values> finite = {Values::kTies, Values::kSmooth, Values::kCancelling};
  return is_long && random.percent(90) ? random.any_of(finite)
                                       : static_cast<Values>(random.between(0, 5));
}

class Generator {
 public:
  Generator(Random random, Rebuilds rebuilds)
      : random_(std::move(random)),
        rebuilds_(rebuilds),
        long_(random_.percent(7)),
        values_(draw_values(random_, long_)),
        sparse_(random_.percent(1)),
        id_span_(!long_ && random_.percent(70) ? random_.between(1, 60)
                                               : random_.between(61, 4096)) {
    add({Function::kNew, {draw_new_dim(), static_cast<std::uint32_t>(random_.bits())}});
  }

  CallSequence draw() {
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

 private:
  // ---- Lifecycle and accessors ----

  void renew() {
    add(Function::kFree);
    if (random_.percent(10)) add(Function::kFreeNull);
    add({Function::kNew, {draw_new_dim(), random_.percent(20) ? 0xFFFFFFFFu : 7u}});
    accessors();
  }

  void accessors() {
    for (const Function function :
         {Function::kStats, Function::kSnapshot, Function::kMutated, Function::kSealed,
          Function::kDeltaCount, Function::kFormatVersion}) {
      add(function);
    }
  }

  void tuner() {
    add(Function::kTunerDefaults);
    static const Ints thresholds = {INT32_MIN, -1, 0, 1, 5, 20, INT32_MAX};
    const std::int32_t threshold = model_.part_sizes.empty() || random_.percent(60)
                                       ? random_.any_of(thresholds)
                                       : random_.any_of(model_.part_sizes);
    add({Function::kTunerOversized, {threshold}});
  }

  // ---- The sealed base ----

  void build() {
    if ((sparse_ || rebuilds_ == Rebuilds::kLeftOut) && model_.sealed) return;
    const std::int32_t dim = model_.sealed && random_.percent(70) ? model_.dim : draw_build_dim();
    const std::int64_t most =
        std::max<std::int64_t>(1, (long_ ? 40000 : 12000) / std::max(dim, 20));
    const std::int64_t usual =
        long_ || random_.percent(25) ? most : std::min<std::int64_t>(most, 40);
    const std::int64_t n = random_.percent(8) ? 0 : random_.between(long_ ? usual / 2 : 1, usual);
    const Floats vectors = draw_array(n * dim);
    const Ids ids = draw_base_ids(n);
    const std::int32_t n_parts = random_.between32(0, 6);
    Ids keys;
    Ints starts;
    Ints sizes;
    std::int64_t start = 0;
    for (std::int32_t p = 0; p < n_parts; ++p) {
      keys.push_back(random_.percent(5) ? static_cast<std::int64_t>(random_.bits())
                                        : random_.between(-3, 6));
      const std::int64_t size = random_.between(0, n - start);
      starts.push_back(static_cast<std::int32_t>(start));
      sizes.push_back(static_cast<std::int32_t>(size));
      start += random_.percent(80) ? size : 0;
      if (random_.percent(5)) starts.back() = random_.percent(50) ? -1 : INT32_MAX;
      if (random_.percent(5)) sizes.back() = random_.percent(50) ? -1 : INT32_MAX;
    }
    std::sort(keys.begin(), keys.end());
    add({Function::kBuild, {n, dim, n_parts}, vectors, ids, keys, {}, starts, sizes});
  }

  void rejected_build() {
    std::int64_t n = random_.between(1, 5);
    std::int32_t dim = random_.between32(0, 9);
    std::int32_t n_parts = 0;
    Ids ids = draw_base_ids(n);
    std::int64_t& spoiled_id = ids[static_cast<std::size_t>(random_.between(0, n - 1))];
    const std::int64_t kind = random_.between(0, 6);
    const bool usual = kind < 5 && random_.percent(50);
    if (kind == 0) spoiled_id = usual ? -1 : INT64_MIN;
    if (kind == 1) spoiled_id = usual ? QX_MAX_BASE_ID + 1 : INT64_MAX;
    if (kind == 2) dim = usual ? -1 : INT32_MIN;
    if (kind == 3) n_parts = usual ? -1 : INT32_MIN;
    if (kind == 4) n = usual ? -1 : INT64_MIN;
    if (kind == 5) n = (1LL << 40) + random_.between(1, 3);
    if (kind == 6) {
      n = 1LL << 40;
      dim = random_.between32(2, INT32_MAX);
    }
    // No vectors: the engine must not read them.
    add({Function::kBuild, {n, dim, n_parts}, {}, ids});
    accessors();
  }

  // ---- Exact search ----

  void search_full() { add({Function::kSearchFull, {draw_k(model_.n_base())}, draw_query()}); }

  void search_partition() {
    const Floats query = draw_query();
    const std::int32_t k = draw_k(10);
    const std::int64_t key = model_.part_keys.empty() || random_.percent(10)
                                 ? draw_id()
                                 : random_.any_of(model_.part_keys);
    add({Function::kSearchPartition, {key, k}, query});
  }

  void scatter_topk() {
    const Floats query = draw_query();
    const std::int32_t count = draw_candidate_count();
    const Ids candidates = draw_ids(count);
    const std::int32_t k = draw_k(count < 0 ? 1 : count);
    add({Function::kScatterTopk, {count, k}, query, candidates});
  }

  // ---- Mutation ----

  void insert() {
    const std::int32_t n = draw_count();
    const Ids ids = draw_ids(n);
    const Floats vectors = draw_array(std::ssize(ids) * model_.width());
    add({Function::kInsert, {n}, vectors, ids});
  }

  void erase() {
    const std::int32_t n = draw_count();
    add({Function::kDelete, {n}, {}, draw_ids(n)});
  }

  // ---- IVF ----

  void set_ivf() {
    const std::int64_t key = random_.percent(90) ? random_.between(-1, 2) : draw_id();
    std::int32_t nlist = random_.between32(1, 24);
    if (random_.percent(10)) nlist = random_.between32(-3, 0);
    if (random_.percent(10)) nlist = random_.between32(49, 130);
    std::int32_t nprobe = random_.between32(-1, 8);
    if (random_.percent(20)) nprobe = random_.between32(40, 130);
    if (random_.percent(5)) nprobe = INT32_MAX;
    const std::int64_t n_ids = random_.percent(10) ? 0 : random_.between(1, long_ ? 1200 : 120);
    const Ids list_ids = random_.percent(40) ? draw_members(n_ids) : draw_ids(n_ids);
    const Ints offsets = draw_offsets(nlist, n_ids);
    // A product of two large negative numbers is a large positive one: too many floats for a test.
    const std::int64_t n_floats = std::int64_t{model_.dim} * nlist;
    if (n_floats > 100000) return;
    const Floats centroids = draw_array(n_floats);
    const auto count = static_cast<std::int32_t>(n_ids == 0 && random_.percent(50) ? -4 : n_ids);
    add({Function::kSetIvf, {key, nlist, nprobe, count}, centroids, list_ids, {}, {}, offsets});
  }

  void has_ivf() {
    const std::int64_t key = random_.percent(80) ? random_.between(-2, 3) : draw_id();
    add({Function::kHasIvf, {key}});
  }

  void set_ivf_nprobe() {
    const std::int64_t key = random_.between(-2, 3);
    const std::int32_t nprobe = random_.percent(10) ? INT32_MIN : random_.between32(-1, 30);
    add({Function::kSetIvfNprobe, {key, nprobe}});
  }

  void search_ivf() {
    const std::int64_t key =
        model_.ivfs.empty() || random_.percent(15)
            ? random_.between(-2, 3)
            : std::next(model_.ivfs.begin(), random_.between(0, std::ssize(model_.ivfs) - 1))
                  ->first;
    const Floats query = draw_query();
    add({Function::kSearchIvf, {key, draw_small_k(20)}, query});
  }

  // ---- Current reads and metadata ----

  void search_mvcc() {
    const Floats query = draw_query();
    const std::int32_t n = draw_candidate_count();
    const Ids candidates = draw_ids(n);
    const auto k = static_cast<std::uint32_t>(draw_small_k(std::max(n, 0)));
    add({Function::kSearchMvcc, {n, k}, query, candidates});
  }

  void set_rowmeta() {
    const std::int32_t n = draw_count();
    const auto current = static_cast<std::int32_t>(model_.columns.size());
    std::int32_t ncols = current + (random_.percent(25) && current < 5 ? 1 : 0);
    if (random_.percent(6)) ncols = random_.any_of(Ints{INT32_MIN, -1, 0});
    if (random_.percent(2)) ncols = current + random_.between32(1, 70);
    const Ids ids = draw_ids(n);
    Ids labels;
    Ids values;
    for (std::int64_t i = 0; i < std::ssize(ids); ++i) labels.push_back(random_.between(-1, 2));
    for (std::int64_t i = 0; i < std::ssize(ids) * ncols; ++i) {
      values.push_back(random_.percent(5) ? draw_id() : random_.between(-1, 2));
    }
    add({Function::kSetRowmeta, {ncols, n}, {}, ids, labels, values});
  }

  void export_rowmeta() {
    const std::int32_t n = draw_count();
    add({Function::kExportRowmeta, {n}, {}, draw_ids(n)});
  }

  void search_filtered() {
    Call call{Function::kSearchFiltered};
    draw_predicate(call);
    call.floats = draw_query();
    call.numbers[3] = static_cast<std::uint32_t>(draw_small_k(model_.n_base()));
    add(call);
  }

  void match_ids() {
    Call call{Function::kMatchIds};
    draw_predicate(call);
    add(call);
  }

  void visible() {
    add(Function::kVisibleCount);
    add(Function::kVisibleIds);
  }

  void export_base() { add(Function::kExportBase); }
  void export_visible() { add(Function::kExportVisible); }
  void clear_ivf() { add(Function::kClearIvf); }

  // ---- Arguments ----

  std::uint32_t draw_new_dim() {
    if (random_.percent(3)) return random_.percent(50) ? 0xFFFFFFFFu : 0x80000000u;
    return static_cast<std::uint32_t>(draw_build_dim());
  }

  std::int32_t draw_build_dim() {
    if (random_.percent(5)) return 0;
    if (long_) return random_.between32(8, 40);
    if (random_.percent(10)) return random_.between32(64, 300);
    return random_.percent(75) ? random_.between32(1, 20) : random_.between32(21, 70);
  }

  Ids draw_base_ids(std::int64_t n) {
    Ids ids;
    const std::int64_t span = sparse_ ? (1 << 22) : id_span_;
    const bool permuted = random_.percent(50);
    Random& random = random_.for_array(n);
    for (std::int64_t i = 0; i < n; ++i) ids.push_back(permuted ? i : random.between(0, span));
    if (permuted && random.percent(60)) random.shuffle(ids);
    return ids;
  }

  std::int64_t draw_id() {
    static const Ids extremes = {
        INT64_MIN,          INT64_MIN + 1, -2, -1, INT64_MAX, INT64_MAX - 1,
        QX_MAX_BASE_ID + 1, QX_MAX_BASE_ID};
    if (random_.percent(5)) return random_.any_of(extremes);
    if (random_.percent(5)) return static_cast<std::int64_t>(random_.bits());
    if (random_.percent(5)) return -random_.between(0, id_span_);
    if (!model_.base_ids.empty() && random_.percent(50)) return random_.any_of(model_.base_ids);
    if (!model_.delta_ids.empty() && random_.percent(30)) return random_.any_of(model_.delta_ids);
    return random_.between(0, id_span_);
  }

  // Ids of the base alone, if it has rows: of rows anywhere, or of some that follow each other.
  Ids draw_members(std::int64_t count) {
    const std::int64_t n = model_.n_base();
    if (n == 0) return draw_ids(count);
    Ids ids;
    const bool follow = count <= n && random_.percent(20);
    const std::int64_t first = follow ? random_.between(0, n - count) : 0;
    Random& random = random_.for_array(count);
    for (std::int64_t i = 0; i < count; ++i) {
      const std::int64_t row = follow ? first + i : random.between(0, n - 1);
      ids.push_back(model_.base_ids[static_cast<std::size_t>(row)]);
    }
    return ids;
  }

  Ids draw_ids(std::int64_t count) {
    Ids ids;
    for (std::int64_t i = 0; i < count; ++i) ids.push_back(draw_id());
    return ids;
  }

  std::int32_t draw_count() {
    if (random_.percent(6)) return random_.percent(50) ? 0 : random_.between32(-3, -1);
    if (random_.percent(1)) return INT32_MIN;
    return random_.percent(85) ? random_.between32(1, 12) : random_.between32(13, 150);
  }

  std::int32_t draw_candidate_count() {
    return long_ && random_.percent(50) ? random_.between32(300, 1200) : draw_count();
  }

  Floats draw_array(std::int64_t count) {
    return draw_floats(random_.for_array(count), values_, count);
  }

  // Equal factors, so that the products of opposite components cancel.
  Floats draw_query() {
    if (values_ != Values::kCancelling) return draw_array(model_.width());
    return Floats(static_cast<std::size_t>(model_.width()), random_.percent(50) ? 1.0f : -1.5f);
  }

  std::int32_t draw_small_k(std::int64_t near) {
    static const std::vector<std::int32_t> edges = {INT32_MIN, -1, 0,  1,   1,   2,
                                                    63,        64, 65, 128, 1500};
    if (random_.percent(15)) return random_.any_of(edges);
    if (random_.percent(20)) return static_cast<std::int32_t>(near) + random_.between32(-1, 2);
    return random_.between32(1, 20);
  }

  std::int32_t draw_k(std::int64_t near) {
    return random_.percent(5) ? INT32_MAX : draw_small_k(near);
  }

  void draw_predicate(Call& call) {
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

  Ints draw_offsets(std::int32_t nlist, std::int64_t n_ids) {
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

  // Appends a call, and makes it on the model if it changes the index.
  void add(Call call) {
    // A quarter of the arrays begin at the start of their pages. Outputs often have exactly the
    // granted elements, so that a write past them faults; sometimes more, so that it is seen as a
    // change.
    constexpr std::int32_t kEveryArray = 0x1FF;
    call.starts = static_cast<std::uint32_t>(random_.between32(0, kEveryArray) &
                                             random_.between32(0, kEveryArray));
    call.spare = random_.percent(60) ? 0 : random_.between(1, 5);
    if (changes(call.function)) ended_ = expected_answer(model_, call).end.has_value();
    sequence_.push_back(std::move(call));
  }

  void add(Function function) { add(Call{function}); }

  Random random_;
  Rebuilds rebuilds_;
  bool long_;  // bases of thousands of rows, most of which a search prunes
  Values values_;
  bool sparse_;           // base ids up to 2^22; at most one build
  std::int64_t id_span_;  // most ids are below it
  Model model_{0, 0};
  bool ended_ = false;
  CallSequence sequence_;
};

}  // namespace

CallSequence draw_call_sequence(Random random, Rebuilds rebuilds) {
  return Generator(std::move(random), rebuilds).draw();
}

}  // namespace qx_test
