// An IVF as the state of a table keeps it: how many lists a search looks into, their centroids, and
// in which list each row was when the lists were filled. Rows written since are put into theirs
// anew by whoever loads them, as all rows would be if the last part were lost: it saves that work
// alone.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "row_reader.h"
#include "storage.h"

namespace qx_sqlite {

// Rows in their lists, as the engine takes them.
struct Ivf {
  std::int32_t nprobe;
  Floats centroids;
  std::vector<std::int64_t> ids;
  std::vector<std::int32_t> offsets;

  std::int32_t lists() const { return static_cast<std::int32_t>(offsets.size()) - 1; }
};

class IvfState {
 public:
  IvfState(Storage& storage, const RowReader& reader, std::int64_t dim)
      : storage_(storage), reader_(reader), dim_(dim) {}

  // How many lists a search looks into; nothing where there are none.
  std::optional<std::int64_t> nprobe() const { return storage_.number(kNprobe); }
  void set_nprobe(std::int64_t nprobe) { storage_.set(kNprobe, nprobe); }
  // Puts rows into the lists, in their order. Throws where the state is damaged.
  std::optional<Ivf> ivf_of(const Rows& rows) const;

  // Learns the centroids of lists from a sample of the rows, and fills the lists. What progress()
  // throws ends the work, and nothing is written.
  void learn(std::int64_t nlist, const std::function<void()>& progress);
  // Fills the lists with the rows as they are now.
  void refill(const std::function<void()>& progress);
  void forget();

 private:
  static constexpr const char* kNprobe = "ivf_nprobe";

  class Lists;
  struct Filed;
  Lists lists() const;
  std::vector<Filed> fill(const Lists& lists, const std::function<void()>& progress) const;
  void store(std::span<const Filed> filed);

  Storage& storage_;
  const RowReader& reader_;
  std::int64_t dim_;
};

}  // namespace qx_sqlite
