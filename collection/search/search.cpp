#include "search/search.h"

#include <algorithm>
#include <optional>
#include <span>
#include <utility>

#include "batch/batch.h"
#include "kernels/kernels.h"
#include "read/scan.h"
#include "search/distance_scan.h"
#include "search/probes.h"
#include "search/sparse_query.h"
#include "support/fp_environment.h"

namespace qx::collection {
namespace {

// Rows of one part that one thread searches for some queries.
struct Task {
  std::size_t part;
  std::int64_t first;
  std::int64_t rows;
  std::int64_t first_query;
  std::int64_t queries;
};

// Rows of a task. One query: few enough that threads end together. Several: their codes stay in the
// second-level cache, so that a row that is read once serves all queries.
std::int64_t rows_of_task(const Queries& queries, int threads) {
  constexpr std::int64_t kAlone = 65536;
  constexpr std::int64_t kProbed = std::int64_t{1} << 20;
  constexpr std::int64_t kProbedAlone = std::int64_t{1} << 18;
  constexpr std::int64_t kCachedBytes = std::int64_t{1} << 20;
  if (queries.probes > 0) return queries.count == 1 && threads > 1 ? kProbedAlone : kProbed;
  if (queries.count == 1) return kAlone;
  return std::clamp<std::int64_t>(kCachedBytes / (queries.dim / 2 + 8) / 64 * 64, 1024, kAlone);
}

// Queries of a task: all of them, unless rows are too few to keep every thread busy.
std::int64_t queries_of_task(std::int64_t ranges, std::int64_t queries, int threads) {
  const std::int64_t wanted = 4 * std::int64_t{threads};
  const std::int64_t blocks = std::clamp<std::int64_t>(wanted / ranges, 1, queries);
  return threads == 1 ? queries : (queries + blocks - 1) / blocks;
}

// The tasks of rows [first, end) of a part.
void split_part(std::size_t part, std::int64_t first, std::int64_t end, std::int64_t rows_each,
                std::int64_t queries, std::int64_t queries_each, std::vector<Task>& tasks) {
  for (; first < end; first += rows_each) {
    for (std::int64_t query = 0; query < queries; query += queries_each) {
      tasks.push_back({part, first, std::min(rows_each, end - first), query,
                       std::min(queries_each, queries - query)});
    }
  }
}

// Rows that are scanned before the others, so that a threshold of every query is known.
struct Opening {
  std::size_t part = 0;
  std::int64_t rows = 0;
};

std::vector<Task> split(const State& state, const Queries& queries, const Opening& opening,
                        int threads) {
  const std::int64_t most = rows_of_task(queries, threads);
  std::int64_t ranges = 1;
  for (const PartView& view : state.parts) ranges += (view.rows + most - 1) / most;
  const std::int64_t together = queries_of_task(ranges, queries.count, threads);
  std::vector<Task> tasks;
  for (std::size_t part = 0; part < state.parts.size(); ++part) {
    const std::int64_t first = part == opening.part ? opening.rows : 0;
    split_part(part, first, state.parts[part].rows, most, queries.count, together, tasks);
  }
  return tasks;
}

// When to ask whether extents rule a group of rows out: again after one that is, and otherwise
// after a while, each time twice as long. Where rows differ, that costs nearly nothing.
class Trial {
 public:
  bool is_due() { return held_ == 0 || --held_ == 0; }
  void record(bool is_ruled_out) {
    next_hold_ = is_ruled_out ? kLeastHold : std::min(2 * next_hold_, kMostHold);
    held_ = is_ruled_out ? 0 : next_hold_;
  }

 private:
  static constexpr std::int64_t kLeastHold = 2;
  static constexpr std::int64_t kMostHold = 64;

  std::int64_t held_ = 0;  // groups, the next one that is asked among them
  std::int64_t next_hold_ = kLeastHold;
};

// What one thread needs, whatever it searches.
struct Workspace {
  std::vector<std::uint64_t> words;
  std::vector<std::uint64_t> probed_words;
  std::vector<std::int64_t> rows;
  std::vector<float> scores;
  // Of a batch: rows that wait for their score, kMaskRows for each query, and how many they are.
  std::vector<std::int64_t> waiting;
  std::vector<std::int64_t> waiting_count;
  std::vector<float> limits;
  std::vector<Pair> pairs;
  std::vector<std::uint8_t> unpacked;
  std::vector<std::uint8_t> ruled_out;
  // Of each query.
  std::vector<Trial> trials;
  std::vector<float> corner;
};

class Searcher {
 public:
  Searcher(const State& state, const Selection& selection, const Queries& queries, std::int64_t k,
           std::vector<std::unique_ptr<Best>>& best)
      : state_(state), selection_(selection), queries_(queries), k_(k), best_(best) {}

  // From now on, all queries of a task are judged at once where codes allow.
  void judge_together(const TileKernel& kernel, const CodedBatch& batch) {
    kernel_ = &kernel;
    batch_ = &batch;
  }

  // From now on, queries search these lists alone.
  void probe(const Probes& probes) { probes_ = &probes; }

  void run(const Task& task, Workspace& space) const {
    space.words.resize(static_cast<std::size_t>((task.rows + 63) / 64));
    const bool takes_all = selection_.way(task.part) == Selection::Way::kScan;
    std::int64_t selected = task.rows;
    if (!takes_all) {
      selected = selection_.select(task.part, task.first, task.rows, space.words.data());
    }
    if (selected == 0) return;
    const std::uint64_t* const words = selected == task.rows ? nullptr : space.words.data();
    const bool takes_most = 4 * selected >= task.rows;
    const std::int64_t slots = std::min(k_, selected);
    const auto room = static_cast<std::size_t>(std::max(slots, kMaskRows));
    space.rows.resize(room);
    space.scores.resize(room);
    space.trials.resize(static_cast<std::size_t>(queries_.count));
    if (judges_together(task, selected)) return judge_segment(task, words, space);
    for (std::int64_t q = task.first_query; q < task.first_query + task.queries; ++q) {
      if (probes_ == nullptr) {
        search_rows(task, q, words, takes_most, slots, space);
      } else {
        search_lists(task, q, words, space);
      }
    }
  }

 private:
  void search_rows(const Task& task, std::int64_t query, const std::uint64_t* words,
                   bool takes_most, std::int64_t slots, Workspace& space) const {
    const SparseQuery sparse(queries_.vector(query), queries_.dim);
    if (state_.parts[task.part].segment == nullptr) {
      score_tail(task, query, words, space);
    } else if (queries_.metric == Metric::kEuclidean) {
      scan_distances(task, query, words, slots, space);
    } else if (sparse.is_sparse()) {
      score_segment(task, query, sparse, words, slots, space);
    } else {
      scan_segment(task, query, words, takes_most, slots, space);
    }
  }

  // Searches, of the rows that `words` select, those of the lists that a query probes.
  void search_lists(const Task& task, std::int64_t query, const std::uint64_t* words,
                    Workspace& space) const {
    if (probes_few(task, query)) {
      for (const ListNumber list : probes_->lists_of(query)) {
        const auto rows = state_.parts[task.part].members->rows_of(list);
        search_list(task, query, rows_between(rows, task), words, space);
      }
      return;
    }
    const std::int64_t kept = keep_probed(task, query, words, space);
    if (kept == 0) return;
    search_rows(task, query, space.probed_words.data(), 4 * kept >= task.rows, std::min(k_, kept),
                space);
  }

  // Rows of lists are apart. If they are a larger part, it is quicker to read all that are between.
  bool probes_few(const Task& task, std::int64_t query) const {
    constexpr std::int64_t kFewOf = 10;
    const PartView& view = state_.parts[task.part];
    if (view.segment == nullptr) return false;
    std::int64_t rows = 0;
    for (const ListNumber list : probes_->lists_of(query)) {
      rows += std::ssize(view.members->rows_of(list));
    }
    return kFewOf * rows < view.rows;
  }

  // Selects, of the rows that `words` select, those of the lists that a query probes. Returns how
  // many.
  std::int64_t keep_probed(const Task& task, std::int64_t query, const std::uint64_t* words,
                           Workspace& space) const {
    space.probed_words.assign(static_cast<std::size_t>((task.rows + 63) / 64), 0);
    probes_->mark(state_.parts[task.part], query, task.first, task.rows, space.probed_words);
    std::int64_t kept = 0;
    for (std::size_t i = 0; i < space.probed_words.size(); ++i) {
      if (words != nullptr) space.probed_words[i] &= words[i];
      kept += count_bits(space.probed_words[i]);
    }
    return kept;
  }

  const Extents& extents_of(const Task& task) const {
    return state_.parts[task.part].segment->extents();
  }

  // No row of the group of `row` has a higher score.
  float bound_of(const Task& task, std::int64_t query, std::int64_t row, Workspace& space) const {
    const Extents& extents = extents_of(task);
    return score_bound(queries_.metric, extents.least(row), extents.largest(row), queries_.dim,
                       queries_.vector(query), space.corner);
  }

  // True if no row of a group can be a result, from `row` on. `worst` is the lowest score that k
  // rows before it have; rows come in the order of their ids.
  template <typename Bound>
  bool is_ruled_out(const Task& task, std::int64_t query, std::int64_t row, float worst,
                    Bound bound_of_group) const {
    Best& best = *best_[static_cast<std::size_t>(query)];
    if (!(std::max(worst, best.threshold()) > kEmptyScore)) return false;
    const float bound = bound_of_group(row);
    return bound <= worst || best.rules_out({bound, {task.part, row}});
  }

  // Calls add(rows, words) for the rows of a task whose groups are not ruled out, in order, as many
  // at once as are not asked for. Requires: the slots of the scan are the space's.
  template <typename Add>
  void add_groups(const Task& task, std::int64_t query, const std::uint64_t* words,
                  std::int64_t slots, Workspace& space, Add add) const {
    Trial& trial = space.trials[static_cast<std::size_t>(query)];
    const auto bound = [&](std::int64_t row) { return bound_of(task, query, row, space); };
    Task run = task;
    run.rows = 0;
    const auto add_run = [&] {
      if (run.rows > 0) add(run, words_of(task, run, words));
      run.first += std::exchange(run.rows, 0);
    };
    std::int64_t next;
    for (std::int64_t row = task.first; row < task.first + task.rows; row = next) {
      next = std::min(task.first + task.rows, Extents::end_of_group(row));
      bool is_out = false;
      if (trial.is_due()) {
        add_run();
        const float worst = space.scores[static_cast<std::size_t>(slots - 1)];
        trial.record(is_out = is_ruled_out(task, query, row, worst, bound));
      }
      (is_out ? run.first : run.rows) += next - row;
    }
    add_run();
  }

  // The words of some rows of a task.
  static const std::uint64_t* words_of(const Task& task, const Task& run,
                                       const std::uint64_t* words) {
    return words == nullptr ? nullptr : words + (run.first - task.first) / kMaskRows;
  }

  static std::span<const std::uint32_t> rows_between(std::span<const std::uint32_t> rows,
                                                     const Task& task) {
    const auto first = std::ranges::lower_bound(rows, task.first);
    return {first, std::lower_bound(first, rows.end(), task.first + task.rows)};
  }

  // The rows of a list come in the order of their ids, those of several lists in none: so each list
  // has a scan of its own.
  void search_list(const Task& task, std::int64_t query, std::span<const std::uint32_t> rows,
                   const std::uint64_t* words, Workspace& space) const {
    if (rows.empty()) return;
    const std::int64_t slots = std::min({k_, std::ssize(rows), std::ssize(space.rows)});
    const auto scan_rows = [&](auto& scan) {
      for (const std::int64_t row : rows) {
        const std::int64_t i = row - task.first;
        const bool is_selected =
            words == nullptr || (words[i / kMaskRows] >> i % kMaskRows & 1) != 0;
        if (is_selected) scan.add({false, row}, row);
      }
      scan.finish();
      offer_found(task, query, slots, space);
    };
    const Segment& segment = *state_.parts[task.part].segment;
    const ResultSlots results = {slots, space.rows.data(), space.scores.data()};
    if (queries_.metric == Metric::kEuclidean) {
      DistanceScan scan(segment, queries_.vector(query), results,
                        *best_[static_cast<std::size_t>(query)]);
      scan_rows(scan);
    } else {
      Scan scan(segment.index(), queries_.vector(query), results, task.rows);
      scan.leave_out_below(best_[static_cast<std::size_t>(query)]->threshold());
      scan_rows(scan);
    }
  }

  RowSpan span_of(const Task& task, const std::int64_t* ids, const std::uint64_t* words) const {
    return {{false, task.first}, task.rows, ids, words};
  }
  void offer(const Task& task, std::int64_t query, const Workspace& space,
             std::int64_t count) const {
    best_[static_cast<std::size_t>(query)]->offer(task.part, space.rows.data(), space.scores.data(),
                                                  count);
  }

  // Few selected rows are judged sooner one by one.
  bool judges_together(const Task& task, std::int64_t selected) const {
    const Segment* const segment = state_.parts[task.part].segment;
    return kernel_ != nullptr && segment != nullptr && segment->index().base_codes.rows > 0 &&
           task.queries == queries_.count && 4 * selected >= task.rows;
  }

  void judge_segment(const Task& task, const std::uint64_t* words, Workspace& space) const {
    const CodeView codes = view_of(state_.parts[task.part].segment->index().base_codes);
    const auto queries = static_cast<std::size_t>(batch_->size());
    space.waiting.resize(queries * kMaskRows);
    space.waiting_count.assign(queries, 0);
    space.limits.resize(queries);
    space.pairs.resize(queries * TileKernel::kMostRows);
    space.ruled_out.assign(queries, 0);
    std::int64_t rows;
    for (std::int64_t first = 0; first < task.rows; first += rows) {
      const std::int64_t row = task.first + first;
      rows = std::min({TileKernel::kMostRows, task.rows - first, Extents::end_of_group(row) - row});
      set_limits(task, row, space);
      const std::int64_t pairs = kernel_->judge(codes, row, rows, *batch_, space.limits.data(),
                                                space.unpacked, space.pairs.data());
      for (const Pair& pair : std::span(space.pairs).first(static_cast<std::size_t>(pairs))) {
        const std::int64_t place = first + pair.row;
        const bool is_selected = words == nullptr || (words[place / 64] >> place % 64 & 1) != 0;
        if (is_selected) add_waiting(task, pair.query, task.first + place, space);
      }
    }
    for (std::int64_t q = 0; q < batch_->size(); ++q) score_waiting(task, q, space);
  }

  // What bounds must reach from a row on. A group is asked for at its first row.
  void set_limits(const Task& task, std::int64_t row, Workspace& space) const {
    for (std::size_t q = 0; q < space.limits.size(); ++q) {
      const auto query = static_cast<std::int64_t>(q);
      const auto bound = [&](std::int64_t at) { return bound_of(task, query, at, space); };
      if (row == task.first || row % Extents::kGroupRows == 0) {
        const bool is_due = space.trials[q].is_due();
        space.ruled_out[q] = is_due && is_ruled_out(task, query, row, kEmptyScore, bound) ? 1 : 0;
        if (is_due) space.trials[q].record(space.ruled_out[q] != 0);
      }
      space.limits[q] = space.ruled_out[q] != 0 ? std::numeric_limits<float>::infinity()
                                                : bound_limit(best_[q]->threshold(), queries_.dim);
    }
  }

  void add_waiting(const Task& task, std::int64_t query, std::int64_t row, Workspace& space) const {
    std::int64_t& count = space.waiting_count[static_cast<std::size_t>(query)];
    space.waiting[static_cast<std::size_t>(query * kMaskRows + count++)] = row;
    for (std::int64_t j = 0; j < queries_.dim; j += 16) {
      __builtin_prefetch(state_.parts[task.part].part->vector(row) + j);
    }
    if (count == kMaskRows) score_waiting(task, query, space);
  }

  void score_waiting(const Task& task, std::int64_t query, Workspace& space) const {
    std::int64_t& count = space.waiting_count[static_cast<std::size_t>(query)];
    const std::int64_t* const rows =
        space.waiting.data() + static_cast<std::size_t>(query * kMaskRows);
    const float* vectors[kMaskRows];
    float scores[kMaskRows];
    for (std::int64_t i = 0; i < count; ++i) {
      vectors[i] = state_.parts[task.part].part->vector(rows[i]);
    }
    kernels().score_scattered(vectors, count, queries_.dim, queries_.vector(query), scores);
    offer_above(task, query, rows, scores, count, space);
    count = 0;
  }

  // Offers those rows whose scores are no NaN and not too low for every result.
  void offer_above(const Task& task, std::int64_t query, const std::int64_t* rows,
                   const float* scores, std::int64_t count, Workspace& space) const {
    std::int64_t found = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      space.rows[static_cast<std::size_t>(found)] = rows[i];
      space.scores[static_cast<std::size_t>(found)] = scores[i];
      found += scores[i] > kEmptyScore ? 1 : 0;
    }
    offer(task, query, space, found);
  }

  // Offers what is in the slots: those without a row are last.
  void offer_found(const Task& task, std::int64_t query, std::int64_t slots,
                   const Workspace& space) const {
    while (slots > 0 && space.rows[static_cast<std::size_t>(slots - 1)] == kEmptyId) --slots;
    offer(task, query, space, slots);
  }

  // Rows of a segment that are not selected may be read: they are finite, and dead for some only.
  void scan_segment(const Task& task, std::int64_t query, const std::uint64_t* words,
                    bool takes_most, std::int64_t slots, Workspace& space) const {
    const QxIndex& index = state_.parts[task.part].segment->index();
    Scan scan(index, queries_.vector(query), {slots, space.rows.data(), space.scores.data()},
              task.rows);
    scan.leave_out_below(best_[static_cast<std::size_t>(query)]->threshold());
    add_groups(task, query, words, slots, space,
               [&](const Task& rows, const std::uint64_t* words_of_rows) {
                 const RowSpan span = span_of(rows, index.base_ids + rows.first, words_of_rows);
                 if (takes_most) {
                   scan.add_among_readable(span);
                 } else {
                   scan.add(span);
                 }
               });
    scan.finish();
    offer_found(task, query, slots, space);
  }

  void scan_distances(const Task& task, std::int64_t query, const std::uint64_t* words,
                      std::int64_t slots, Workspace& space) const {
    DistanceScan scan(*state_.parts[task.part].segment, queries_.vector(query),
                      {slots, space.rows.data(), space.scores.data()},
                      *best_[static_cast<std::size_t>(query)]);
    add_groups(task, query, words, slots, space,
               [&](const Task& rows, const std::uint64_t* words_of_rows) {
                 scan.add(span_of(rows, nullptr, words_of_rows));
               });
    scan.finish();
    offer_found(task, query, slots, space);
  }

  // Calls visit(rows, vectors, count) for the selected rows, up to kMaskRows at a time.
  template <typename Visit>
  void for_each_rows(const Task& task, const std::uint64_t* words, Visit visit) const {
    const Part& part = *state_.parts[task.part].part;
    const RowSpan span = span_of(task, nullptr, words);
    for (std::int64_t offset = 0; offset < task.rows; offset += kMaskRows) {
      std::int64_t rows[kMaskRows];
      const float* vectors[kMaskRows];
      std::int64_t count = 0;
      for_each_bit(span.mask(offset), [&](std::int64_t i) {
        rows[count] = task.first + offset + i;
        vectors[count++] = part.vector(task.first + offset + i);
      });
      visit(rows, vectors, count);
    }
  }

  // Rows arrive in the order of their ids, which is the top-k buffer's among equals: a row that is
  // no better than its worst does not enter. So where all rows tie, most groups are not read.
  void score_segment(const Task& task, std::int64_t query, const SparseQuery& sparse,
                     const std::uint64_t* words, std::int64_t slots, Workspace& space) const {
    const Extents& extents = extents_of(task);
    TopK topk(space.rows.data(), space.scores.data(), slots);
    const auto score = [&](const std::int64_t* rows, const float* const* vectors,
                           std::int64_t count) {
      float scores[kMaskRows];
      sparse.score(vectors, count, scores);
      topk.offer(scores, rows, count);
    };
    const auto bound = [&](std::int64_t row) {
      return sparse.bound(extents.least(row), extents.largest(row));
    };
    Task group = task;
    for (const std::int64_t end = task.first + task.rows; group.first < end;
         group.first += group.rows) {
      group.rows = std::min(end, Extents::end_of_group(group.first)) - group.first;
      if (is_ruled_out(task, query, group.first, topk.threshold(), bound)) continue;
      for_each_rows(group, words_of(task, group, words), score);
    }
    topk.finish();
    offer_found(task, query, slots, space);
  }

  // The rows of a tail are in no order.
  void score_tail(const Task& task, std::int64_t query, const std::uint64_t* words,
                  Workspace& space) const {
    for_each_rows(task, words,
                  [&](const std::int64_t* rows, const float* const* vectors, std::int64_t count) {
                    float scores[kMaskRows];
                    score_rows(queries_.metric, vectors, count, queries_.dim,
                               queries_.vector(query), scores);
                    offer_above(task, query, rows, scores, count, space);
                  });
  }

  const State& state_;
  const Selection& selection_;
  const Queries& queries_;
  const std::int64_t k_;
  std::vector<std::unique_ptr<Best>>& best_;
  const TileKernel* kernel_ = nullptr;
  const CodedBatch* batch_ = nullptr;
  const Probes* probes_ = nullptr;
};

// The beginning of the largest segment, where several queries are judged at once: that takes inner
// products, tiles, codes of every query, and thresholds.
Opening find_opening(const State& state, const Queries& queries, std::int64_t k,
                     CodedBatch& batch) {
  constexpr std::int64_t kFewQueries = 8;
  constexpr std::int64_t kLeastRows = 1024;
  Opening opening;
  const bool can_judge =
      TileKernel::find() != nullptr && queries.probes == 0 && queries.metric != Metric::kEuclidean;
  if (!can_judge || queries.count < kFewQueries) return opening;
  for (std::size_t part = 0; part < state.parts.size(); ++part) {
    const PartView& view = state.parts[part];
    if (view.segment == nullptr || view.segment->index().base_codes.rows == 0) continue;
    if (view.rows > state.parts[opening.part].rows || opening.rows == 0) opening = {part, 1};
  }
  const std::int64_t wanted = std::max(kLeastRows, 4 * k / kMaskRows * kMaskRows);
  if (opening.rows == 0 || state.parts[opening.part].rows < 4 * wanted) return {};
  for (std::int64_t q = 0; q < queries.count; ++q) {
    if (!batch.add(queries.vector(q))) return {};
  }
  opening.rows = wanted;
  return opening;
}

// The queries as rows are kept; none where that changes nothing.
std::vector<float> kept_vectors(const Queries& given) {
  std::vector<float> kept;
  if (given.metric != Metric::kCosine) return kept;
  kept.resize(static_cast<std::size_t>(given.count * given.dim));
  in_default_fp_environment([&] {
    for (std::int64_t q = 0; q < given.count; ++q) {
      keep_vector(given.metric, given.vector(q), given.dim, kept.data() + q * given.dim);
    }
  });
  return kept;
}

// One pass, of all rows or of the lists that are probed.
std::vector<std::vector<Hit>> search_once(const State& state, const Selection& selection,
                                          const Queries& given, std::int64_t k, int most_threads,
                                          const Progress& progress) {
  const std::vector<float> kept = kept_vectors(given);
  Queries queries = given;
  if (!kept.empty()) queries.vectors = kept.data();
  const int threads = std::min(most_threads, cpus());
  std::vector<std::unique_ptr<Best>> best;
  for (std::int64_t q = 0; q < queries.count; ++q) {
    best.push_back(std::make_unique<Best>(state, k, queries.limit));
  }
  std::vector<Workspace> spaces(static_cast<std::size_t>(threads));
  Searcher searcher(state, selection, queries, k, best);
  const auto run = [&](const std::vector<Task>& tasks) {
    parallel_for(std::ssize(tasks), threads, progress, [&](std::int64_t task, int worker) {
      in_default_fp_environment([&] {
        searcher.run(tasks[static_cast<std::size_t>(task)],
                     spaces[static_cast<std::size_t>(worker)]);
      });
    });
  };
  std::optional<Probes> probes;
  if (queries.probes > 0) searcher.probe(probes.emplace(*state.lists, queries));
  CodedBatch batch(queries.dim);
  Opening opening;
  in_default_fp_environment([&] { opening = find_opening(state, queries, k, batch); });
  if (opening.rows > 0) {
    std::vector<Task> tasks;
    split_part(opening.part, 0, opening.rows, opening.rows, queries.count,
               queries_of_task(1, queries.count, threads), tasks);
    run(tasks);
    searcher.judge_together(*TileKernel::find(), batch);
  }
  run(split(state, queries, opening, threads));
  std::vector<std::vector<Hit>> hits(best.size());
  in_default_fp_environment([&] {
    for (std::size_t q = 0; q < best.size(); ++q) hits[q] = best[q]->take();
  });
  return hits;
}

}  // namespace

std::vector<std::vector<Hit>> search(const State& state, const Selection& selection,
                                     const Queries& queries, std::int64_t k, int threads,
                                     const Progress& progress) {
  if (queries.count == 0) return {};
  auto hits = search_once(state, selection, queries, k, threads, progress);
  if (queries.probes == 0 || queries.limit) return hits;
  std::vector<float> again;
  std::vector<std::size_t> numbers;
  for (std::size_t q = 0; q < hits.size(); ++q) {
    if (std::ssize(hits[q]) == k) continue;
    const float* const query = queries.vector(static_cast<std::int64_t>(q));
    again.insert(again.end(), query, query + queries.dim);
    numbers.push_back(q);
  }
  const std::int64_t probes = 4 * queries.probes;
  auto further = search(state, selection,
                        {again.data(),
                         std::ssize(numbers),
                         queries.dim,
                         queries.metric,
                         probes < state.lists->count() ? probes : 0,
                         {}},
                        k, threads, progress);
  for (std::size_t i = 0; i < numbers.size(); ++i) hits[numbers[i]] = std::move(further[i]);
  return hits;
}

}  // namespace qx::collection
