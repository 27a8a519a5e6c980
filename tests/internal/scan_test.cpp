// Scans against the plain rule, which scores every row by the contract and sorts: the same ids and
// the same bits, however rows arrive and whatever they hold, under every kernel.
#include "read/scan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "internal/every_kernel.h"
#include "internal/scan_rows.h"
#include "internal/sums.h"
#include "support/bits.h"
#include "support/guarded.h"

namespace qx_test {
namespace {

using Floats = std::vector<float>;
using Ids = std::vector<std::int64_t>;

// How rows are added.
enum class Way {
  kContiguous,   // in one piece
  kPieces,       // in contiguous pieces
  kOneByOne,     // in order
  kAnywhere,     // in no order, some repeatedly
  kMasked,       // in masked blocks, whole but for the last
  kInterrupted,  // in masked blocks, some short and some left out
  kWithoutBest,  // in masked blocks that leave out the best rows
  kWithDelta,    // one by one, some of them rows of the delta, which no magnitude bounds
  kMembers,      // as scattered members of lists, in no order, some repeatedly
  kAmongOthers,  // as spans of some of the rows, the best ones often among the others
  kReadable,     // the same, and others are read too
  kMixed         // all of it
};
constexpr int kWays = static_cast<int>(Way::kMixed) + 1;
constexpr std::int64_t kDeltaRows = 60;
constexpr std::int64_t kFirstDeltaId = 1000000;

// Rows with what they are by the contract, placed where one element too many faults.
struct Fixed {
  Fixed(Random& random, const ScanRows& rows)
      : width(rows.width),
        count(rows.count),
        magnitude(magnitude_of(rows.vectors)),
        vectors(rows.vectors),
        query(rows.query),
        delta(Floats(static_cast<std::size_t>(width * kDeltaRows))) {
    for (std::int64_t i = 0; i < count; ++i) {
      ids.push_back(random.between(-5, 3 * count));
      scores.push_back(contract_score(row(i), query.data(), width));
    }
    for (std::int64_t i = 0; i < kDeltaRows; ++i) draw_delta_row(random, i);
    std::copy_if(scores.begin(), scores.end(), std::back_inserter(sorted),
                 [](float score) { return !std::isnan(score); });
    std::sort(sorted.begin(), sorted.end());
  }

  // Row i of the delta: a base row times up to a million, or one with two large products that
  // cancel, in whose sum the small ones are lost.
  void draw_delta_row(Random& random, std::int64_t i) {
    const float* const model = row(random.between(0, count - 1));
    float* const made = delta.data() + i * width;
    const float* const factors = query.data();
    const float scale = std::ldexp(1.0f, static_cast<int>(random.between(0, 20)));
    const bool cancels = i % 2 == 0;
    for (std::int64_t j = 0; j < width; ++j) made[j] = model[j] * (cancels ? 1 : scale);
    const std::int64_t first = random.between(0, width - 2);
    const std::int64_t second = random.between(first + 1, width - 1);
    if (cancels && factors[first] != 0 && factors[second] != 0) {
      made[first] = magnitude * scale * 64 / factors[first];
      made[second] = -magnitude * scale * 64 / factors[second];
    }
    delta_scores.push_back(contract_score(made, factors, width));
  }

  const float* row(std::int64_t i) const { return vectors.data() + i * width; }
  // Whether fewer than about a tenth of the rows are better.
  bool is_good(std::int64_t i) const {
    return !sorted.empty() && scores.data()[i] >= sorted[sorted.size() - 1 - sorted.size() / 10];
  }

  std::int64_t width;
  std::int64_t count;
  float magnitude;
  Guarded<float> vectors;
  Guarded<float> query;
  Guarded<float> delta;
  Ids ids;
  Floats scores;
  Floats delta_scores;
  Floats sorted;
};

// Which rows have codes.
struct WithCodes {
  bool base;
  bool delta;
};

// The record of an index of these rows. The base stays theirs.
QxIndex record_of(const Fixed& rows, float magnitude, WithCodes coded) {
  QxIndex index;
  index.dim = static_cast<std::uint32_t>(rows.width);
  index.n_base = rows.count;
  index.sealed = 1;
  index.base_vectors = const_cast<float*>(rows.vectors.data());
  index.base_ids = const_cast<std::int64_t*>(rows.ids.data());
  index.base_magnitude = magnitude;
  index.delta_vectors = qx::Array<float>::copy_of(rows.delta.data(), rows.width * kDeltaRows);
  index.delta_ids = qx::Array<std::int64_t>::of_length(kDeltaRows);
  if (coded.base) {
    qx::begin_codes(index.base_codes, rows.count, rows.width);
    qx::code_range(index.base_codes, index.base_vectors, 0, rows.count);
  }
  if (coded.delta) {
    qx::extend_codes(index.delta_codes, index.delta_vectors.data, kDeltaRows, rows.width);
  }
  return index;
}

// A scan, and a plain list of the rows that were offered to it. Members are initialised from those
// before them, so their order is fixed.
class Compared {  // NOLINT(clang-analyzer-optin.performance.Padding): see above
 public:
  Compared(const Fixed& rows, Random& random, std::int64_t stated_rows, float stated_magnitude,
           std::int64_t k, WithCodes coded = {false, false})
      : rows_(rows),
        random_(random),
        out_ids_(static_cast<std::size_t>(k), 77),
        out_scores_(static_cast<std::size_t>(k), 77.0f),
        index_(record_of(rows, stated_magnitude, coded)),
        member_rows_(draw_member_rows(rows, random)),
        member_ids_(ids_of(rows, member_rows_)),
        members_(members_of(rows, member_rows_, coded.base)),
        scan_(index_, rows.query.data(), {k, out_ids_.data(), out_scores_.data()}, stated_rows) {}

  Compared(const Compared&) = delete;
  ~Compared() {
    qx::release_codes(index_.base_codes);
    qx::release_codes(index_.delta_codes);
    qx::release_codes(members_.codes);
  }

  // Makes the norms of all codes 0, as if codes left nothing out.
  void spoil_norms() {
    for (const QxCodes* const codes : {&index_.base_codes, &index_.delta_codes, &members_.codes}) {
      auto* const norms = const_cast<qx::CodeNorms*>(qx::view_of(*codes).norms);
      for (std::int64_t g = 0; g * qx::kCodeGroupRows < codes->rows; ++g) {
        norms[g] = {};
      }
    }
  }

  // True if the scan of all rows gives what the slots must hold.
  bool agrees(Way way) {
    for (std::int64_t first = 0; first < rows_.count;) {
      const auto now = way == Way::kMixed ? static_cast<Way>(random_.between(0, kWays - 2)) : way;
      const bool pieces = now == Way::kPieces || (is_span(now) && random_.percent(50));
      const bool whole = way != Way::kMixed && !pieces;
      const std::int64_t most = rows_.count - first;
      const std::int64_t piece = random_.between(1, random_.percent(20) ? 64 : 700);
      const std::int64_t size = whole ? most : std::min(most, piece);
      add(now, first, size);
      first += size;
    }
    scan_.finish();
    EXPECT_TRUE(out_ids_.margins_intact() && out_scores_.margins_intact());
    return Result{out_ids_.values(), out_scores_.values()} == expected();
  }

 private:
  struct Arrival {
    std::int64_t id;
    float score;
  };

  // A row enters with a score above the last slot's, after its equals.
  Result expected() const {
    std::vector<Arrival> entering;
    std::copy_if(arrivals_.begin(), arrivals_.end(), std::back_inserter(entering),
                 [](const Arrival& arrival) { return arrival.score > qx::kEmptyScore; });
    std::stable_sort(entering.begin(), entering.end(),
                     [](const Arrival& a, const Arrival& b) { return a.score > b.score; });
    entering.resize(out_ids_.size(), Arrival{qx::kEmptyId, qx::kEmptyScore});
    Result result;
    for (const Arrival& arrival : entering) {
      result.ids.push_back(arrival.id);
      result.scores.push_back(arrival.score);
    }
    return result;
  }

  static bool is_span(Way way) { return way == Way::kAmongOthers || way == Way::kReadable; }

  void add(Way way, std::int64_t first, std::int64_t size) {
    if (way == Way::kContiguous || way == Way::kPieces) {
      for (std::int64_t i = first; i < first + size; ++i) arrive(i);
      scan_.add_base_rows(first, size, rows_.ids.data() + first);
    } else if (way == Way::kOneByOne || way == Way::kAnywhere || way == Way::kWithDelta) {
      for (std::int64_t i = first; i < first + size; ++i) {
        if (way == Way::kWithDelta && random_.percent(5)) {
          add_delta_row(random_.between(0, kDeltaRows - 1));
        } else {
          add_one(way == Way::kAnywhere ? random_.between(0, rows_.count - 1) : i);
        }
      }
    } else if (way == Way::kMembers) {
      for (std::int64_t i = first; i < first + size; ++i) {
        arrive(member_rows_[static_cast<std::size_t>(i)]);
      }
      scan_.add_members(members_, first, size, member_ids_.data() + first);
    } else if (is_span(way)) {
      add_span(way, first, size);
    } else {
      add_masked(way, first, size);
    }
  }

  // As many as there are rows.
  static Ids draw_member_rows(const Fixed& rows, Random& random) {
    Ids drawn(static_cast<std::size_t>(rows.count));
    for (std::int64_t& row : drawn) row = random.between(0, rows.count - 1);
    return drawn;
  }
  static Ids ids_of(const Fixed& rows, const Ids& member_rows) {
    Ids ids;
    for (const std::int64_t row : member_rows) ids.push_back(rows.ids.data()[row]);
    return ids;
  }
  static QxMembers members_of(const Fixed& rows, Ids& member_rows, bool coded) {
    QxMembers members;
    members.rows = member_rows.data();
    if (coded) {
      qx::begin_codes(members.codes, rows.count, rows.width);
      qx::code_listed(members.codes, rows.vectors.data(), members.rows);
    }
    return members;
  }

  void add_span(Way way, std::int64_t first, std::int64_t size) {
    const int chance = static_cast<int>(random_.between(1, 100));
    const bool without_best = random_.percent(50);
    std::vector<std::uint64_t> words(static_cast<std::size_t>((size + 63) / 64));
    for (std::int64_t i = 0; i < size; ++i) {
      if (random_.percent(chance) || (without_best && rows_.is_good(first + i))) continue;
      words[static_cast<std::size_t>(i / 64)] |= std::uint64_t{1} << i % 64;
      arrive(first + i);
    }
    const qx::RowSpan span({false, first}, size, rows_.ids.data() + first, words.data());
    way == Way::kReadable ? scan_.add_among_readable(span) : scan_.add(span);
  }

  void add_one(std::int64_t i) {
    arrive(i);
    scan_.add({false, i}, rows_.ids.data()[i]);
  }
  void arrive(std::int64_t i) {
    arrivals_.push_back({rows_.ids.data()[i], rows_.scores.data()[i]});
  }
  void add_delta_row(std::int64_t i) {
    arrivals_.push_back({kFirstDeltaId + i, rows_.delta_scores.data()[i]});
    scan_.add({true, i}, kFirstDeltaId + i);
  }

  // Whole masks as consecutive rows, others row by row.
  void add_masked(Way way, std::int64_t first, std::int64_t size) {
    const int chance = static_cast<int>(random_.between(2, 100));
    for (std::int64_t at = first; at < first + size;) {
      std::int64_t block = std::min(qx::kMaskRows, first + size - at);
      if (way == Way::kInterrupted && random_.percent(20)) block = random_.between(1, block);
      std::uint64_t mask = 0;
      for (std::int64_t i = 0; i < block; ++i) {
        const bool left_out = way == Way::kWithoutBest
                                  ? rows_.is_good(at + i) && random_.percent(90)
                                  : !random_.percent(chance);
        mask |= std::uint64_t{left_out ? 0u : 1u} << i;
      }
      if (way != Way::kInterrupted || random_.percent(85)) {
        if (mask == qx::first_bits(block)) {
          add(Way::kContiguous, at, block);
        } else {
          qx::for_each_bit(mask, [&](std::int64_t i) { add_one(at + i); });
        }
      }
      at += block;
    }
  }

  const Fixed& rows_;
  Random& random_;
  Guarded<std::int64_t> out_ids_;
  Guarded<float> out_scores_;
  QxIndex index_;
  Ids member_rows_;
  const Ids member_ids_;
  QxMembers members_;
  qx::Scan scan_;
  std::vector<Arrival> arrivals_;
};

std::int64_t draw_width(Random& random) {
  static const Ids widths = {8,  9,  12, 15, 16, 17, 24,  31,  32,  33,  40,  47,
                             48, 63, 64, 65, 96, 97, 100, 128, 200, 255, 256, 300};
  static const Ids wide = {639, 640, 641, 768, 1023, 1024, 1025};
  return random.percent(8) ? random.any_of(wide) : random.any_of(widths);
}

std::int64_t draw_k(Random& random, std::int64_t rows) {
  static const Ids choices = {1, 1, 2, 10, 47, 48, 49, 64, 100, 1000};
  if (random.percent(20)) return rows / 4 + random.between(-1, 1);
  return random.any_of(choices);
}

// The number of rows that a scan is opened for. A large one makes kernels read as from memory.
std::int64_t draw_stated_rows(Random& random, const Fixed& rows) {
  if (random.percent(20)) return 3 * rows.count;
  return random.percent(70) ? rows.count : 100000000 / rows.width;
}

ScanRows draw_rows(Random& random, Family family) {
  const std::int64_t width = draw_width(random);
  const std::int64_t most = width > 300 ? 800 : random.percent(10) ? 9500 : 3000;
  return draw_scan_rows(random, family, width, random.between(400, most));
}

// Judges, as a scan chooses them by itself and as they are forced.
const std::vector<const char*> kForced = {nullptr,      nullptr,     "four bits",
                                          "eight bits", "estimates", "scores"};

class EveryScan : public UnderAKernel {
 protected:
  void TearDown() override {
    qx::force_judge(nullptr);
    UnderAKernel::TearDown();
  }

  // Expects a scan of rows with codes to agree, whatever judges them.
  void expect_agreement(const Fixed& rows, Random& random, int way, std::int64_t k) const {
    const char* const forced = random.any_of(kForced);
    ASSERT_TRUE(qx::force_judge(forced));
    const WithCodes coded = {random.percent(75), random.percent(75)};
    Compared scan(rows, random, draw_stated_rows(random, rows), rows.magnitude, k, coded);
    ASSERT_TRUE(scan.agrees(static_cast<Way>(way)))
        << "way " << way << ", width " << rows.width << ", " << rows.count << " rows, k " << k
        << ", by " << (forced == nullptr ? "its choice" : forced) << ", codes " << coded.base
        << coded.delta;
  }
};

TEST(AJudge, IsForcedByItsName) {
  for (const char* const name : kForced) EXPECT_TRUE(qx::force_judge(name));
  EXPECT_FALSE(qx::force_judge("bits"));
  EXPECT_TRUE(qx::force_judge(nullptr));
}

TEST_P(EveryScan, ReturnsWhatScoringEveryRowReturns) {
  for (int family = 0; family < kFamilies; ++family) {
    Random random(static_cast<std::uint64_t>(3000 + family));
    for (int draw = 0; draw < 4; ++draw) {
      const Fixed rows(random, draw_rows(random, static_cast<Family>(family)));
      for (int way = 0; way < kWays; ++way) {
        for (int repeat = 0; repeat < 3; ++repeat) {
          const std::int64_t k = draw_k(random, rows.count);
          ASSERT_NO_FATAL_FAILURE(expect_agreement(rows, random, way, k)) << "family " << family;
        }
      }
    }
  }
}

// Copies of the best row around every multiple of a block, and around the number of candidates
// that wait at most: of equals, the first to arrive come first.
TEST_P(EveryScan, KeepsTheOrderOfEqualsAcrossBlocks) {
  Random random(3100);
  for (const std::int64_t around : {64, 128, 192, 256, 384, 576}) {
    ScanRows drawn = draw_scan_rows(random, Family::kSmooth, 24, 1500);
    for (std::int64_t i = 1; i < drawn.count; ++i) {
      if ((i + 2) % around < 5) std::copy_n(drawn.row(0), drawn.width, drawn.row(i));
    }
    drawn.query.assign(drawn.row(0), drawn.row(1));
    const Fixed rows(random, drawn);
    for (int way = 0; way < kWays; ++way) {
      for (const std::int64_t k : {1, 2, 10, 48, 49, 100}) {
        ASSERT_NO_FATAL_FAILURE(expect_agreement(rows, random, way, k)) << "around " << around;
      }
    }
  }
}

// The hardest rows are hard: their estimates are in another order than their scores, so that
// pruning keeps the right rows only by the bound on the error.
TEST_P(EveryScan, MeetsEstimatesInAnotherOrderThanScores) {
  for (const Family family : {Family::kCancelling, Family::kClustered}) {
    Random random(3200);
    const Fixed rows(random, draw_scan_rows(random, family, 64, 1000));
    Floats estimates(rows.scores.size());
    GetParam()->estimate_contiguous(rows.vectors.data(), rows.count, rows.width, rows.query.data(),
                                    qx::CacheLevel::kL2, estimates.data());
    std::int64_t swapped = 0;
    std::int64_t other_sign = 0;
    for (std::size_t i = 1; i < estimates.size(); ++i) {
      const float by_score = rows.scores[i] - rows.scores[i - 1];
      const float by_estimate = estimates[i] - estimates[i - 1];
      swapped += by_score * by_estimate < 0 ? 1 : 0;
      other_sign += rows.scores[i] * estimates[i] < 0 ? 1 : 0;
    }
    EXPECT_GT(swapped, 10);
    EXPECT_GT(other_sign, family == Family::kCancelling ? 10 : -1);
  }
}

// The scans of these tests do prune by estimates: with too small a magnitude stated, the bound on
// the error is too small, and a scan returns other rows.
TEST_P(EveryScan, IsDecidedByEstimatesWhereTheyPay) {
  Random random(3300);
  for (const auto way : {Way::kContiguous, Way::kOneByOne, Way::kMasked, Way::kMixed}) {
    for (const std::int64_t k : {1, 10, 48, 49, 300}) {
      bool wrong = false;
      for (int draw = 0; draw < 400 && !wrong; ++draw) {
        const Fixed rows(random, draw_scan_rows(random, Family::kCancelling, 24, 6000));
        wrong = !Compared(rows, random, rows.count, 0x1p-30f, k).agrees(way);
      }
      EXPECT_TRUE(wrong) << "way " << static_cast<int>(way) << ", k " << k;
    }
  }
}

// So they do by codes: with too small norms, a scan returns other rows.
TEST_P(EveryScan, IsDecidedByBoundsWhereTheyPay) {
  Random random(3400);
  for (const char* const judge : {"four bits", "eight bits"}) {
    ASSERT_TRUE(qx::force_judge(judge));
    for (const auto way : {Way::kContiguous, Way::kOneByOne, Way::kMembers, Way::kMixed}) {
      bool wrong = false;
      for (int draw = 0; draw < 100 && !wrong; ++draw) {
        const Fixed rows(random, draw_scan_rows(random, Family::kClustered, 24, 3000));
        Compared scan(rows, random, rows.count, rows.magnitude, 10, {true, true});
        scan.spoil_norms();
        wrong = !scan.agrees(way);
      }
      EXPECT_TRUE(wrong) << judge << ", way " << static_cast<int>(way);
    }
  }
}

// Rows that do not follow each other are two runs, also where their ids follow.
TEST_P(EveryScan, JoinsOnlyRowsThatFollow) {
  Floats rows(60);
  for (std::size_t i = 0; i < 30; ++i) rows[2 * i] = static_cast<float>(i);
  const Floats query = {1, 0};
  const Ids ids = {50, 51, 52, 53, 54, 55, 56, 57};
  Result found{Ids(2), Floats(2)};
  QxIndex index;
  index.dim = 2;
  index.base_vectors = rows.data();
  qx::Scan scan(index, query.data(), {2, found.ids.data(), found.scores.data()}, 30);
  scan.add_base_rows(3, 4, ids.data());
  scan.add_base_rows(20, 4, ids.data() + 4);
  scan.finish();
  EXPECT_EQ(found, (Result{{57, 56}, {23, 22}}));
}

// Around the dimension from which a scan uses the host's own query.
TEST_P(EveryScan, FindsTheBestOfVeryWideRows) {
  Random random(31);
  for (const std::int64_t dim : {1023, 1024, 1025, 2051}) {
    Floats rows(static_cast<std::size_t>(250 * dim));
    for (float& number : rows) number = static_cast<float>(random.between(-9, 9));
    const Floats query(rows.begin(), rows.begin() + dim);
    Floats scores(250);
    qx::kernels().score_contiguous(rows.data(), 250, dim, query.data(), qx::CacheLevel::kL2,
                                   scores.data());
    const auto best = std::max_element(scores.begin(), scores.end());
    EXPECT_EQ(scan_base(rows, query, 1, true), (Result{{best - scores.begin()}, {*best}}));
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, EveryScan, testing::ValuesIn(listed_kernels()), kernel_name);

}  // namespace
}  // namespace qx_test
