// The host's floating-point environment changes no result, and no call changes the environment.
#include <cmath>
#include <limits>

#include "support/host.h"
#include "support/host_environment.h"

namespace qx_test {
namespace {

constexpr float kTiny = std::numeric_limits<float>::denorm_min();
constexpr float kHuge = 3e38f;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Every answer of an index to a query, in the default environment or in another.
struct Answers {
  Ids ids;
  Floats scores;
  Ids numbers;
  bool environment_kept = true;

  friend bool operator==(const Answers& a, const Answers& b) {
    return a.ids == b.ids && same_bits(a.scores, b.scores) && a.numbers == b.numbers &&
           a.environment_kept == b.environment_kept;
  }
};

// An index of rows whose scores another environment would change, built in that environment.
class Asked {
 public:
  Asked(const FpEnvironment& host, std::int32_t dim, const Floats& vectors)
      : host_(host), dim_(dim), vectors_(vectors), rows_(count_of(vectors) / dim) {
    for (std::int32_t i = 0; i < rows_; ++i) ids_.push_back(i);
    index_ = qx_index_new(static_cast<std::uint32_t>(dim), 0);
    const std::int64_t key = 5;
    const std::int32_t first = 0;
    const std::int32_t offsets[] = {0, rows_ / 2, rows_};
    in_host([&] {
      qx_index_build(index_, vectors_.data(), rows_, dim_, ids_.data(), &key, &first, &rows_, 1);
    });
    // Some rows again, as delta rows.
    in_host([&] { qx_index_insert(index_, vectors_.data(), ids_.data(), rows_ / 4); });
    in_host([&] { qx_index_delete(index_, ids_.data() + rows_ / 2, 1); });
    in_host(
        [&] { qx_index_set_rowmeta(index_, ids_.data(), ids_.data(), ids_.data(), 1, rows_ / 8); });
    in_host(
        [&] { qx_index_set_ivf(index_, 1, 2, 2, vectors_.data(), ids_.data(), offsets, rows_); });
  }
  Asked(const Asked&) = delete;
  Asked& operator=(const Asked&) = delete;
  ~Asked() {
    in_host([&] { qx_index_free(index_); });
  }

  Answers ask(const Floats& query) {
    const float* const q = query.data();
    for (const std::int32_t k : {1, 10, 40}) {
      const auto unsigned_k = static_cast<std::uint32_t>(k);
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_search_full(index_, q, k, ids, scores);
      });
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_search_partition(index_, 5, q, k, ids, scores);
      });
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_scatter_topk(index_, ids_.data(), rows_, q, k, ids, scores);
      });
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_search_mvcc(index_, ids_.data(), rows_, q, unsigned_k, ids, scores);
      });
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_search_filtered(index_, QX_FILTER_LABEL, 0, QX_MISSING, q, unsigned_k, ids,
                                        scores);
      });
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_search_filtered(index_, QX_FILTER_ALL, 0, 0, q, unsigned_k, ids, scores);
      });
      search(k, [&](auto* ids, auto* scores) {
        return qx_index_search_ivf(index_, 1, q, k, ids, scores);
      });
    }
    list();
    return answers_;
  }

 private:
  static std::int32_t count_of(const Floats& floats) {
    return static_cast<std::int32_t>(floats.size());
  }

  template <typename Call>
  void in_host(Call call) {
    answers_.environment_kept &= leaves_environment(host_, call);
  }

  template <typename Search>
  void search(std::int32_t k, Search search) {
    Ids ids(static_cast<std::size_t>(k), kUntouchedId);
    Floats scores(static_cast<std::size_t>(k), kUntouchedFloat);
    std::int64_t returned = 0;
    in_host([&] { returned = search(ids.data(), scores.data()); });
    answers_.numbers.push_back(returned);
    answers_.ids.insert(answers_.ids.end(), ids.begin(), ids.end());
    answers_.scores.insert(answers_.scores.end(), scores.begin(), scores.end());
  }

  void list() {
    Ids ids(static_cast<std::size_t>(rows_));
    Floats vectors(vectors_.size());
    std::int64_t returned = 0;
    in_host([&] { returned = qx_index_export_visible(index_, vectors.data(), ids.data()); });
    answers_.numbers.push_back(returned);
    answers_.ids.insert(answers_.ids.end(), ids.begin(), ids.end());
    answers_.scores.insert(answers_.scores.end(), vectors.begin(), vectors.end());
    in_host([&] { returned = qx_index_export_base(index_, vectors.data(), ids.data()); });
    answers_.scores.insert(answers_.scores.end(), vectors.begin(), vectors.end());
    in_host([&] { returned = qx_index_visible_count(index_); });
    answers_.numbers.push_back(returned);
  }

  const FpEnvironment& host_;
  std::int32_t dim_;
  Floats vectors_;
  std::int32_t rows_;
  Ids ids_;
  QxIndex* index_ = nullptr;
  Answers answers_;
};

// Rows of random components from a list.
Floats draw(std::int32_t rows, std::int32_t dim, const Floats& components) {
  std::uint32_t state = 17;
  Floats drawn;
  for (std::int32_t i = 0; i < rows * dim; ++i) {
    state = state * 1664525u + 1013904223u;
    drawn.push_back(components[(state >> 16) % components.size()]);
  }
  return drawn;
}

struct Data {
  const char* name;
  Floats components;
  Floats factors;  // of the query
};

const std::vector<Data>& families() {
  static const std::vector<Data> all = {
      {"denormal rows", {kTiny, 3 * kTiny, -2 * kTiny, 1e-39f, 0}, {1, -1, 0.5f}},
      {"a denormal query", {1, -1, 0.5f, 3}, {kTiny, -2 * kTiny, 1e-39f, 1e-40f}},
      {"denormal products", {1e-20f, -1e-20f, 1.5e-19f}, {1e-20f, 2e-20f, -1e-19f}},
      {"zeros of both signs", {0.0f, -0.0f, 1, -1}, {0.0f, -0.0f, kTiny}},
      {"sums that round", {1, 0x1p-24f, -0x1p-25f, 0x1.000002p0f}, {1, 0x1.fffffep-1f, 3}},
      {"rows that differ in their last bit", {1, 0x1.000002p0f, 0x1.fffffep-1f}, {1, -1, 0.1f}},
      {"overflow, infinities and NaNs", {kHuge, -kHuge, kInfinity, kNaN, 1}, {2, -1, 0}},
      {"finite overflow", {kHuge, -kHuge, 1}, {2, -1, 0}}};
  return all;
}

TEST(FpEnvironment, OfTheHostChangesNoResultAndIsNotChanged) {
  for (const Data& data : families()) {
    for (const std::int32_t dim : {1, 3, 8, 17, 64}) {
      const Floats vectors = draw(800, dim, data.components);
      const Floats query = draw(1, dim, data.factors);
      const Answers expected = Asked(fp_environments()[0], dim, vectors).ask(query);
      EXPECT_TRUE(expected.environment_kept) << data.name << ", dim " << dim;
      for (const FpEnvironment& host : fp_environments()) {
        EXPECT_EQ(Asked(host, dim, vectors).ask(query), expected)
            << data.name << ", dim " << dim << ", " << host.name;
      }
    }
  }
}

// Only denormals distinguish the best row from the others.
TEST(FpEnvironment, LosesNoNeighbourToFlushing) {
  for (const FpEnvironment& host : fp_environments()) {
    Floats vectors(16 * 1000, 0);
    for (std::size_t i = 0; i < 1000; ++i) vectors[16 * i] = static_cast<float>(i % 999) * kTiny;
    Floats query(16, 0);
    query[0] = 1;
    const Answers answers = Asked(host, 16, vectors).ask(query);
    EXPECT_EQ(answers.ids[0], 998) << host.name;
    EXPECT_EQ(bits_of(answers.scores[0]), 998u) << host.name;
  }
}

}  // namespace
}  // namespace qx_test
