// The types: the record behind a handle, with every field and who writes it. Read this first.
//
// Glossary
//   id          the host's 64-bit number for a vector
//   row         a position: of a vector in the base (base row) or in the delta (delta row)
//   base        the rows of the latest build; sealed: nothing changes them but another build
//   delta       the rows that inserts wrote, at most one per id, in order of first insertion
//   tombstone   an id's entry in deleted_at; with value 0 it is lifted and means nothing
//   snapshot    the number of mutations so far; stamps and tombstones carry it, no read uses it
//   partition   a named range of base rows
//   IVF         lists of base ids under centroids, both computed by the host
#pragma once

#include <cstdint>

#include "support/array.h"
#include "support/int64_map.h"

// The library is compiled with hidden visibility; the functions of the public header are the
// exception, and there is no other.
#pragma GCC visibility push(default)
#include "qx_runtime.h"
#pragma GCC visibility pop

// One IVF structure, exactly as the host passed it: nothing in it is validated. An instance owns
// its three arrays.
struct QxIvf {
  std::int32_t nlist;
  std::int32_t nprobe;                   // lists scanned by a search; may be below 1
  qx::Array<float> centroids;            // nlist x the dimension at the time of attachment
  qx::Array<std::int64_t> list_ids;      // the members of all lists, list after list
  qx::Array<std::int32_t> list_offsets;  // nlist + 1: where each list starts, and the end
};

// Invariants
//   While sealed is 0, fields n_base to max_base_id have their initial values.
//   id_to_row has max_base_id + 1 slots; slot i is -1 or the last row r with base_ids[r] == i.
//   Behind the slots follow the number of rows that are not the last of their id, and these rows,
//   ascending. Without base rows it is null.
//   delta_pos maps id to p exactly when delta_ids[p] == id; delta_stamps is as long as delta_ids.
//   delta_vectors holds, for each delta row, as many floats as dim was when the row was first
//   inserted; row p is read at p * dim for today's dim.
//   mutated is 0 exactly while snapshot is 0.
//   meta_columns has at least meta_ncols maps. ivf_map refers to each position of ivf_list once.
struct QxIndex {
  std::uint32_t dim = 0;  // read as signed; below 1 means vectors of no elements
  std::uint32_t user_tag = 0;

  // The base. Written by qx_index_build alone.
  std::int64_t n_base = 0;
  std::uint32_t sealed = 0;
  std::int32_t n_parts = 0;
  float* base_vectors = nullptr;      // n_base x dim; behind them the base's magnitude
  std::int64_t* base_ids = nullptr;   // n_base
  std::int64_t* part_keys = nullptr;  // n_parts, ascending if the host kept its word
  std::int32_t* part_starts = nullptr;
  std::int32_t* part_sizes = nullptr;
  std::int64_t* id_to_row = nullptr;
  std::int64_t max_base_id = -1;

  // Mutation. Written by qx_index_insert and qx_index_delete alone.
  std::uint64_t snapshot = 0;
  std::uint32_t mutated = 0;
  qx::Int64Map delta_pos;  // id -> delta row
  qx::Array<std::int64_t> delta_ids;
  qx::Array<std::int64_t> delta_stamps;  // snapshot of the insert that last wrote the row
  qx::Array<float> delta_vectors;
  qx::Int64Map deleted_at;  // id -> snapshot of its delete, 0 once lifted

  // Metadata. Written by qx_index_set_rowmeta alone.
  qx::Int64Map row_labels;  // id -> label
  std::int32_t meta_ncols = 0;
  qx::Array<qx::Int64Map> meta_columns;  // per column: id -> value

  // IVF. Written by qx_index_set_ivf, qx_index_set_ivf_nprobe and qx_index_clear_ivf alone.
  qx::Int64Map ivf_map;  // key -> position in ivf_list
  qx::Array<QxIvf> ivf_list;
};

namespace qx {

// Releases all IVF structures and their keys.
void release_ivf(QxIndex& index);

}  // namespace qx
