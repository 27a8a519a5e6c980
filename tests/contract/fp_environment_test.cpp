// The host's floating-point environment changes no result, and no call changes the environment.
#include "support/cases.h"
#include "support/host_environment.h"

namespace qx_test {
namespace {

constexpr float kHuge = 3e38f;

// Every answer of an index to a query, in the default environment or in another.
struct Answers {
  std::vector<Found> searches;
  std::vector<Rows> exports;
  std::int64_t count = 0;
  bool environment_kept = true;

  friend bool operator==(const Answers&, const Answers&) = default;
};

// Builds an index of rows whose scores another environment would change, and asks it, all in that
// environment.
Answers answers_in(const FpEnvironment& host, std::int32_t dim, const Floats& vectors,
                   const Floats& query) {
  const auto rows = static_cast<std::int32_t>(vectors.size()) / dim;
  const Ids ids = ids_from(0, rows);
  const Ids labelled = ids_from(0, rows / 8);
  const Floats again(vectors.begin(), vectors.begin() + std::ptrdiff_t{rows} / 4 * dim);
  const Floats centroids(vectors.begin(), vectors.begin() + std::ptrdiff_t{2} * dim);
  const Index index(static_cast<std::uint32_t>(dim));
  Answers answers;
  const auto in_host = [&](auto call) {
    answers.environment_kept &= leaves_environment(host, call);
  };
  const auto search = [&](auto call) { in_host([&] { answers.searches.push_back(call()); }); };
  in_host([&] { seal(index, dim, ids, vectors, {{5}, {0}, {rows}}); });
  in_host([&] { insert(index, ids_from(0, rows / 4), again); });
  in_host([&] { delete_ids(index, {rows / 2}); });
  in_host([&] { set_rowmeta(index, labelled, labelled, labelled, 1); });
  in_host([&] { set_ivf(index, 1, {2, 2, centroids, ids, {0, rows / 2, rows}}); });
  for (const std::uint32_t k : {1u, 10u, 40u}) {
    const auto signed_k = static_cast<std::int32_t>(k);
    search([&] { return search_full(index, query, signed_k); });
    search([&] { return search_partition(index, 5, query, signed_k); });
    search([&] { return scatter(index, ids, query, signed_k); });
    search([&] { return search_ivf(index, 1, query, signed_k); });
    search([&] { return search_mvcc(index, ids, query, k); });
    search([&] { return search_filtered(index, has_label(QX_MISSING), query, k); });
    search([&] { return search_filtered(index, kEveryId, query, k); });
  }
  in_host([&] { answers.exports = {export_visible(index), export_base(index)}; });
  in_host([&] { answers.count = qx_index_visible_count(index); });
  return answers;
}

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
      {"denormal rows", {kDenormal, 3 * kDenormal, -2 * kDenormal, 1e-39f, 0}, {1, -1, 0.5f}},
      {"a denormal query", {1, -1, 0.5f, 3}, {kDenormal, -2 * kDenormal, 1e-39f, 1e-40f}},
      {"denormal products", {1e-20f, -1e-20f, 1.5e-19f}, {1e-20f, 2e-20f, -1e-19f}},
      {"zeros of both signs", {0.0f, -0.0f, 1, -1}, {0.0f, -0.0f, kDenormal}},
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
      const Answers expected = answers_in(fp_environments()[0], dim, vectors, query);
      EXPECT_TRUE(expected.environment_kept) << data.name << ", dim " << dim;
      for (const FpEnvironment& host : fp_environments()) {
        EXPECT_EQ(answers_in(host, dim, vectors, query), expected)
            << data.name << ", dim " << dim << ", " << host.name;
      }
    }
  }
}

// Only denormals distinguish the best row from the others.
TEST(FpEnvironment, LosesNoNeighbourToFlushing) {
  for (const FpEnvironment& host : fp_environments()) {
    Floats vectors(std::size_t{16} * 1000, 0);
    for (std::size_t i = 0; i < 1000; ++i)
      vectors[16 * i] = static_cast<float>(i % 999) * kDenormal;
    Floats query(16, 0);
    query[0] = 1;
    const Answers answers = answers_in(host, 16, vectors, query);
    EXPECT_EQ(answers.searches[0], found({{998, 998 * kDenormal}})) << host.name;
  }
}

}  // namespace
}  // namespace qx_test
