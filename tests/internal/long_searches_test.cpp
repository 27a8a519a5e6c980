// Every search over bases of thousands of rows, most of which the engine prunes: it must give the
// ids and bits of the model, under every kernel.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "internal/every_kernel.h"
#include "internal/scan_rows.h"
#include "model.h"
#include "support/host.h"

namespace qx_test {
namespace {

// An index and its model.
class Both {
 public:
  Both(Random& random, Family family, int changed_percent)
      : random_(random),
        rows_(draw_scan_rows(random, family, random.between(16, 100), random.between(2000, 3000))),
        model_(1, 0),
        index_(1) {
    build();
    insert_rows(rows_.count * changed_percent / 100);
    erase(rows_.count * changed_percent / 100);
    attach_labels();
    attach_ivf();
  }

  void compare_all() {
    for (const std::int32_t k : {1, 10, 48, 49, 300}) {
      const Floats query = random_.percent(80) ? rows_.query : row(random_.between(0, last_row()));
      compare("search_full", k, &Model::search_full, search_full, query);
      compare("search_partition", k, &Model::search_partition, search_partition,
              random_.between(0, kPartitions - 1), query);
      // A third of the rows by their ids, with absent ids and duplicates.
      Ids listed;
      for (std::int64_t i = 0; i < rows_.count / 3; ++i) {
        listed.push_back(random_.between(-1, rows_.count + 100));
      }
      compare("scatter_topk", k, &Model::scatter_topk, scatter, listed, query);
      const auto current = [](QxIndex* index, const Ids& ids, const Floats& factors,
                              std::int32_t slots) {
        return search_mvcc(index, ids, factors, static_cast<std::uint32_t>(slots));
      };
      compare("search_mvcc", k, &Model::search_mvcc, current, listed, query);
      const std::int64_t label = random_.between(0, 2);
      for (const std::uint32_t mode : {QX_FILTER_ALL, QX_FILTER_LABEL}) {
        const auto filtered = [](QxIndex* index, const Model::Predicate& test,
                                 const Floats& factors, std::int32_t slots) {
          return search_filtered(index, {test.mode, test.column, test.value}, factors,
                                 static_cast<std::uint32_t>(slots));
        };
        compare("search_filtered", k, &Model::search_filtered, filtered,
                Model::Predicate{mode, 0, label}, query);
      }
      compare("search_ivf", k, &Model::search_ivf, search_ivf, std::int64_t{5}, query);
    }
  }

 private:
  static constexpr std::int64_t kPartitions = 3;
  static constexpr std::int64_t kLists = 12;

  std::int64_t last_row() const { return rows_.count - 1; }
  std::int32_t width() const { return static_cast<std::int32_t>(rows_.width); }
  Floats row(std::int64_t i) { return Floats(rows_.row(i), rows_.row(i) + rows_.width); }

  // Ids in a random order, with a few duplicates.
  void build() {
    for (std::int64_t i = 0; i < rows_.count; ++i) ids_.push_back(i);
    random_.shuffle(ids_);
    for (int i = 0; i < 20; ++i) {
      ids_[static_cast<std::size_t>(random_.between(0, last_row()))] = random_.any_of(ids_);
    }
    Partitions parts;
    for (std::int64_t p = 0; p < kPartitions; ++p) {
      parts.keys.push_back(p);
      parts.starts.push_back(static_cast<std::int32_t>(p * 100));
      parts.sizes.push_back(static_cast<std::int32_t>(rows_.count - p * 250));
    }
    model_.build(rows_.vectors, rows_.count, width(), ids_, parts.keys, parts.starts, parts.sizes,
                 kPartitions);
    seal(index_, width(), ids_, rows_.vectors, parts);
  }

  // New ids and existing ones; vectors of the base, some of them with larger products that
  // cancel, which no base row has.
  void insert_rows(std::int64_t count) {
    const float large = magnitude_of(rows_.vectors) * 0x1p+22f;
    Ids ids;
    Floats vectors;
    for (std::int64_t i = 0; i < count; ++i) {
      ids.push_back(random_.between(0, 2 * rows_.count));
      Floats vector = row(random_.between(0, last_row()));
      const auto first = static_cast<std::size_t>(random_.between(0, rows_.width - 3));
      const float factors = rows_.query[first] * rows_.query[first + 2];
      if (random_.percent(30) && factors != 0) {
        vector[first] = large * rows_.query[first + 2];
        vector[first + 2] = -large * rows_.query[first];
      }
      vectors.insert(vectors.end(), vector.begin(), vector.end());
    }
    model_.insert(vectors, ids);
    insert(index_, ids, vectors);
  }

  void erase(std::int64_t count) {
    Ids ids;
    for (std::int64_t i = 0; i < count; ++i) ids.push_back(random_.between(0, rows_.count));
    model_.erase(ids);
    delete_ids(index_, ids);
  }

  // Label 0 for one id in ten, 1 for one in three, 2 for the rest.
  void attach_labels() {
    Ids labels;
    for (std::size_t i = 0; i < ids_.size(); ++i) {
      labels.push_back(random_.percent(10) ? 0 : random_.percent(33) ? 1 : 2);
    }
    model_.set_rowmeta(ids_, labels, {}, 0);
    set_rowmeta(index_, ids_, labels, {}, 0);
  }

  void attach_ivf() {
    Ivf ivf{kLists, 9, draw_floats(random_, Values::kSmooth, kLists * rows_.width), ids_, {}};
    for (std::int64_t list = 0; list <= kLists; ++list) {
      ivf.list_offsets.push_back(static_cast<std::int32_t>(rows_.count * list / kLists));
    }
    model_.ivfs[5] = {ivf.nlist, ivf.nprobe, ivf.centroids, ivf.list_ids, ivf.list_offsets};
    set_ivf(index_, 5, ivf);
  }

  // Compares a search of the model, which fills k slots, with the same search of the engine under
  // every kernel.
  template <typename Search, typename Call, typename... Arguments>
  void compare(const char* name, std::int32_t k, Search search, Call call,
               const Arguments&... arguments) {
    Ids ids(static_cast<std::size_t>(k));
    Floats scores(ids.size());
    Found expected{(model_.*search)(arguments..., k, ids, scores), {}};
    ASSERT_EQ(expected.returned, k);
    for (std::size_t i = 0; i < ids.size(); ++i) expected.slots.push_back({ids[i], scores[i]});
    for (const qx::Kernels* kernels : listed_kernels()) {
      if (!qx::force_kernels(kernels->name)) continue;
      EXPECT_EQ(call(index_, arguments..., k), expected)
          << name << ", k " << k << ", kernel " << kernels->name;
    }
    qx::force_kernels(nullptr);
  }

  Random& random_;
  ScanRows rows_;
  Model model_;
  Index index_;
  Ids ids_;
};

class LongSearches : public testing::TestWithParam<int> {};

TEST_P(LongSearches, ReturnWhatTheModelReturns) {
  Random random(static_cast<std::uint64_t>(5000 + GetParam()));
  for (const int changed_percent : {0, 3, 30}) {
    SCOPED_TRACE("changed percent " + std::to_string(changed_percent));
    Both(random, static_cast<Family>(GetParam()), changed_percent).compare_all();
  }
}

INSTANTIATE_TEST_SUITE_P(Families, LongSearches, testing::Range(0, kFamilies));

}  // namespace
}  // namespace qx_test
