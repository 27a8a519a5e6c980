// Searches and other reads.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "interface/handles.h"
#include "interface/results.h"
#include "search/tuning.h"

using namespace qx::collection;

namespace {

// The most threads that a call may use.
int threads_of(const QxCollection& collection, const QxSearch* search) {
  const int most = collection.collection.shape().threads;
  if (search == nullptr || search->threads == 0) return most;
  require(search->threads > 0,
          [&] { return "threads is " + std::to_string(search->threads) + ", below 0"; });
  return std::min(most, search->threads);
}

Progress progress_of(const QxSearch* search) {
  return {search == nullptr ? nullptr : search->progress,
          search == nullptr ? nullptr : search->progress_context};
}

// How many lists a query searches; 0: all rows.
std::int64_t probes_of(const State& state, const QxSearch* search) {
  const std::int32_t probes = search == nullptr ? 0 : search->probes;
  require(probes >= 0, [&] { return "probes is " + std::to_string(probes) + ", below 0"; });
  require(probes == 0 || state.lists != nullptr,
          [] { return std::string("there are no lists to probe"); });
  return probes == 0 || probes >= state.lists->count() ? 0 : probes;
}

// The least score of a hit, as rows are ranked.
std::optional<float> limit_of(const Shape& shape, const QxSearch* search) {
  if (search == nullptr || search->limit == nullptr) return {};
  require(std::isfinite(*search->limit),
          [&] { return "limit is " + std::to_string(*search->limit) + ", not finite"; });
  return score_given_out(shape.metric, *search->limit);
}

std::string lists_text(std::int64_t probes, const Lists& lists) {
  return "of " + std::to_string(lists.count()) + " lists, the nearest " + std::to_string(probes) +
         "\n";
}

std::string describe(const State& state, const Restriction& restriction) {
  constexpr const char* kWays[] = {"scan", "bitmap", "candidates"};
  const Selection selection(state, restriction);
  std::string text;
  for (std::size_t p = 0; p < state.parts.size(); ++p) {
    const std::int64_t rows = state.parts[p].rows;
    std::vector<std::uint64_t> words(static_cast<std::size_t>((rows + 63) / 64));
    const auto way = static_cast<std::size_t>(selection.way(p));
    const std::int64_t passing = selection.select(p, 0, rows, words.data());
    text += std::string(state.parts[p].segment != nullptr ? "segment" : "tail") + " of " +
            std::to_string(rows) + " rows: " + kWays[way] + ", " + std::to_string(passing) +
            " pass\n";
  }
  return text;
}

}  // namespace

int32_t qx_collection_search(const QxCollection* collection, const QxView* view,
                             const float* queries, int64_t n_queries, int64_t k,
                             const QxSearch* search, QxHits** out) {
  return status_of([&] {
    QxHits*& slot = given(out, "out");
    const Reading reading(collection, view);
    const Shape& shape = reading.shape();
    require(n_queries >= 0, [&] { return "n_queries is " + std::to_string(n_queries); });
    require(k >= 0, [&] { return "k is " + std::to_string(k) + ", below 0"; });
    require(queries != nullptr || n_queries == 0, [] { return "queries is null"; });
    require_finite("query", queries, static_cast<std::size_t>(n_queries), shape.dim);
    const Restriction restriction(shape, search);
    const Progress progress = progress_of(search);
    const int threads = threads_of(*collection, search);
    const std::int64_t slots = std::min(k, reading.state().visible_rows());
    const std::int64_t probes = probes_of(reading.state(), search);
    const std::optional<float> limit = limit_of(shape, search);
    std::vector<std::vector<Hit>> hits(static_cast<std::size_t>(n_queries));
    if (slots > 0) {
      hits = qx::collection::search(reading.state(), {reading.state(), restriction},
                                    {queries, n_queries, shape.dim, shape.metric, probes, limit},
                                    slots, threads, progress);
    }
    slot = new OwnedHits(reading.state(), shape, hits, slots);
  });
}

int32_t qx_collection_tune(const QxCollection* collection, const float* queries, int64_t n_queries,
                           int64_t k, double recall, const QxSearch* search, QxTuning* out) {
  return status_of([&] {
    given(out, "out");
    constexpr std::int64_t kMostSampled = 200;
    const Reading reading(collection, nullptr);
    const State& state = reading.state();
    const std::int32_t dim = reading.shape().dim;
    require(state.lists != nullptr, [] { return std::string("there are no lists to probe"); });
    require(queries == nullptr || n_queries >= 1,
            [&] { return "n_queries is " + std::to_string(n_queries); });
    require(k >= 1, [&] { return "k is " + std::to_string(k) + ", below 1"; });
    require(recall > 0 && recall <= 1,
            [&] { return "recall is " + std::to_string(recall) + ", not above 0 and at most 1"; });
    std::vector<const float*> given;
    if (queries == nullptr) {
      given = sample_of(state, kMostSampled);
      require(!given.empty(), [] { return std::string("there are no rows to sample"); });
    } else {
      require_finite("query", queries, static_cast<std::size_t>(n_queries), dim);
      for (std::int64_t q = 0; q < n_queries; ++q) given.push_back(queries + q * dim);
    }
    std::vector<float> kept(given.size() * static_cast<std::size_t>(dim));
    float* next = kept.data();
    for (const float* const query : given) {
      keep_vector(reading.shape().metric, query, dim, next);
      next += dim;
    }
    const Restriction restriction(reading.shape(), search);
    *out = tune(state, {state, restriction},
                {kept.data(), std::ssize(given), dim, reading.shape().metric, 0, {}},
                std::min(k, std::max<std::int64_t>(state.visible_rows(), 1)), recall,
                progress_of(search));
  });
}

void qx_hits_free(QxHits* hits) { delete static_cast<OwnedHits*>(hits); }

int32_t qx_collection_explain(const QxCollection* collection, const QxView* view,
                              const QxSearch* search, char** out) {
  return status_of([&] {
    char*& slot = given(out, "out");
    const Reading reading(collection, view);
    const std::int64_t probes = probes_of(reading.state(), search);
    std::string text = describe(reading.state(), Restriction(reading.shape(), search));
    if (probes > 0) text = lists_text(probes, *reading.state().lists) + text;
    slot = new char[text.size() + 1];
    std::memcpy(slot, text.c_str(), text.size() + 1);
  });
}

void qx_text_free(char* text) { delete[] text; }

int32_t qx_collection_get(const QxCollection* collection, const QxView* view, QxIds ids,
                          QxRows** out) {
  return status_of([&] {
    QxRows*& slot = given(out, "out");
    const Reading reading(collection, view);
    const std::vector<Key> keys = keys_of(reading.shape(), ids);
    std::vector<Location> places;
    places.reserve(keys.size());
    for (const Key& key : keys) places.push_back(reading.state().find(key));
    slot = new OwnedRows(reading.state(), reading.shape(), keys, places);
  });
}

void qx_rows_free(QxRows* rows) { delete static_cast<OwnedRows*>(rows); }

int32_t qx_collection_contains(const QxCollection* collection, const QxView* view, QxIds ids,
                               uint8_t* found) {
  return status_of([&] {
    const Reading reading(collection, view);
    const std::vector<Key> keys = keys_of(reading.shape(), ids);
    if (keys.empty()) return;
    require(found != nullptr, [] { return "found is null"; });
    for (std::size_t i = 0; i < keys.size(); ++i) {
      found[i] = reading.state().find(keys[i]).exists() ? 1 : 0;
    }
  });
}

int32_t qx_collection_list(const QxCollection* collection, const QxView* view, const char* filter,
                           QxIds after, int64_t most, QxRows** out) {
  return status_of([&] {
    QxRows*& slot = given(out, "out");
    const Reading reading(collection, view);
    const State& state = reading.state();
    const std::vector<Key> start = keys_of(reading.shape(), after);
    require(start.size() <= 1, [] { return "`after` holds more than one id"; });
    require(most >= 0, [&] { return "most is " + std::to_string(most) + ", below 0"; });
    QxSearch search = {};
    search.filter = filter;
    const Restriction restriction(reading.shape(), &search);
    Cursor cursor(state, start.empty() ? nullptr : start.data());
    std::vector<Key> keys;
    std::vector<Location> places;
    for (Location at; std::ssize(keys) < most && cursor.next(&at);) {
      if (!restriction.is_true_of(state.part(at), at.row())) continue;
      keys.push_back(state.key(at));
      places.push_back(at);
    }
    slot = new OwnedRows(state, reading.shape(), keys, places);
  });
}

int64_t qx_collection_count(const QxCollection* collection, const QxView* view) {
  std::int64_t count = -1;
  status_of([&] { count = Reading(collection, view).state().visible_rows(); });
  return count;
}

void qx_collection_stats(const QxCollection* collection, QxCollectionStats* out) {
  const Reading reading(collection, nullptr);
  *out = {};
  for (const PartView& part : reading.state().parts) {
    out->rows += part.rows - part.dead;
    out->dead_rows += part.dead;
    (part.segment != nullptr ? out->segments : out->tail_rows) +=
        part.segment != nullptr ? 1 : part.rows - part.dead;
  }
  out->bytes = reading.shape().budget->used();
  out->lists = reading.state().lists == nullptr ? 0 : reading.state().lists->count();
}
