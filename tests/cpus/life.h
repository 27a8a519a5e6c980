// A life of an index that is drawn from a seed, the same on every CPU: numbers are drawn as
// integers, and floats made of them without a rounding. What its calls give back goes into a
// digest.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cpus/digest.h"
#include "histories/random.h"
#include "qx_runtime.h"

namespace qx_test {

class Life {
 public:
  // With `trace`, the digest is printed after each call.
  Life(std::uint64_t seed, bool trace);
  ~Life();
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;

  // Calls every function at least once; the digest of everything.
  std::string play();

 private:
  using Ids = std::vector<std::int64_t>;
  using Floats = std::vector<float>;

  std::int64_t draw_id() { return random_.between(-3, id_end_ + id_end_ / 8); }
  Ids draw_ids(std::int64_t count);
  Ids draw_base_ids(std::int64_t count);
  Floats draw_rows(std::int64_t count) { return draw_floats(random_, values_, count * dim_); }
  std::int32_t draw_k(std::int64_t rows);

  // Adds what a call gave to the digest.
  template <typename... Outputs>
  void gave(const char* function, const Outputs&... outputs) {
    (digest_.add(outputs), ...);
    if (trace_) std::printf("%s %s\n", digest_.text().c_str(), function);
  }

  void ask_about_index();
  void build();
  void insert();
  void erase();
  void set_rowmeta();
  void set_ivf();
  void mutate();
  void search_sealed();
  void search_ivf();
  void search_current();
  void list_current();
  void export_all();
  void tune();

  Random random_;
  bool trace_;
  std::int32_t dim_;
  std::int64_t rows_;
  std::int64_t id_end_;
  Values values_;
  std::int32_t ncols_ = 0;
  QxIndex* index_;
  Digest digest_;
};

}  // namespace qx_test
