// Searches and other reads.
#include <algorithm>
#include <cstring>

#include "interface/handles.h"
#include "interface/results.h"

using namespace qx::collection;

namespace {

// The most threads that a call may use.
int threads_of(const QxCollection& collection, const QxSearch* search) {
  const int most = collection.collection.threads();
  if (search == nullptr || search->threads == 0) return most;
  require(search->threads > 0,
          [&] { return "threads is " + std::to_string(search->threads) + ", below 0"; });
  return std::min(most, search->threads);
}

std::string describe(const State& state, const Restriction& restriction) {
  constexpr const char* kWays[] = {"scan", "bitmap", "candidates"};
  const Selection selection(state, restriction);
  std::string text;
  for (std::size_t p = 0; p < state.parts.size(); ++p) {
    const std::int64_t rows = state.parts[p].rows;
    std::vector<std::uint64_t> words(static_cast<std::size_t>((rows + 63) / 64));
    const auto way = static_cast<std::size_t>(selection.way(p));
    const std::int64_t passing = rows == 0 ? 0 : selection.select(p, 0, rows, words.data());
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
    const Progress progress(search == nullptr ? nullptr : search->progress,
                            search == nullptr ? nullptr : search->progress_context);
    const int threads = threads_of(*collection, search);
    const std::int64_t slots = std::min(k, reading.state().visible_rows());
    std::vector<std::vector<Hit>> hits(static_cast<std::size_t>(n_queries));
    if (slots > 0) {
      hits = qx::collection::search(reading.state(), {reading.state(), restriction},
                                    {queries, n_queries, shape.dim, shape.metric}, slots, threads,
                                    progress);
    }
    slot = new OwnedHits(reading.state(), shape, hits, slots);
  });
}

void qx_hits_free(QxHits* hits) { delete static_cast<OwnedHits*>(hits); }

int32_t qx_collection_explain(const QxCollection* collection, const QxView* view,
                              const QxSearch* search, char** out) {
  return status_of([&] {
    char*& slot = given(out, "out");
    const Reading reading(collection, view);
    const std::string text = describe(reading.state(), Restriction(reading.shape(), search));
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
}
