#include "ivf_state.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "../ivf/centroids.hpp"
#include "vectors.h"

namespace qx_sqlite {
namespace {

constexpr const char* kCentroids = "ivf_centroids";
constexpr const char* kFiled = "ivf_filed";
constexpr std::int64_t kProgressRows = 1024;
constexpr std::int64_t kMostProbes = 1 << 30;

std::uint32_t check_of(std::span<const float> vector) {
  std::uint64_t mixed = 0xCBF29CE484222325u;
  for (const float number : vector) {
    mixed = (mixed ^ std::bit_cast<std::uint32_t>(number)) * 0x9E3779B97F4A7C15u;
    mixed ^= mixed >> 32;
  }
  return static_cast<std::uint32_t>(mixed);
}

}  // namespace

// In which list a row was. `check` tells vectors apart, so that a row written since is noticed.
// Stored in the bytes of the machine that filled the lists: to one of another order they say
// nothing.
struct IvfState::Filed {
  std::int64_t rowid;
  std::int32_t list;
  std::uint32_t check;

  bool operator<(const Filed& other) const { return rowid < other.rowid; }
};

class IvfState::Lists {
 public:
  Lists(Floats centroids, std::int64_t dim, std::vector<Filed> filed)
      : centroids_(std::move(centroids)),
        count_(static_cast<std::int32_t>(centroids_.size() / static_cast<std::size_t>(dim))),
        filed_(std::move(filed)),
        chooser_(centroids_, dim) {
    if (!std::is_sorted(filed_.begin(), filed_.end())) filed_.clear();
  }

  const Floats& centroids() const { return centroids_; }
  std::int32_t count() const { return count_; }

  // Where the row was filed, or where it belongs.
  std::int32_t list_of(std::int64_t rowid, std::span<const float> vector) const {
    const auto found = std::lower_bound(filed_.begin(), filed_.end(), Filed{rowid, 0, 0});
    const bool known = found != filed_.end() && found->rowid == rowid && found->list >= 0 &&
                       found->list < count_ && found->check == check_of(vector);
    return known ? found->list : std::max(chooser_.list_of(vector), 0);
  }

 private:
  Floats centroids_;
  std::int32_t count_;
  std::vector<Filed> filed_;
  qx::ListChooser chooser_;
};

IvfState::Lists IvfState::lists() const {
  Floats centroids = floats_of(storage_.blob(kCentroids));
  require_intact(!centroids.empty() && centroids.size() % static_cast<std::size_t>(dim_) == 0,
                 "the stored centroids are damaged");
  const std::vector<std::byte> bytes = storage_.blob(kFiled);
  static_assert(sizeof(Filed) == 16);
  std::vector<Filed> filed(bytes.size() / sizeof(Filed));
  if (!filed.empty()) std::memcpy(filed.data(), bytes.data(), filed.size() * sizeof(Filed));
  return {std::move(centroids), dim_, std::move(filed)};
}

std::optional<Ivf> IvfState::ivf_of(const Rows& rows) const {
  const std::optional<std::int64_t> probes = nprobe();
  if (!probes) return std::nullopt;
  require_intact(*probes >= 1 && *probes <= kMostProbes, "the stored number of probes is damaged");
  const Lists lists = this->lists();
  const auto dim = static_cast<std::size_t>(dim_);
  std::vector<std::vector<std::int64_t>> members(static_cast<std::size_t>(lists.count()));
  for (std::size_t i = 0; i < rows.ids.size(); ++i) {
    const auto vector = std::span(rows.vectors).subspan(i * dim, dim);
    members[static_cast<std::size_t>(lists.list_of(rows.ids[i], vector))].push_back(rows.ids[i]);
  }
  Ivf ivf{static_cast<std::int32_t>(*probes), lists.centroids(), {}, {0}};
  for (const std::vector<std::int64_t>& list : members) {
    ivf.ids.insert(ivf.ids.end(), list.begin(), list.end());
    ivf.offsets.push_back(static_cast<std::int32_t>(ivf.ids.size()));
  }
  return ivf;
}

void IvfState::learn(std::int64_t nlist, const std::function<void()>& progress) {
  const std::int64_t rows = storage_.count();
  require(rows > 0, "an IVF is learned from rows, and there are none");
  const std::int64_t step = std::max<std::int64_t>(rows / qx::rows_to_learn(nlist), 1);
  Rows sample;
  std::int64_t row = 0;
  storage_.all_rows().each([&](const Statement& stored) {
    if (row++ % step == 0) reader_.read(stored, &sample);
  });
  const Lists lists(qx::learn_centroids(sample.vectors, dim_, nlist,
                                        [&](std::int64_t, std::int64_t) { progress(); }),
                    dim_, {});
  const std::vector<Filed> filed = fill(lists, progress);
  storage_.set(kCentroids, bytes_of(lists.centroids()));
  store(filed);
}

void IvfState::refill(const std::function<void()>& progress) { store(fill(lists(), progress)); }

std::vector<IvfState::Filed> IvfState::fill(const Lists& lists,
                                            const std::function<void()>& progress) const {
  std::vector<Filed> filed;
  storage_.all_rows().each([&](const Statement& stored) {
    if (std::ssize(filed) % kProgressRows == 0) progress();
    Rows row;
    reader_.read(stored, &row);
    const std::int64_t rowid = row.ids[0];
    filed.push_back({rowid, lists.list_of(rowid, row.vectors), check_of(row.vectors)});
  });
  return filed;
}

void IvfState::store(std::span<const Filed> filed) {
  const std::span<const std::byte> bytes = std::as_bytes(filed);
  // What SQLite cannot store is chosen anew by whoever loads the rows.
  if (std::ssize(bytes) > storage_.longest_blob()) {
    storage_.forget(kFiled);
  } else {
    storage_.set(kFiled, bytes);
  }
}

void IvfState::forget() {
  for (const char* const key : {kNprobe, kCentroids, kFiled}) storage_.forget(key);
}

}  // namespace qx_sqlite
