// One random history: a life of an index, made call by call by random choices, in which the engine
// and the naive model must agree on every result and on every element of every buffer.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "histories/random.h"
#include "model.h"
#include "qx_runtime.h"
#include "support/guarded.h"

namespace qx_test {

// How often each function has been called.
using CallCounts = std::map<std::string, std::int64_t>;

class History {
 public:
  // `trace` prints every call to standard output.
  History(Random random, CallCounts& calls, bool trace);
  ~History();
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  // Plays the history. Returns an empty text, or what disagreed and where.
  std::string play();

  // Leaves rebuilds out, which keep the arrays of the earlier base allocated by contract.
  void forbid_rebuilds() { may_rebuild_ = false; }

  // Whether a further build has replaced a base.
  bool rebuilt() const { return rebuilt_; }

 private:
  using Predicate = Model::Predicate;

  // A read that writes ids and floats, as each side answers it.
  using ModelSearch = std::function<std::int64_t(Ids&, Floats&)>;
  using EngineSearch = std::function<std::int64_t(std::int64_t*, float*)>;

  // The calls. Each draws its arguments and compares.
  void renew();
  void accessors();
  void tuner();
  void build();
  void rejected_build();
  void export_base();
  void search_full();
  void search_partition();
  void scatter_topk();
  void insert();
  void erase();
  void set_ivf();
  void has_ivf();
  void clear_ivf();
  void set_ivf_nprobe();
  void search_ivf();
  void search_mvcc();
  void set_rowmeta();
  void export_rowmeta();
  void search_filtered();
  void match_ids();
  void visible();
  void export_visible();

  // Drawing of arguments.
  std::uint32_t draw_new_dim();
  std::int32_t draw_build_dim();
  Ids draw_base_ids(std::int64_t n);
  std::int64_t draw_id();
  Ids draw_ids(std::int64_t count);
  std::int32_t draw_count();
  std::int32_t draw_candidate_count();
  std::int32_t draw_k(std::int64_t near);
  std::int32_t draw_small_k(std::int64_t near);
  Predicate draw_predicate();
  std::vector<std::int32_t> draw_offsets(std::int32_t nlist, std::int64_t n_ids);
  Floats draw_array(std::int64_t count);
  Floats draw_query();
  Edge draw_edge() { return random_.percent(75) ? Edge::kEnd : Edge::kStart; }

  // Comparing.
  void begin(const char* function, const std::string& arguments);
  void check(bool agrees, const char* what);
  void compare_search(std::int64_t granted_ids, std::int64_t granted_floats,
                      const ModelSearch& expect, const EngineSearch& call);
  void expect_end(const OutOfBounds& end, const std::function<void()>& call);
  void check_inputs();
  // Runs a read under every kernel of this machine.
  void under_every_kernel(const std::function<void()>& body);

  // Places an input where the engine cannot leave it unnoticed.
  const float* input(const Floats& values);
  const std::int64_t* input(const Ids& values);
  const std::int32_t* input(const std::vector<std::int32_t>& values);

  // Inputs of the running call, with what they must still hold after it.
  template <typename T>
  struct Inputs {
    static constexpr std::size_t kSlots = 3;
    Guarded<T> placed[kSlots];
    std::vector<T> values[kSlots];
    std::size_t used = 0;
  };
  template <typename T>
  const T* place(Inputs<T>& inputs, const std::vector<T>& values);
  template <typename T>
  void check_inputs(Inputs<T>& inputs);

  Random random_;
  CallCounts& calls_;
  bool trace_;
  bool long_;  // bases of thousands of rows, of which a search scores only few
  Values values_;
  bool sparse_;           // base ids up to 2^22, in a history of one build
  std::int64_t id_span_;  // most ids are below it
  Model model_;
  QxIndex* index_;
  bool ended_ = false;
  bool may_rebuild_ = true;
  bool rebuilt_ = false;
  int step_ = 0;
  std::string last_call_;
  std::string disagreement_;

  Inputs<float> floats_;
  Inputs<std::int64_t> longs_;
  Inputs<std::int32_t> ints_;
  Guarded<std::int64_t> out_ids_;
  Guarded<float> out_floats_;
  Guarded<std::int64_t> out_values_;
};

}  // namespace qx_test
