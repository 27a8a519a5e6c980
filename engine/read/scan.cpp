#include "read/scan.h"

#include <numeric>

#include "kernels/tuning.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {

Scan::Scan(const QxIndex& index, const float* query, const ResultSlots& slots, std::int64_t rows)
    : index_(index),
      query_(query),
      rows_(rows),
      slots_(slots),
      topk_(slots.ids, slots.scores, slots.k),
      pruner_(slots.k) {}

// Codes are judged fastest one after the other: where they can judge, and not too few rows are
// selected, those of all rows are.
void Scan::add(const RowSpan& span) {
  for (std::int64_t offset = 0; offset < span.count(); offset += JudgeChoice::kMostRows) {
    const std::int64_t count = std::min(JudgeChoice::kMostRows, span.count() - offset);
    const std::int64_t selected = span.count_selected(offset, count);
    const bool is_dense = tuning::most_judged_per_selected(dim_, level_) * selected >= count;
    if (is_dense && selected < count && !span.in_delta() && has_base_bounds()) {
      add_among_others(span, offset, count);
    } else {
      add_windows(span, offset, count);
    }
  }
}

bool Scan::has_base_bounds() {
  if (!is_coded(false)) return false;
  if (!opened_) in_default_fp_environment([&] { open(); });
  return pruner_.has_bounds();
}

void Scan::add_windows(const RowSpan& span, std::int64_t offset, std::int64_t count) {
  const std::int64_t end = offset + count;
  for (; offset < end; offset += kBlockRows) {
    add_window(span, offset, std::min(kBlockRows, end - offset));
  }
}

// Vectors that are left out are not read: rows are scanned as they are only if all of them are
// selected. If most are, they are listed together, which is cheaper than one by one.
void Scan::add_window(const RowSpan& span, std::int64_t offset, std::int64_t count) {
  const std::int64_t selected = span.count_selected(offset, count);
  if (selected == count) {
    add_rows(span.row(offset), count, span.ids() + offset);
  } else if (!span.in_delta() && 2 * selected > count) {
    flush();
    list_base_rows(span, offset, count);
  } else {
    span.for_each_row(offset, count, [&](std::int64_t i) { add(span.row(i), span.ids()[i]); });
  }
}

void Scan::list_base_rows(const RowSpan& span, std::int64_t offset, std::int64_t count) {
  const std::int64_t dim = dim_;
  const float* const rows = vector_of(index_, span.row(0), dim);
  const std::int64_t* const ids = span.ids();
  std::int64_t listed = 0;
  span.for_each_row(offset, count, [&](std::int64_t i) {
    listed_rows_[listed] = span.row(i).number;
    listed_vectors_[listed] = rows + i * dim;
    listed_ids_[listed++] = ids[i];
  });
  listed_ = listed;
}

void Scan::add_base_rows(std::int64_t first, std::int64_t count, const std::int64_t* ids) {
  add_rows({false, first}, count, ids);
}

void Scan::add_among_readable(const RowSpan& span) {
  reads_others_ = true;
  add_among_others(span, 0, span.count());
  reads_others_ = false;
}

// Blocks of the run start at multiples of kMaskRows.
void Scan::add_among_others(const RowSpan& span, std::int64_t offset, std::int64_t count) {
  QX_ASSERT(!span.in_delta());
  flush();
  const Row first = span.row(offset);
  run_ = {false, first, vector_of(index_, first, dim_), span.ids() + offset, count};
  among_ = &span;
  flush();
  among_ = nullptr;
}

// Where a block of the run is in its span.
std::int64_t Scan::offset_of(const Block& block) const {
  return block.first.number - among_->row(0).number;
}

std::int64_t Scan::count_selected(const Block& block) const {
  if (among_ == nullptr || block.listed) return block.count;
  return among_->count_selected(offset_of(block), block.count);
}

// The number of a row that is not selected is below every limit, and enters nothing.
void Scan::drop_unselected(const Block& block, float* numbers) const {
  if (among_ == nullptr || block.listed) return;
  const std::int64_t start = offset_of(block);
  for (std::int64_t first = 0; first < block.count; first += kMaskRows) {
    for_each_bit(
        ~among_->mask(start + first) & first_bits(std::min(kMaskRows, block.count - first)),
        [&](std::int64_t i) { numbers[first + i] = -std::numeric_limits<float>::infinity(); });
  }
}

// Every row of the delta is checked. Rows whose ids and numbers follow are of one place: the ids of
// the base and of the delta are arrays of their own, and a list of the host's is of base rows.
void Scan::add_rows(Row first, std::int64_t count, const std::int64_t* ids) {
  const float* const rows = vector_of(index_, first, dim_);
  for (std::int64_t i = 1; first.in_delta && i < count; ++i) {
    static_cast<void>(delta_vector(index_, first.number + i));
  }
  const bool follows =
      run_.ids + run_.count == ids && run_.first.number + run_.count == first.number;
  if (run_.count > 0 && follows) {
    run_.count += count;
    return;
  }
  flush();
  run_ = {false, first, rows, ids, count};
}

void Scan::add_members(const QxMembers& members, std::int64_t first, std::int64_t count,
                       const std::int64_t* ids) {
  if (run_.count > 0 && run_.ids + run_.count == ids) {
    run_.count += count;
    return;
  }
  flush();
  member_codes_ = view_of(members.codes);
  run_ = {false, {false, first}, nullptr, ids, count, members.rows + first};
}

void Scan::flush() {
  if (run_.count == 0 && listed_ == 0) return;
  in_default_fp_environment([&] { scan_waiting(); });
}

// Without a row, nothing is computed and the query is not read.
std::int32_t Scan::finish() {
  if (opened_ || run_.count > 0 || listed_ > 0) {
    in_default_fp_environment([&] {
      scan_waiting();
      prune_candidates(0);
      score_candidates();
      topk_.finish();
    });
  }
  return static_cast<std::int32_t>(topk_.k());
}

void Scan::scan_waiting() {
  if (!opened_) open();
  scan_run();
  scan_listed();
}

void Scan::scan_run() {
  for (Block rest = run_; rest.count > 0;) {
    Block block = rest;
    const Judge judge = choose_judge(rest);
    block.count = std::min(rows_to_judge(judge), rest.count);
    const bool reads_vectors = judge >= Judge::kEstimates;
    if (reads_vectors && !reads_others_ && count_selected(block) < block.count) {
      list_base_rows(*among_, offset_of(block), block.count);
      scan_listed();
    } else {
      block.count = scan_block(judge, block);
    }
    rest = part_of(rest, block.count, rest.count - block.count);
  }
  run_.count = 0;
}

void Scan::scan_listed() {
  if (listed_ == 0) return;
  const Block block = {true, {false, 0}, nullptr, listed_ids_, listed_};
  static_cast<void>(scan_block(choose_judge(block), block));
  listed_ = listed_delta_rows_ = 0;
  std::fill_n(listed_in_delta_, kBlockRows / kMaskRows, 0);
}

void Scan::open() {
  opened_ = true;
  pruner_.open(query_, dim_, index_.base_magnitude, rows_, is_coded(false) || is_coded(true));
  if (!pruner_.is_worthwhile() || dim_ > kMaxCopiedDim) return;
  std::copy_n(query_, dim_, aligned_query_);
  query_ = aligned_query_;
}

// Bounds need a threshold: the first ones give it, if they are enough. No magnitude bounds the rows
// of the delta: only of a few among those of the base are they estimated at all, in vain.
Judge Scan::choose_judge(const Block& block) {
  if (!pruner_.can_prune()) return Judge::kScores;
  const bool bounded =
      pruner_.has_bounds() && is_coded(is_in_delta(block)) && (!block.listed || lists_by_codes_);
  const bool estimated = pruner_.is_worthwhile() && !is_in_delta(block);
  Judge judge = choice_.next(bounded ? Judge::kFourBits : Judge::kEstimates);
  if (judge <= Judge::kEightBits && !pruner_.has_threshold(topk_.threshold())) {
    judge = can_seed(block) ? choice_.next(Judge::kEightBits) : Judge::kScores;
  }
  if (judge == Judge::kFourBits && is_mixed(block)) judge = Judge::kEightBits;
  return judge == Judge::kEstimates && !estimated ? Judge::kScores : judge;
}

// Rows that give the first threshold are many times as many as the slots; of a short scan, all.
std::int64_t Scan::rows_to_judge(Judge judge) const {
  const std::int64_t rows = choice_.rows_of(judge);
  if (judge != Judge::kEightBits || pruner_.has_threshold(topk_.threshold())) return rows;
  if (rows_ <= 2 * JudgeChoice::kPieceRows) return JudgeChoice::kMostRows;
  const std::int64_t many = (32 * slots_.k + kMaskRows - 1) / kMaskRows * kMaskRows;
  return std::max({rows, JudgeChoice::kPieceRows, std::min(many, JudgeChoice::kMostRows)});
}

// Returns how many rows of the block were judged: the others are to be judged again.
std::int64_t Scan::scan_block(Judge judge, const Block& block) {
  QX_ASSERT(block.count >= 1 && block.count <= JudgeChoice::kMostRows &&
            (judge < Judge::kEstimates || block.count <= kBlockRows));
  if (judge == Judge::kScores) {
    score_block(block);
  } else if (judge == Judge::kEstimates) {
    estimate_block(block);
  } else {
    return bound_block(block, judge == Judge::kFourBits ? CodeBits::kFour : CodeBits::kEight);
  }
  return block.count;
}

namespace {

// Calls visit(i) for each number that is not below a limit, in order.
template <typename Visit>
void for_each_not_less(const float* numbers, std::int64_t count, float limit, Visit visit) {
  for (std::int64_t first = 0; first < count; first += kMaskRows) {
    const std::int64_t rows = std::min(kMaskRows, count - first);
    for_each_bit(kernels().mask_not_less(numbers + first, rows, limit),
                 [&](std::int64_t i) { visit(first + i); });
  }
}

// Columns that are searched together, which compilers turn into SIMD.
constexpr std::int64_t kColumnsTogether = 16;

// The largest bound of each column, and its place; bounds are row after row. NaNs are no bounds.
void find_column_maxima(const float* bounds, std::int64_t count, std::int64_t columns, float* most,
                        std::int32_t* places) {
  for (std::int64_t column = 0; column < columns; column += kColumnsTogether) {
    float largest[kColumnsTogether];
    std::int32_t at[kColumnsTogether] = {};
    std::fill_n(largest, kColumnsTogether, kEmptyScore);
    for (std::int64_t first = column; first + kColumnsTogether <= count; first += columns) {
      const auto row = static_cast<std::int32_t>(first);
      for (std::int64_t c = 0; c < kColumnsTogether; ++c) {
        const float bound = bounds[first + c];
        at[c] = bound > largest[c] ? row : at[c];
        largest[c] = bound > largest[c] ? bound : largest[c];
      }
    }
    for (std::int64_t c = 0; c < kColumnsTogether; ++c) {
      most[column + c] = largest[c];
      places[column + c] = at[c] + static_cast<std::int32_t>(c);
    }
  }
}

}  // namespace

void Scan::compute(ContiguousFunction* contiguous, ScatteredFunction* scattered, const Block& block,
                   float* values) const {
  if (block.listed) {
    scattered(listed_vectors_, block.count, dim_, query_, values);
  } else if (block.member_rows != nullptr) {
    const float* vectors[kBlockRows];
    for (std::int64_t i = 0; i < block.count; ++i) {
      vectors[i] = vector_at(block, i);
      __builtin_prefetch(vectors[i]);
    }
    scattered(vectors, block.count, dim_, query_, values);
  } else {
    contiguous(block.rows, block.count, dim_, query_, level_, values);
  }
}

// ---- By scores ----

void Scan::score_block(const Block& block) {
  alignas(64) float scores[kBlockRows];
  if (may_wait(block)) return wait_for_seed(block);
  score_candidates();
  compute(kernels().score_contiguous, kernels().score_scattered, block, scores);
  drop_unselected(block, scores);
  offer(scores, block.ids, block.count);
  if (pruner_.can_prune()) choice_.record(Judge::kScores, block.count, 0);
}

// Rows at the beginning of a scan that are too few for a seed, such as those of a small delta,
// would give a low threshold. They wait unscored until there is a seed.
bool Scan::may_wait(const Block& block) const {
  return pruner_.has_bounds() && can_wait_for_seed() && !JudgeChoice::is_forced() &&
         candidates_ + block.count <= kWaitingCandidates && count_selected(block) == block.count;
}

// A NaN is never pruned.
void Scan::wait_for_seed(const Block& block) {
  candidates_are_bounded_ = true;
  for (std::int64_t i = 0; i < block.count; ++i) {
    add_candidate(block, i, std::numeric_limits<float>::quiet_NaN());
  }
}

// ---- By estimates ----

void Scan::estimate(const Block& block, float* estimates) const {
  compute(kernels().estimate_contiguous, kernels().estimate_scattered, block, estimates);
  if (!block.listed) return;
  // A NaN is never pruned.
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  for (std::int64_t first = 0; first < block.count; first += kMaskRows) {
    for_each_bit(listed_in_delta_[first / kMaskRows],
                 [&](std::int64_t i) { estimates[first + i] = kNaN; });
  }
}

void Scan::estimate_block(const Block& block) {
  alignas(64) float estimates[kBlockRows];
  if (candidates_are_bounded_) score_candidates();
  candidates_are_bounded_ = false;
  estimate(block, estimates);
  drop_unselected(block, estimates);
  const bool seeding = pruner_.is_empty();
  if (seeding) pruner_.observe(estimates, block.count);
  const std::int64_t earlier = candidates_;
  for_each_not_less(estimates, block.count, limit(),
                    [&](std::int64_t i) { add_candidate(block, i, estimates[i]); });
  const std::int64_t added = candidates_ - earlier;
  if (added > 0) {
    if (!seeding) pruner_.observe(candidate_numbers_ + earlier, added);
    prune_candidates(earlier);
  }
  choice_.record(Judge::kEstimates, block.count, candidates_ - earlier);
  make_room_for_candidates();
}

// ---- By bounds ----

// Where bounds leave too many rows, the rest of the block is left to another judge.
std::int64_t Scan::bound_block(const Block& block, CodeBits bits) {
  alignas(64) float bounds[JudgeChoice::kMostRows];
  if (!candidates_are_bounded_) score_candidates();
  candidates_are_bounded_ = true;
  const Judge judge = bits == CodeBits::kFour ? Judge::kFourBits : Judge::kEightBits;
  std::int64_t bounded = 0;
  if (!bound_first(block, bits, bounds, &bounded)) {
    choice_.record(judge, bounded, bounded);
    return 0;
  }
  std::int64_t judged = 0;
  std::int64_t selected = 0;
  std::int64_t left = 0;
  do {
    const Block piece =
        part_of(block, judged, std::min(JudgeChoice::kPieceRows, block.count - judged));
    bound_up_to(judged + piece.count, block, bits, bounds, &bounded);
    left += take_bounded(piece, bounds + judged, bits);
    judged += piece.count;
    selected += count_selected(piece);
  } while (judged < block.count && JudgeChoice::is_worthwhile(selected, left));
  choice_.record(judge, selected, left);
  make_room_for_candidates();
  return judged;
}

// Bounds the first rows of a block, whole masks of them, and all where they give a threshold, or a
// better one. Returns false if a sample of them tells that no threshold will do.
bool Scan::bound_first(const Block& block, CodeBits bits, float* bounds, std::int64_t* bounded) {
  const bool has_threshold = pruner_.has_threshold(topk_.threshold());
  const std::int64_t wanted =
      has_threshold ? JudgeChoice::kTrialRows
                    : std::clamp(rows_ / 32 / kMaskRows * kMaskRows, kMaskRows, kSampleRows);
  const Block first = part_of(block, 0, std::min(wanted, block.count));
  bound_up_to(first.count, block, bits, bounds, bounded);
  if (has_threshold && !(can_seed(block) && leaves_too_many(first, bounds))) return true;
  const bool may_refuse = first.count < block.count && !has_threshold && !JudgeChoice::is_forced();
  if (may_refuse && !separates(first, bounds)) return false;
  bound_up_to(block.count, block, bits, bounds, bounded);
  seed(block, bounds);
  return true;
}

// Bounds the rows of a block that are not bounded yet, up to `end`.
void Scan::bound_up_to(std::int64_t end, const Block& block, CodeBits bits, float* bounds,
                       std::int64_t* bounded) const {
  if (end <= *bounded) return;
  const Block rest = part_of(block, *bounded, end - *bounded);
  bound(rest, bits, bounds + *bounded);
  drop_unselected(rest, bounds + *bounded);
  *bounded = end;
}

// True if bounds would leave few rows of a sample, were its best ones those that the results take
// of the whole scan, as a part. The best of all are better than the best of few, so that half of
// the rows may be left where there are few. Tuning: estimates are good enough for it.
bool Scan::separates(const Block& sample, const float* bounds) const {
  const std::int64_t best = std::max<std::int64_t>(slots_.k * sample.count / rows_, 1);
  std::int64_t numbers[kSampleRows];
  std::int64_t places[kSampleRows];
  float best_bounds[kSampleRows];
  std::iota(numbers, numbers + sample.count, 0);
  BasicTopK<kSampleRows> best_rows(places, best_bounds, best);
  best_rows.offer(bounds, numbers, sample.count);
  best_rows.finish();
  if (places[best - 1] == kEmptyId) return true;  // the sample tells nothing
  const float* vectors[kSampleRows];
  float estimates[kSampleRows];
  for (std::int64_t i = 0; i < best; ++i) vectors[i] = vector_at(sample, places[i]);
  kernels().estimate_scattered(vectors, best, dim_, query_, estimates);
  const float least = *std::min_element(estimates, estimates + best);
  std::int64_t left = 0;
  for_each_not_less(bounds, sample.count, least, [&](std::int64_t) { ++left; });
  return (best < 4 ? 2 : 4) * left <= sample.count;
}

// True if the first rows of a block tell that its judge is not worthwhile with the threshold that
// there is: rows are better here than those before.
bool Scan::leaves_too_many(const Block& first, const float* bounds) const {
  std::int64_t left = 0;
  for_each_not_less(bounds, first.count, limit(), [&](std::int64_t) { ++left; });
  return !JudgeChoice::is_worthwhile(count_selected(first), left);
}

// Adds the rows that their bounds do not prune, and returns how many. Those that four bits leave
// are judged by all eight at once.
std::int64_t Scan::take_bounded(const Block& block, const float* bounds, CodeBits bits) {
  std::int64_t left = 0;
  if (bits == CodeBits::kEight) {
    for_each_not_less(bounds, block.count, limit(), [&](std::int64_t i) {
      add_candidate(block, i, bounds[i]);
      ++left;
    });
    return left;
  }
  std::int64_t places[kBlockRows];
  const CodeView& codes = codes_of(block);
  for_each_not_less(bounds, block.count, limit(), [&](std::int64_t i) {
    prefetch_rest_of_code(codes, row_of(block, i));
    places[left++ % kBlockRows] = i;
    if (left % kBlockRows == 0) refine(block, places, kBlockRows);
  });
  refine(block, places, left % kBlockRows);
  return left;
}

// Adds those of the listed places whose bounds from eight bits do not prune them.
void Scan::refine(const Block& block, const std::int64_t* places, std::int64_t count) {
  std::int64_t rows[kBlockRows];
  float bounds[kBlockRows];
  if (count == 0) return;
  for (std::int64_t i = 0; i < count; ++i) rows[i] = row_of(block, places[i]);
  kernels().bound_scattered(codes_of(block), rows, count, pruner_.coded_query(), CodeBits::kEight,
                            bounds);
  for_each_not_less(bounds, count, limit(),
                    [&](std::int64_t i) { add_candidate(block, places[i], bounds[i]); });
}

void Scan::bound(const Block& block, CodeBits bits, float* bounds) const {
  const CodedQuery& query = pruner_.coded_query();
  if (is_mixed(block)) return bound_mixed(block, bits, bounds);
  const CodeView& codes = codes_of(block);
  if (block.listed) {
    kernels().bound_scattered(codes, listed_rows_, block.count, query, bits, bounds);
  } else {
    kernels().bound_contiguous(codes, block.first.number, block.count, query, bits, bounds);
  }
}

// Each place by its own codes. A row of a place without codes has a NaN, which is never pruned.
void Scan::bound_mixed(const Block& block, CodeBits bits, float* bounds) const {
  for (const bool in_delta : {false, true}) {
    std::int64_t rows[kBlockRows];
    std::int64_t places[kBlockRows];
    float place_bounds[kBlockRows];
    std::int64_t count = 0;
    for (std::int64_t i = 0; i < block.count; ++i) {
      if (((listed_in_delta_[i / kMaskRows] >> i % kMaskRows & 1) != 0) != in_delta) continue;
      rows[count] = listed_rows_[i];
      places[count++] = i;
    }
    std::fill_n(place_bounds, count, std::numeric_limits<float>::quiet_NaN());
    if (is_coded(in_delta)) {
      kernels().bound_scattered(codes_of(in_delta), rows, count, pruner_.coded_query(), bits,
                                place_bounds);
    }
    for (std::int64_t i = 0; i < count; ++i) bounds[places[i]] = place_bounds[i];
  }
}

// The slots can choose rows while they are empty, out of several times as many rows. Candidates
// that wait with estimates are offered before the first bound.
bool Scan::can_wait_for_seed() const {
  return !offered_ && (candidates_ == 0 || candidates_are_bounded_) && slots_.k <= kMostSeeds;
}
bool Scan::can_seed(const Block& block) const {
  return can_wait_for_seed() && block.count / 4 >= slots_.k;
}

// The first rows of a scan are likely to hold good ones, and their bounds tell which: scores k of
// them. Until then the results are empty, so their slots can choose.
void Scan::seed(const Block& block, const float* bounds) {
  QX_ASSERT(!offered_);
  std::int32_t best[kSeedColumns];
  const std::int64_t columns = choose_seed_columns(block.count);
  if (columns > 0) {
    float most[kSeedColumns];
    find_column_maxima(bounds, block.count, columns, most, best);
    offer_places(most, best, columns);
  } else {
    for (std::int64_t first = 0; first < block.count; first += kSeedColumns) {
      std::iota(best, best + kSeedColumns, static_cast<std::int32_t>(first));
      offer_places(bounds + first, best, std::min(kSeedColumns, block.count - first));
    }
  }
  topk_.finish();
  if (slots_.ids[slots_.k - 1] != kEmptyId) pruner_.seed(lowest_score(block, slots_.ids));
  topk_.clear();
}

// The best row of each of twice as many columns is nearly as good as the best rows, and found
// without a branch. 0 if there are too few rows.
std::int64_t Scan::choose_seed_columns(std::int64_t rows) const {
  const std::int64_t columns =
      (2 * slots_.k + kColumnsTogether - 1) / kColumnsTogether * kColumnsTogether;
  return columns <= kSeedColumns && 8 * columns <= rows ? columns : 0;
}

void Scan::offer_places(const float* bounds, const std::int32_t* places, std::int64_t count) {
  std::int64_t ids[kSeedColumns];
  std::copy_n(places, count, ids);
  topk_.offer(bounds, ids, count);
}

// The lowest score of k rows of a block. A row that has a bound has a finite score.
float Scan::lowest_score(const Block& block, const std::int64_t* places) const {
  float lowest = std::numeric_limits<float>::infinity();
  for (std::int64_t first = 0; first < slots_.k; first += kBlockRows) {
    const float* vectors[kBlockRows];
    float scores[kBlockRows];
    const std::int64_t count = std::min(kBlockRows, slots_.k - first);
    for (std::int64_t i = 0; i < count; ++i) vectors[i] = vector_at(block, places[first + i]);
    kernels().score_scattered(vectors, count, dim_, query_, scores);
    lowest = std::min(lowest, *std::min_element(scores, scores + count));
  }
  return lowest;
}

// ---- Candidates ----

void Scan::offer(const float* scores, const std::int64_t* ids, std::int64_t count) {
  offered_ = true;
  topk_.offer(scores, ids, count);
}

void Scan::add_candidate(const Block& block, std::int64_t i, float number) {
  if (candidates_ == kCandidateCapacity) make_room_for_candidates();
  candidate_vectors_[candidates_] = vector_at(block, i);
  candidate_ids_[candidates_] = block.ids[i];
  candidate_numbers_[candidates_] = number;
  if (candidates_are_bounded_) prefetch_vector(candidate_vectors_[candidates_]);
  ++candidates_;
}

void Scan::make_room_for_candidates() {
  if (candidates_ > kWaitingCandidates) prune_candidates(0);
  if (candidates_ > kWaitingCandidates) score_candidates();
}

// Below this, the number of a candidate prunes it.
float Scan::limit() const {
  const float threshold = topk_.threshold();
  return candidates_are_bounded_ ? pruner_.bound_limit(threshold)
                                 : pruner_.pruning_threshold(threshold);
}

// Drops the candidates, from `first` on, that are pruned by now.
void Scan::prune_candidates(std::int64_t first) {
  const float least = limit();
  std::int64_t kept = first;
  for (std::int64_t i = first; i < candidates_; ++i) {
    candidate_vectors_[kept] = candidate_vectors_[i];
    candidate_ids_[kept] = candidate_ids_[i];
    candidate_numbers_[kept] = candidate_numbers_[i];
    kept += candidate_numbers_[i] < least ? 0 : 1;
  }
  candidates_ = kept;
}

void Scan::score_candidates() {
  if (candidates_ == 0) return;
  float scores[kCandidateCapacity];
  kernels().score_scattered(candidate_vectors_, candidates_, dim_, query_, scores);
  offer(scores, candidate_ids_, candidates_);
  candidates_ = 0;
}

}  // namespace qx
