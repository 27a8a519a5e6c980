// Random call sequences for the C++ header, with hostile arguments among good ones. Each call must
// do what the header's words say: throw the documented exception and change nothing, or answer as
// the model does in every bit.
//
//   wrapper_calls [--calls N] [--seed S]     the sequences of seeds S, S + 1, ... until N calls
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "model.h"
#include "qx_runtime.hpp"
#include "support/random.h"

namespace {

using qx_test::Floats;
using qx_test::Ids;
using qx_test::Model;
using qx_test::Random;
using Offsets = std::vector<std::int32_t>;
using IdSpan = std::span<const std::int64_t>;
using FloatSpan = std::span<const float>;

constexpr std::int32_t kMost32 = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kLeast32 = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kMost64 = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast64 = std::numeric_limits<std::int64_t>::min();
constexpr std::size_t kTooMany = std::size_t{1} << 31;
constexpr int kCallsOfASequence = 150;

// A message for the end of the process, wherever it happens.
char replay_line[128];
void say_replay() {
  [[maybe_unused]] const auto written = write(STDERR_FILENO, replay_line, std::strlen(replay_line));
}
void end_by_signal(int number) {
  say_replay();
  std::signal(number, SIG_DFL);
  std::raise(number);
}
[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "wrapper_calls: %s\n", what.c_str());
  say_replay();
  std::exit(1);
}
void expect(bool holds, const char* what) {
  if (!holds) fail(what);
}

enum class End { kReturned, kInvalidArgument, kLogicError, kNoMemory };

template <typename Call>
End end_of(Call call) {
  try {
    call();
    return End::kReturned;
  } catch (const qx::InvalidArgument& error) {
    expect(error.what()[0] != '\0', "an exception without a message");
    return End::kInvalidArgument;
  } catch (const qx::LogicError&) {
    return End::kLogicError;
  } catch (const std::bad_alloc&) {
    return End::kNoMemory;
  } catch (const std::exception& error) {
    fail(std::string("an exception that is not documented: ") + error.what());
  }
}

template <typename T>
bool same_bits(const std::vector<T>& one, const std::vector<T>& other) {
  return one.size() == other.size() &&
         (one.empty() || std::memcmp(one.data(), other.data(), one.size() * sizeof(T)) == 0);
}

class HostileCalls {
 public:
  explicit HostileCalls(std::uint64_t seed)
      : random_(seed),
        dim_(random_.between32(1, 6)),
        index_(dim_, 9),
        model_(static_cast<std::uint32_t>(dim_), 9) {}

  // Returns how many calls were made.
  std::int64_t play() {
    static constexpr void (HostileCalls::*kSteps[])() = {
        &HostileCalls::build,       &HostileCalls::insert,         &HostileCalls::insert,
        &HostileCalls::erase,       &HostileCalls::set_ivf,        &HostileCalls::probe,
        &HostileCalls::set_rowmeta, &HostileCalls::export_rowmeta, &HostileCalls::search,
        &HostileCalls::search,      &HostileCalls::search,         &HostileCalls::search,
        &HostileCalls::search,      &HostileCalls::search,         &HostileCalls::search,
        &HostileCalls::list,        &HostileCalls::read_counts,    &HostileCalls::oversized,
        &HostileCalls::move_away,   &HostileCalls::other_index};
    for (int i = 0; i < kCallsOfASequence; ++i) {
      (this->*kSteps[random_.between(0, std::ssize(kSteps) - 1)])();
    }
    read_counts();
    list();
    return calls_;
  }

 private:
  bool hostile() { return random_.percent(25); }

  template <typename Call>
  void must(End expected, const char* name, Call call) {
    ++calls_;
    const End end = end_of(call);
    if (end != expected) {
      fail(std::string(name) + " ended as " + std::to_string(static_cast<int>(end)) + ", not " +
           std::to_string(static_cast<int>(expected)));
    }
  }
  static End when(bool fits) { return fits ? End::kReturned : End::kInvalidArgument; }

  // ---- Arguments ----

  std::int64_t any_id() {
    static const Ids edges = {-1, kLeast64, kMost32, kMost64, -2, std::int64_t{1} << 40};
    return random_.percent(8) ? random_.any_of(edges) : random_.between(0, 40);
  }
  template <typename T, typename Draw>
  static std::vector<T> several(std::int64_t count, Draw draw) {
    std::vector<T> values;
    for (std::int64_t i = 0; i < count; ++i) values.push_back(draw());
    return values;
  }
  Ids some_ids() {
    const std::int64_t most = random_.percent(1) ? 900 : 9;
    return several<std::int64_t>(random_.between(0, most), [&] { return any_id(); });
  }
  Ids small_numbers(std::size_t count) {
    return several<std::int64_t>(static_cast<std::int64_t>(count),
                                 [&] { return random_.between(-1, 3); });
  }
  std::size_t width_of(std::size_t rows) const { return rows * static_cast<std::size_t>(dim_); }
  Floats some_floats(std::size_t rows) {
    return qx_test::draw_floats(random_, qx_test::Values::kMixed,
                                static_cast<std::int64_t>(width_of(rows)));
  }
  // A size that is usually wrong.
  template <typename T>
  void spoil(std::vector<T>& elements) {
    if (elements.empty() || random_.percent(50)) {
      elements.resize(elements.size() + static_cast<std::size_t>(random_.between(1, dim_ + 1)));
    } else {
      elements.resize(static_cast<std::size_t>(random_.between(0, std::ssize(elements) - 1)));
    }
  }

  // ---- Changes ----

  void build() {
    if (model_.sealed && !hostile()) return;
    Ids ids = several<std::int64_t>(
        random_.between(0, 30), [&] { return random_.between(0, random_.percent(2) ? 5000 : 40); });
    Floats vectors = some_floats(ids.size());
    std::vector<qx::Partition> parts = some_partitions(std::ssize(ids));
    End expected = model_.sealed ? End::kLogicError : End::kReturned;
    if (hostile()) {
      const auto kind = random_.between(0, 3);
      if (kind == 0) spoil(vectors);
      if (kind == 1) ids.push_back(random_.any_of(Ids{-1, std::int64_t{1} << 40, 3}));
      if (kind == 2 && !ids.empty()) ids[0] = (std::int64_t{1} << 40) - random_.between(0, 1);
      if (kind == 3) parts.push_back(wrong_partition(parts, std::ssize(ids)));
      if (!model_.sealed) expected = end_of_build(vectors, ids, kind == 3);
    }
    must(expected, "build", [&] { index_.build(vectors, ids, parts); });
    if (expected != End::kReturned) return;
    Ids keys;
    Offsets starts;
    Offsets sizes;
    for (const qx::Partition& part : parts) {
      keys.push_back(part.key);
      starts.push_back(part.start);
      sizes.push_back(part.size);
    }
    model_.build(vectors, std::ssize(ids), dim_, ids, keys, starts, sizes,
                 static_cast<std::int32_t>(keys.size()));
  }
  End end_of_build(const Floats& vectors, const Ids& ids, bool wrong_parts) const {
    const bool some = !ids.empty();
    const std::int64_t least = some ? *std::min_element(ids.begin(), ids.end()) : 0;
    const std::int64_t largest = some ? *std::max_element(ids.begin(), ids.end()) : 0;
    const bool fits = vectors.size() == width_of(ids.size()) && !wrong_parts && least >= 0 &&
                      largest < std::int64_t{1} << 40;
    return fits && largest > std::int64_t{1} << 38 ? End::kNoMemory : when(fits);
  }
  std::vector<qx::Partition> some_partitions(std::int64_t rows) {
    std::vector<qx::Partition> parts;
    std::int64_t key = random_.between(-5, 5);
    for (std::int64_t left = random_.between(0, 4); left > 0; --left) {
      const std::int64_t start = random_.between(0, rows);
      parts.push_back({key, static_cast<std::int32_t>(start),
                       static_cast<std::int32_t>(random_.between(0, rows - start))});
      key += random_.between(1, 3);
    }
    return parts;
  }
  qx::Partition wrong_partition(const std::vector<qx::Partition>& parts, std::int64_t rows) {
    const std::int64_t key = parts.empty() ? 0 : parts.back().key + 1;
    const auto count = static_cast<std::int32_t>(rows);
    const std::vector<qx::Partition> wrong = {
        {key, count, 1},           {key, -1, 1},        {key, 0, -1},     {key, kMost32, kMost32},
        {key, kLeast32, kLeast32}, {key, 0, count + 1}, {key, 1, kMost32}};
    if (!parts.empty() && random_.percent(30)) return {parts.back().key, 0, 0};
    return random_.any_of(wrong);
  }

  void insert() {
    const Ids ids = some_ids();
    Floats vectors = some_floats(ids.size());
    if (hostile() && random_.percent(20)) {
      const FloatSpan many(&never_read_float_, width_of(kTooMany));
      must(End::kInvalidArgument, "insert", [&] { index_.insert(many, too_many_ids()); });
      return;
    }
    if (hostile()) spoil(vectors);
    const bool fits = vectors.size() == width_of(ids.size());
    std::uint64_t snapshot = 0;
    must(when(fits), "insert", [&] { snapshot = index_.insert(vectors, ids); });
    if (fits) expect(snapshot == model_.insert(vectors, ids), "insert: another snapshot");
  }
  // Refused because of its size, before an element is read.
  IdSpan too_many_ids() const { return {&never_read_id_, kTooMany}; }

  void erase() {
    if (hostile()) {
      must(End::kInvalidArgument, "erase", [&] { index_.erase(too_many_ids()); });
      return;
    }
    Ids ids = some_ids();
    if (random_.between(0, 999) == 0) ids.resize(6000, random_.between(100, 1 << 30));
    for (std::size_t i = 1000; i < ids.size(); ++i) ids[i] += static_cast<std::int64_t>(i) * 97;
    std::uint64_t snapshot = 0;
    must(End::kReturned, "erase", [&] { snapshot = index_.erase(ids); });
    expect(snapshot == model_.erase(ids), "erase: another snapshot");
  }

  void set_ivf() {
    const std::int64_t key = random_.between(-1, 3);
    if (random_.percent(10)) {
      must(End::kReturned, "clear_ivf", [&] { index_.clear_ivf(); });
      model_.ivfs.clear();
    }
    const Ids list_ids = some_ids();
    const auto n_ids = static_cast<std::int32_t>(list_ids.size());
    Offsets offsets =
        several<std::int32_t>(random_.between(1, 5), [&] { return random_.between32(0, n_ids); });
    std::sort(offsets.begin(), offsets.end());
    Floats centroids = some_floats(offsets.size() - 1);
    std::int32_t nprobe = random_.between32(0, 6);
    if (hostile()) {
      const auto at = static_cast<std::size_t>(random_.between(0, std::ssize(offsets) - 1));
      const auto kind = random_.between(0, 4);
      if (kind == 0) spoil(centroids);
      if (kind == 1) nprobe = random_.any_of(Offsets{-1, kLeast32});
      if (kind == 2) spoil(offsets);
      if (kind == 3) offsets[at] = random_.any_of(Offsets{-1, kLeast32, kMost32, n_ids + 1});
      if (kind == 4) {
        must(End::kInvalidArgument, "set_ivf",
             [&] { index_.set_ivf(key, nprobe, centroids, too_many_ids(), offsets); });
      }
    }
    const bool fits = nprobe >= 0 && !offsets.empty() &&
                      centroids.size() == width_of(offsets.size() - 1) &&
                      std::is_sorted(offsets.begin(), offsets.end()) && offsets.front() >= 0 &&
                      offsets.back() <= n_ids;
    must(when(fits), "set_ivf", [&] { index_.set_ivf(key, nprobe, centroids, list_ids, offsets); });
    if (!fits) return;
    model_.ivfs[key] = {static_cast<std::int32_t>(offsets.size()) - 1, nprobe, centroids, list_ids,
                        offsets};
  }

  void probe() {
    const std::int64_t key = random_.between(-1, 4);
    const std::int32_t nprobe = random_.any_of(Offsets{0, 1, 2, 9, kMost32, -1, -kMost32});
    const bool fits = nprobe >= 0 && model_.ivfs.contains(key);
    must(when(fits), "set_ivf_nprobe", [&] { index_.set_ivf_nprobe(key, nprobe); });
    if (fits) model_.set_ivf_nprobe(key, nprobe);
  }

  void set_rowmeta() {
    const Ids ids = some_ids();
    const auto has = static_cast<std::int32_t>(model_.columns.size());
    std::int32_t ncols = has + (has < 5 && random_.percent(10) ? 1 : 0);
    Ids labels = small_numbers(ids.size());
    Ids values = small_numbers(ids.size() * static_cast<std::size_t>(ncols));
    End expected = End::kReturned;
    if (hostile()) {
      const auto kind = random_.between(0, 4);
      if (kind == 0) spoil(labels);
      if (kind == 1) spoil(values);
      if (kind == 2) ncols = -random_.between32(1, 9) * (1 << 27);
      if (kind == 3 && has > 0) ncols = has - 1;
      const bool fits = labels.size() == ids.size() && ncols >= has &&
                        values.size() == ids.size() * static_cast<std::size_t>(ncols);
      expected = when(fits);
      if (kind == 4) {
        const std::int32_t many = random_.any_of(Offsets{1 << 30, kMost32});
        must(End::kNoMemory, "set_rowmeta", [&] { index_.set_rowmeta({}, {}, {}, many); });
        must(End::kInvalidArgument, "set_rowmeta",
             [&] { index_.set_rowmeta(too_many_ids(), too_many_ids(), {}, ncols); });
      }
    }
    must(expected, "set_rowmeta", [&] { index_.set_rowmeta(ids, labels, values, ncols); });
    if (expected == End::kReturned) model_.set_rowmeta(ids, labels, values, ncols);
  }

  void export_rowmeta() {
    const Ids ids = some_ids();
    qx::RowMeta meta;
    if (hostile()) {
      must(End::kInvalidArgument, "export_rowmeta", [&] { index_.export_rowmeta(too_many_ids()); });
    }
    must(End::kReturned, "export_rowmeta", [&] { meta = index_.export_rowmeta(ids); });
    Ids labels(ids.size());
    Ids values(ids.size() * model_.columns.size());
    expect(meta.ncols == model_.export_rowmeta(ids, labels, values), "export_rowmeta: columns");
    expect(meta.labels == labels && meta.values == values, "export_rowmeta: other values");
  }

  // ---- Searches ----

  enum class Way { kFull, kPartition, kScatter, kIvf, kMvcc, kFiltered };

  struct Search {
    Way way;
    std::int64_t key = 0;
    Model::Predicate test = {};
    Ids given;
    IdSpan candidates;
    Floats query;
    bool fits = true;
  };
  Search some_search() {
    Search search{static_cast<Way>(random_.between(0, 5)),
                  random_.between(-3, 6),
                  {},
                  some_ids(),
                  {},
                  some_floats(1)};
    search.candidates = search.given;
    if (search.way == Way::kIvf && !model_.ivfs.empty() && !hostile()) {
      search.key = model_.ivfs.begin()->first;
    }
    if (search.way == Way::kIvf) search.fits = model_.ivfs.contains(search.key);
    if (search.way == Way::kFiltered) search.test = some_test();
    if (search.way == Way::kFiltered) search.fits = fits(search.test);
    if (hostile() && random_.percent(40)) {
      spoil(search.query);
      search.fits = false;
    }
    if ((search.way == Way::kScatter || search.way == Way::kMvcc) && random_.percent(5)) {
      search.candidates = too_many_ids();
      search.fits = false;
    }
    return search;
  }
  Model::Predicate some_test() {
    const auto mode = static_cast<std::uint32_t>(random_.between(0, 2));
    std::int32_t column = random_.between32(0, 1);
    if (hostile()) column = random_.any_of(Offsets{-1, 5, 6, kMost32, -kMost32});
    return {mode, column, random_.between(-1, 3)};
  }
  bool fits(const Model::Predicate& test) const {
    return test.mode != 2 || (test.column >= 0 && test.column < std::ssize(model_.columns));
  }
  static qx::Filter filter_of(const Model::Predicate& test) {
    if (test.mode == 0) return qx::Filter::all();
    if (test.mode == 1) return qx::Filter::label(test.value);
    return qx::Filter::column(test.column, test.value);
  }

  // Asks the index or the model, which take the same arguments before those for the results.
  template <typename Result, typename Asked, typename Listed, typename Test, typename... Results>
  static Result ask(const Asked& asked, const Search& s, const Listed& listed, const Test& test,
                    Results&&... results) {
    if (s.way == Way::kFull) return asked.search_full(s.query, results...);
    if (s.way == Way::kPartition) return asked.search_partition(s.key, s.query, results...);
    if (s.way == Way::kScatter) return asked.scatter_topk(listed, s.query, results...);
    if (s.way == Way::kIvf) return asked.search_ivf(s.key, s.query, results...);
    if (s.way == Way::kMvcc) return asked.search_mvcc(listed, s.query, results...);
    return asked.search_filtered(test, s.query, results...);
  }
  qx::Hits expected_of(const Search& s, std::int64_t wanted) const {
    const auto k = static_cast<std::int32_t>(std::min<std::int64_t>(wanted, 2000));
    qx::Hits hits{Ids(static_cast<std::size_t>(k)), Floats(static_cast<std::size_t>(k))};
    const auto found = ask<std::int64_t>(model_, s, s.given, s.test, k, hits.ids, hits.scores);
    auto filled = static_cast<std::size_t>(found);
    while (filled > 0 && hits.scores[filled - 1] == -1e30f) --filled;  // no row has this score
    hits.ids.resize(filled);
    hits.scores.resize(filled);
    return hits;
  }

  void search() {
    const Search s = some_search();
    if (random_.percent(50)) {
      search_into_slots(s);
      return;
    }
    std::int64_t k = random_.between(0, 12);
    if (hostile()) {
      constexpr std::int64_t kMore = std::int64_t{kMost32} + 1;
      k = random_.any_of(Ids{-1, kLeast64, kMost32, kMore, -kMore, kMost64, 100});
    }
    const bool fits = s.fits && k >= 0;
    qx::Hits hits;
    must(when(fits), "a search",
         [&] { hits = ask<qx::Hits>(index_, s, s.candidates, filter_of(s.test), k); });
    if (fits) compare(s, k, hits);
  }
  void compare(const Search& s, std::int64_t k, const qx::Hits& hits) const {
    const qx::Hits expected = expected_of(s, k);
    expect(hits.ids == expected.ids && same_bits(hits.scores, expected.scores),
           "a search: another answer");
  }

  // The guard elements after the slots must not change.
  void search_into_slots(const Search& s) {
    Ids ids(static_cast<std::size_t>(random_.between(0, 12)) + 1, 77);
    Floats scores(ids.size(), 7.5f);
    std::span<std::int64_t> id_slots = std::span(ids).first(ids.size() - 1);
    std::span<float> score_slots = std::span(scores).first(id_slots.size());
    const std::size_t k = id_slots.size();
    bool fits = s.fits;
    if (hostile()) {
      const auto kind = random_.between(0, 2);
      if (kind == 0) score_slots = std::span(scores);
      if (kind == 1) id_slots = {ids.data(), kTooMany};
      if (kind == 2 && !s.query.empty()) {  // onto the query
        id_slots = std::span(ids).first(1);
        score_slots = {const_cast<float*>(s.query.data()), 1};
      }
      fits = fits && kind == 2 && s.query.empty();
    }
    std::size_t found = 0;
    must(when(fits), "a search into slots", [&] {
      found = ask<std::size_t>(index_, s, s.candidates, filter_of(s.test), id_slots, score_slots);
    });
    expect(ids.back() == 77 && scores.back() == 7.5f, "a search wrote after its slots");
    if (!fits) return;
    ids.resize(found);
    scores.resize(found);
    compare(s, static_cast<std::int64_t>(k), {ids, scores});
  }

  // ---- Lists and counts ----

  void list() {
    const Model::Predicate test = some_test();
    Ids found;
    must(when(fits(test)), "match_ids", [&] { found = index_.match_ids(filter_of(test)); });
    if (fits(test)) {
      Ids expected(model_.delta_ids.size() + model_.base_ids.size());
      expected.resize(static_cast<std::size_t>(model_.match_ids(test, expected)));
      expect(found == expected, "match_ids: other ids");
    }
    qx::Rows rows;
    Ids ids(static_cast<std::size_t>(model_.visible_count()));
    Floats vectors(width_of(ids.size()));
    model_.export_visible(vectors, ids);
    must(End::kReturned, "export_visible", [&] { rows = index_.export_visible(); });
    expect(rows.ids == ids && same_bits(rows.vectors, vectors), "export_visible: other rows");
    for (std::size_t i = 0; i < ids.size(); ++i) {
      expect(rows.vector(i).data() == &rows.vectors[width_of(i)], "another vector");
    }
    must(End::kReturned, "visible_ids", [&] { found = index_.visible_ids(); });
    expect(found == ids, "visible_ids: other ids");
    must(End::kReturned, "export_base", [&] { rows = index_.export_base(); });
    expect(rows.ids == model_.base_ids && same_bits(rows.vectors, model_.base_vectors),
           "export_base: other rows");
  }

  void read_counts() {
    must(End::kReturned, "the counts", [&] {
      const qx::Index& index = index_;
      expect(index.dim() == dim_ && index.user_tag() == 9, "another dimension or tag");
      expect(index.size() == model_.n_base(), "another size");
      expect(index.partitions() == std::ssize(model_.part_keys), "other partitions");
      expect(index.columns() == std::ssize(model_.columns), "other columns");
      expect(index.snapshot() == model_.snapshot && index.mutated() == model_.mutated,
             "another snapshot");
      expect(index.sealed() == model_.sealed, "sealed otherwise");
      expect(index.delta_count() == std::ssize(model_.delta_ids), "other inserted rows");
      expect(index.visible_count() == model_.visible_count(), "another visible count");
      for (std::int64_t key = -2; key < 5; ++key) {
        expect(index.has_ivf(key) == model_.ivfs.contains(key), "other IVF keys");
      }
    });
  }

  void oversized() {
    const std::int32_t threshold = random_.any_of(Offsets{0, 1, 5, -1, kLeast32, kMost32});
    Ids keys(model_.part_keys.size());
    Ids sizes(keys.size());
    const auto count = model_.tuner_oversized(threshold, keys, sizes);
    std::vector<qx::PartitionSize> listed;
    must(End::kReturned, "tuner_oversized", [&] { listed = index_.tuner_oversized(threshold); });
    expect(std::ssize(listed) == count, "tuner_oversized: another count");
    for (std::size_t i = 0; i < listed.size(); ++i) {
      expect(listed[i] == qx::PartitionSize{keys[i], sizes[i]}, "tuner_oversized: other sizes");
    }
    expect(qx::tuner_defaults().first == 20000 && qx::tuner_defaults().second == 980, "defaults");
  }

  // ---- Lifecycle ----

  void move_away() {
    qx::Index kept = std::move(index_);
    const Floats query = some_floats(1);
    const Offsets no_lists = {0, 0};
    const std::vector<std::function<void()>> calls = {
        [&] { index_.handle(); },
        [&] { index_.size(); },
        [&] { index_.build(query, Ids{1}); },
        [&] { index_.insert(query, Ids{1}); },
        [&] { index_.insert({}, {}); },
        [&] { index_.erase({}); },
        [&] { index_.set_ivf(0, 0, query, {}, no_lists); },
        [&] { index_.set_ivf_nprobe(0, 0); },
        [&] { index_.clear_ivf(); },
        [&] { index_.has_ivf(0); },
        [&] { index_.set_rowmeta({}, {}, {}, 0); },
        [&] { index_.export_rowmeta({}); },
        [&] { index_.match_ids(filter_of(some_test())); },
        [&] { index_.visible_ids(); },
        [&] { index_.export_visible(); },
        [&] { index_.export_base(); },
        [&] { index_.tuner_oversized(0); },
        [&] {
          const Search s = some_search();
          Ids ids(1);
          Floats scores(1);
          if (random_.percent(50)) {
            ask<qx::Hits>(index_, s, s.candidates, filter_of(s.test), std::int64_t{1});
          } else {
            ask<std::size_t>(index_, s, s.candidates, filter_of(s.test), std::span(ids),
                             std::span(scores));
          }
        },
    };
    must(End::kLogicError, "a call on what was moved from", random_.any_of(calls));
    if (random_.percent(50)) {
      index_ = std::move(kept);
    } else {
      index_.swap(kept);
    }
    qx::Index& itself = index_;
    index_ = std::move(itself);
  }

  void other_index() {
    const std::int32_t dim = random_.any_of(Offsets{0, -1, kLeast32, 1, kMost32});
    must(when(dim >= 1), "Index", [&] {
      const qx::Index other(dim);
      expect(other.dim() == dim && other.visible_ids().empty(), "an empty index that is not");
    });
  }

  Random random_;
  std::int32_t dim_;
  qx::Index index_;
  Model model_;
  std::int64_t calls_ = 0;
  std::int64_t never_read_id_ = 0;
  float never_read_float_ = 0;
};

std::uint64_t number_of(const char* text) {
  char* end = nullptr;
  const std::uint64_t number = std::strtoull(text, &end, 10);
  if (end == text || *end != '\0') fail(std::string("no number: ") + text);
  return number;
}

}  // namespace

// For sanitizers: an allocation larger than any machine's memory fails, and the end of the process
// prints the seed.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=4096:detect_leaks=0";
}
extern "C" void __asan_on_error();
extern "C" void __asan_on_error() { say_replay(); }

int main(int count, char** arguments) {
  std::uint64_t calls = 20000;
  std::uint64_t seed = 1;
  for (int i = 1; i + 1 < count; i += 2) {
    const std::string name = arguments[i];
    if (name != "--calls" && name != "--seed") fail("usage: wrapper_calls [--calls N] [--seed S]");
    (name == "--calls" ? calls : seed) = number_of(arguments[i + 1]);
  }
#if !defined(__SANITIZE_ADDRESS__)
  const rlimit few{std::uint64_t{1} << 32, std::uint64_t{1} << 32};
  setrlimit(RLIMIT_AS, &few);
#endif
  for (const int number : {SIGILL, SIGTRAP, SIGABRT}) std::signal(number, end_by_signal);
  const auto start = std::chrono::steady_clock::now();
  std::uint64_t done = 0;
  std::uint64_t next = seed;
  for (; done < calls; ++next) {
    std::snprintf(replay_line, sizeof(replay_line), "replay: wrapper_calls --calls 1 --seed %llu\n",
                  static_cast<unsigned long long>(next));
    done += static_cast<std::uint64_t>(HostileCalls(next).play());
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf(
      "C++: %llu calls of %llu call sequences as they must be, seeds %llu to %llu, %.1f s\n",
      static_cast<unsigned long long>(done), static_cast<unsigned long long>(next - seed),
      static_cast<unsigned long long>(seed), static_cast<unsigned long long>(next - 1),
      took.count());
  return 0;
}
