#include "search/search.h"

#include <algorithm>

#include "kernels/kernels.h"
#include "read/scan.h"
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
std::int64_t rows_of_task(std::int64_t dim, std::int64_t queries) {
  constexpr std::int64_t kAlone = 65536;
  constexpr std::int64_t kCachedBytes = std::int64_t{1} << 20;
  if (queries == 1) return kAlone;
  return std::clamp<std::int64_t>(kCachedBytes / (dim / 2 + 8) / 64 * 64, 1024, kAlone);
}

// Queries of a task: all of them, unless rows are too few to keep every thread busy.
std::int64_t queries_of_task(std::int64_t ranges, std::int64_t queries, int threads) {
  const std::int64_t wanted = 4 * std::int64_t{threads};
  const std::int64_t blocks = std::clamp<std::int64_t>(wanted / ranges, 1, queries);
  return threads == 1 ? queries : (queries + blocks - 1) / blocks;
}

std::vector<Task> split(const State& state, const Queries& queries, int threads) {
  const std::int64_t most = rows_of_task(queries.dim, queries.count);
  std::int64_t ranges = 0;
  for (const PartView& view : state.parts) ranges += (view.rows + most - 1) / most;
  std::vector<Task> tasks;
  if (ranges == 0 || queries.count == 0) return tasks;
  const std::int64_t together = queries_of_task(ranges, queries.count, threads);
  for (std::size_t part = 0; part < state.parts.size(); ++part) {
    const std::int64_t rows = state.parts[part].rows;
    for (std::int64_t first = 0; first < rows; first += most) {
      for (std::int64_t query = 0; query < queries.count; query += together) {
        tasks.push_back({part, first, std::min(most, rows - first), query,
                         std::min(together, queries.count - query)});
      }
    }
  }
  return tasks;
}

// What one thread needs, whatever it searches.
struct Workspace {
  std::vector<std::uint64_t> words;
  std::vector<std::int64_t> rows;
  std::vector<float> scores;
};

// Every score of the null query is +0.0: the first rows are the best.
bool is_null(const float* query, std::int32_t dim) {
  return std::all_of(query, query + dim, [](float component) { return component == 0; });
}

class Searcher {
 public:
  Searcher(const State& state, const Selection& selection, const Queries& queries, std::int64_t k,
           std::vector<std::unique_ptr<Best>>& best)
      : state_(state), selection_(selection), queries_(queries), k_(k), best_(best) {}

  void run(const Task& task, Workspace& space) const {
    space.words.resize(static_cast<std::size_t>((task.rows + 63) / 64));
    const bool takes_all = selection_.way(task.part) == Selection::Way::kScan;
    std::int64_t selected = task.rows;
    if (!takes_all) {
      selected = selection_.select(task.part, task.first, task.rows, space.words.data());
    }
    if (selected == 0) return;
    const std::uint64_t* const words = takes_all ? nullptr : space.words.data();
    const std::int64_t slots = std::min(k_, selected);
    const auto room = static_cast<std::size_t>(std::max(slots, kMaskRows));
    space.rows.resize(room);
    space.scores.resize(room);
    for (std::int64_t q = task.first_query; q < task.first_query + task.queries; ++q) {
      if (is_null(queries_.vector(q), queries_.dim)) {
        take_first(task, q, words, slots, space);
      } else if (state_.parts[task.part].segment != nullptr) {
        scan_segment(task, q, words, slots, space);
      } else {
        score_tail(task, q, words, space);
      }
    }
  }

 private:
  RowSpan span_of(const Task& task, const std::int64_t* ids, const std::uint64_t* words) const {
    return {{false, task.first}, task.rows, ids, words};
  }
  void offer(const Task& task, std::int64_t query, const Workspace& space,
             std::int64_t count) const {
    best_[static_cast<std::size_t>(query)]->offer(task.part, space.rows.data(), space.scores.data(),
                                                  count);
  }

  void scan_segment(const Task& task, std::int64_t query, const std::uint64_t* words,
                    std::int64_t slots, Workspace& space) const {
    const QxIndex& index = state_.parts[task.part].segment->index();
    Scan scan(index, queries_.vector(query), {slots, space.rows.data(), space.scores.data()},
              task.rows);
    scan.leave_out_below(best_[static_cast<std::size_t>(query)]->threshold());
    scan.add(span_of(task, index.base_ids + task.first, words));
    scan.finish();
    std::int64_t found = slots;
    while (found > 0 && space.rows[static_cast<std::size_t>(found - 1)] == kEmptyId) --found;
    offer(task, query, space, found);
  }

  void score_tail(const Task& task, std::int64_t query, const std::uint64_t* words,
                  Workspace& space) const {
    const Part& part = *state_.parts[task.part].part;
    const RowSpan span = span_of(task, nullptr, words);
    for (std::int64_t offset = 0; offset < task.rows; offset += kMaskRows) {
      const float* vectors[kMaskRows];
      std::int64_t count = 0;
      for_each_bit(span.mask(offset), [&](std::int64_t i) {
        space.rows[static_cast<std::size_t>(count)] = task.first + offset + i;
        vectors[count++] = part.vector(task.first + offset + i);
      });
      kernels().score_scattered(vectors, count, queries_.dim, queries_.vector(query),
                                space.scores.data());
      std::int64_t kept = 0;
      for (std::int64_t i = 0; i < count; ++i) {
        const float score = space.scores[static_cast<std::size_t>(i)];
        space.scores[static_cast<std::size_t>(kept)] = score;
        space.rows[static_cast<std::size_t>(kept)] = space.rows[static_cast<std::size_t>(i)];
        kept += score > kEmptyScore ? 1 : 0;
      }
      offer(task, query, space, kept);
    }
  }

  void take_first(const Task& task, std::int64_t query, const std::uint64_t* words,
                  std::int64_t slots, Workspace& space) const {
    const bool is_sorted = state_.parts[task.part].segment != nullptr;
    const RowSpan span = span_of(task, nullptr, words);
    std::int64_t taken = 0;
    for (std::int64_t offset = 0; offset < task.rows; offset += kMaskRows) {
      std::int64_t count = 0;
      for_each_bit(span.mask(offset), [&](std::int64_t i) {
        space.rows[static_cast<std::size_t>(count++)] = task.first + offset + i;
      });
      std::fill_n(space.scores.begin(), count, 0.0f);
      offer(task, query, space, count);
      taken += count;
      if (is_sorted && taken >= slots) return;
    }
  }

  const State& state_;
  const Selection& selection_;
  const Queries& queries_;
  const std::int64_t k_;
  std::vector<std::unique_ptr<Best>>& best_;
};

}  // namespace

std::vector<std::vector<Hit>> search(const State& state, const Selection& selection,
                                     const Queries& queries, std::int64_t k, int threads,
                                     const Progress& progress) {
  std::vector<std::unique_ptr<Best>> best;
  for (std::int64_t q = 0; q < queries.count; ++q) {
    best.push_back(std::make_unique<Best>(state, k));
  }
  const std::vector<Task> tasks = split(state, queries, threads);
  std::vector<Workspace> spaces(static_cast<std::size_t>(threads));
  const Searcher searcher(state, selection, queries, k, best);
  parallel_for(std::ssize(tasks), threads, progress, [&](std::int64_t task, int worker) {
    in_default_fp_environment([&] {
      searcher.run(tasks[static_cast<std::size_t>(task)], spaces[static_cast<std::size_t>(worker)]);
    });
  });
  std::vector<std::vector<Hit>> hits(best.size());
  in_default_fp_environment([&] {
    for (std::size_t q = 0; q < best.size(); ++q) hits[q] = best[q]->take();
  });
  return hits;
}

}  // namespace qx::collection
