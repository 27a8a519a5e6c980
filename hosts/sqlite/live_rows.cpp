#include "live_rows.h"

#include <algorithm>
#include <compare>

#include "ivf_state.h"

namespace qx_sqlite {
namespace {

constexpr std::int64_t kIvfKey = 0;
// With more changed rows, the index is made anew, and lists of an IVF are not searched.
constexpr std::size_t kManyChanged = 10'000;

// The first k, by score and among equals by rowid.
void order(qx::Hits* hits, std::size_t k) {
  std::vector<qx::Hit> sorted(hits->begin(), hits->end());
  std::sort(sorted.begin(), sorted.end(), [](const qx::Hit& a, const qx::Hit& b) {
    return a.score != b.score ? a.score > b.score : a.id < b.id;
  });
  sorted.resize(std::min(sorted.size(), k));
  hits->ids.clear();
  hits->scores.clear();
  for (const qx::Hit& hit : sorted) {
    hits->ids.push_back(hit.id);
    hits->scores.push_back(hit.score);
  }
}

}  // namespace

bool Condition::passes(std::optional<std::int64_t> number) const {
  if (!number || test == Test::kNull) return !number && test == Test::kNull;
  if (test == Test::kNotNull) return true;
  if (test == Test::kIn) return std::binary_search(numbers.begin(), numbers.end(), *number);
  const auto order = *number <=> numbers[0];
  return (test == Test::kEqual && std::is_eq(order)) ||
         (test == Test::kNotEqual && std::is_neq(order)) ||
         (test == Test::kLess && std::is_lt(order)) ||
         (test == Test::kLessOrEqual && std::is_lteq(order)) ||
         (test == Test::kGreater && std::is_gt(order)) ||
         (test == Test::kGreaterOrEqual && std::is_gteq(order));
}

const char* name_of(AccessPath path) {
  constexpr const char* kNames[] = {"exact",    "current",    "partition",
                                    "filtered", "candidates", "ivf"};
  return kNames[static_cast<int>(path)];
}

LiveRows::LiveRows(Storage& storage, const Declaration& declaration)
    : storage_(storage), declaration_(declaration), reader_(declaration_) {}

void LiveRows::begin() {
  writing_ = true;
  loaded_while_writing_ = false;
  entry_before_writing_ = entry_;
  uncommitted_.clear();
}

void LiveRows::undo() {
  if (loaded_while_writing_) index_.reset();
  entry_ = entry_before_writing_;
  doubtful_.insert(doubtful_.end(), uncommitted_.begin(), uncommitted_.end());
}

void LiveRows::end() {
  writing_ = false;
  loaded_while_writing_ = false;
  uncommitted_.clear();
}

void LiveRows::catch_up() {
  const std::int64_t generation = storage_.generation();
  const std::int64_t last = storage_.last_entry();
  if (!index_ || generation != generation_ ||
      changed_.size() > kManyChanged + static_cast<std::size_t>(index_->size()) / 2) {
    load();
    generation_ = generation;
  } else if (last != entry_ || !doubtful_.empty()) {
    std::vector<std::int64_t> rowids = std::exchange(doubtful_, {});
    storage_.written_after().each([&](const Statement& log) { rowids.push_back(log.integer(0)); },
                                  entry_);
    std::sort(rowids.begin(), rowids.end());
    rowids.erase(std::unique(rowids.begin(), rowids.end()), rowids.end());
    refresh(rowids);
    if (writing_) uncommitted_.insert(uncommitted_.end(), rowids.begin(), rowids.end());
  }
  entry_ = last;
}

void LiveRows::load() {
  index_.reset();
  changed_.clear();
  changed_set_.clear();
  doubtful_.clear();
  ivf_lists_ = 0;
  if (writing_) loaded_while_writing_ = true;

  AllRows rows = reader_.read_all(storage_);
  Rows& base = rows.base;
  const Rows& sparse = rows.sparse;
  const std::optional<Ivf> ivf = IvfState(storage_, reader_, declaration_.dim).ivf_of(base);
  qx::Index index(static_cast<std::int32_t>(declaration_.dim));
  index.build(base.vectors, base.ids, rows.partitions);
  base.vectors = Floats();
  const std::int32_t columns = reader_.slots().columns;
  index.set_rowmeta(base.ids, base.labels, base.values, columns);
  if (!sparse.ids.empty()) {
    index.insert(sparse.vectors, sparse.ids);
    index.set_rowmeta(sparse.ids, sparse.labels, sparse.values, columns);
    for (const std::int64_t id : sparse.ids) note_changed(id);
  }
  if (ivf) {
    index.set_ivf(kIvfKey, ivf->nprobe, ivf->centroids, ivf->ids, ivf->offsets);
    ivf_lists_ = ivf->lists();
  }
  index_ = std::move(index);
}

void LiveRows::note_changed(std::int64_t rowid) {
  if (changed_set_.insert(rowid).second) changed_.push_back(rowid);
}

void LiveRows::refresh(const std::vector<std::int64_t>& rowids) {
  Rows rows;
  std::vector<std::int64_t> gone;
  try {
    for (const std::int64_t rowid : rowids) {
      const std::size_t before = rows.ids.size();
      storage_.one_row().each([&](const Statement& row) { reader_.read(row, &rows); }, rowid);
      if (rows.ids.size() == before) gone.push_back(rowid);
      note_changed(rowid);
    }
    index_->insert(rows.vectors, rows.ids);
    index_->set_rowmeta(rows.ids, rows.labels, rows.values, reader_.slots().columns);
    index_->erase(gone);
  } catch (...) {
    index_.reset();
    throw;
  }
}

qx::Filter LiveRows::filter(const Condition& condition) const {
  const int slot = reader_.slots().of_column[static_cast<std::size_t>(condition.column)];
  const std::int64_t value = stored(condition.numbers[0]);
  return slot == NumberSlots::kLabel ? qx::Filter::label(value) : qx::Filter::column(slot, value);
}

AccessPath LiveRows::access_path(const std::vector<Condition>& conditions) const {
  if (conditions.empty()) {
    if (ivf_lists_ > 0 && changed_.size() <= kManyChanged) return AccessPath::kIvf;
    return changed_.empty() ? AccessPath::kExact : AccessPath::kCurrent;
  }
  const Condition& first = conditions[0];
  if (conditions.size() > 1 || first.column < 0 || first.test != Condition::Test::kEqual) {
    return AccessPath::kCandidates;
  }
  return first.column == declaration_.partition_column() && changed_.empty()
             ? AccessPath::kPartition
             : AccessPath::kFiltered;
}

qx::Hits LiveRows::search(std::span<const float> query, std::int64_t k,
                          const std::vector<Condition>& conditions) const {
  // No stored number is the least one, which has no place one lower.
  for (const Condition& condition : conditions) {
    if (condition.test == Condition::Test::kEqual && condition.numbers[0] == kLeastNumber) {
      return {};
    }
  }
  const AccessPath path = access_path(conditions);
  const std::vector<std::int64_t> listed =
      path == AccessPath::kCandidates ? candidates(conditions) : std::vector<std::int64_t>();
  const auto best = [&](std::int64_t count) {
    switch (path) {
      case AccessPath::kExact:
        return index_->search_full(query, count);
      case AccessPath::kCurrent:
        return index_->search_filtered(qx::Filter::all(), query, count);
      case AccessPath::kPartition:
        return index_->search_partition(conditions[0].numbers[0], query, count);
      case AccessPath::kFiltered:
        return index_->search_filtered(filter(conditions[0]), query, count);
      case AccessPath::kIvf:
        return ivf_hits(query, count);
      default:
        return changed_.empty() ? index_->scatter_topk(listed, query, count)
                                : index_->search_mvcc(listed, query, count);
    }
  };
  if (k == 0) return {};
  // More rows may have the score of the k-th: all of them are needed to order by rowid.
  const std::int64_t most = index_->size() + static_cast<std::int64_t>(changed_.size());
  const auto last = static_cast<std::size_t>(std::min(k, most));
  qx::Hits hits;
  for (std::int64_t count = std::min(k, most) + 1;; count *= 2) {
    hits = best(count);
    if (static_cast<std::int64_t>(hits.size()) < count ||
        hits.scores.back() != hits.scores[last - 1])
      break;
  }
  order(&hits, last);
  return hits;
}

// The lists have base rows alone: rows that have changed since are left out of their results, and
// all searched exactly.
qx::Hits LiveRows::ivf_hits(std::span<const float> query, std::int64_t k) const {
  qx::Hits hits = index_->search_mvcc(changed_, query, k);
  const qx::Hits of_lists =
      index_->search_ivf(kIvfKey, query, k + static_cast<std::int64_t>(changed_.size()));
  for (const qx::Hit hit : of_lists) {
    if (changed_set_.contains(hit.id)) continue;
    hits.ids.push_back(hit.id);
    hits.scores.push_back(hit.score);
  }
  order(&hits, static_cast<std::size_t>(k));
  return hits;
}

std::vector<std::int64_t> LiveRows::candidates(const std::vector<Condition>& conditions) const {
  using Test = Condition::Test;
  const auto first = std::find_if(conditions.begin(), conditions.end(), [](const Condition& c) {
    return c.column < 0 && (c.test == Test::kEqual || c.test == Test::kIn);
  });
  const auto equal = std::find_if(conditions.begin(), conditions.end(), [](const Condition& c) {
    return c.column >= 0 && c.test == Test::kEqual;
  });
  std::vector<std::int64_t> ids = first != conditions.end()   ? first->numbers
                                  : equal != conditions.end() ? index_->match_ids(filter(*equal))
                                                              : index_->visible_ids();
  const qx::RowMeta meta = index_->export_rowmeta(ids);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const bool passes = std::all_of(conditions.begin(), conditions.end(), [&](const Condition& c) {
      if (c.column < 0) return c.passes(ids[i]);
      const int slot = reader_.slots().of_column[static_cast<std::size_t>(c.column)];
      return c.passes(number_of(slot == NumberSlots::kLabel
                                    ? meta.labels[i]
                                    : meta.values[i * static_cast<std::size_t>(meta.ncols) +
                                                  static_cast<std::size_t>(slot)]));
    });
    if (passes) ids[kept++] = ids[i];
  }
  ids.resize(kept);
  return ids;
}

}  // namespace qx_sqlite
