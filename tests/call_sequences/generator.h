// Draws a call sequence from random choices: the functions and their arguments. It follows the
// model to draw arguments that reach many cases, and knows nothing of the engine.
#pragma once

#include <cstdint>

#include "call_sequences/call_sequence.h"
#include "support/random.h"

namespace qx_test {

class Generator {
 public:
  Generator(Random random, Rebuilds rebuilds);

  CallSequence draw();

 private:
  // The calls.
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

  // The arguments.
  std::uint32_t draw_new_dim();
  std::int32_t draw_build_dim();
  Ids draw_base_ids(std::int64_t n);
  std::int64_t draw_id();
  Ids draw_ids(std::int64_t count);
  std::int32_t draw_count();
  std::int32_t draw_candidate_count();
  std::int32_t draw_k(std::int64_t near);
  std::int32_t draw_small_k(std::int64_t near);
  void draw_predicate(Call& call);
  Ints draw_offsets(std::int32_t nlist, std::int64_t n_ids);
  Floats draw_array(std::int64_t count);
  Floats draw_query();

  // Appends a call, and makes it on the model if it changes the index.
  void add(Call call);
  void add(Function function) { add(Call{function}); }

  Random random_;
  Rebuilds rebuilds_;
  bool long_;  // bases of thousands of rows, most of which a search prunes
  Values values_;
  bool sparse_;           // base ids up to 2^22; at most one build
  std::int64_t id_span_;  // most ids are below it
  Model model_{0, 0};
  bool ended_ = false;
  CallSequence sequence_;
};

}  // namespace qx_test
