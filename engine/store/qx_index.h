// The types: the record of an index, with every field and who writes it. Read this first.
//
// Glossary: what is stored
//   id           the host's 64-bit number for a vector
//   row          a position: of a vector in the base (base row) or in the delta (delta row)
//   base         the rows of the latest build; sealed: only another build changes them
//   delta        the rows that inserts wrote, at most one per id, in order of first insertion
//   tombstone    an id's entry in deleted_at; with value 0 it is lifted and has no effect
//   snapshot     the number of mutations so far; stamps and tombstones record it, no read uses it
//   duplicate    a base row whose id has a later base row
//   partition    a named range of base rows
//   IVF          lists of base ids under centroids, both computed by the host
//
// Glossary: how it is read
//   visible      what a current read sees: read/visibility.h has the rule
//   filter       {mode, column, value}: the test on metadata that a read may have
//   mask         one bit for each of up to 64 rows
//   bitmap       one bit for each row of a span
//   span         consecutive rows of one place that are selected together, up to 2^19
//   selection    the spans of a read, with the rows of each that are visible and pass the filter
//   block        up to 192 rows that one kernel call takes
//   chunk        32 scores that are compared with the threshold together
//   batch        keys that a map looks up together; or scores that wait to be merged into results
//   slot         a place in the host's results; in the map, a place in its table
//   cursor       where a sequence of lookups probably continues
//   score        the result of the numeric contract (kernels/kernels.h); the only number reported
//   estimate     a sum of the same products in another order, with a proven error
//   threshold    the score that a row must exceed to enter the results
//   code         eight bits for each component of a row, in two planes of four: kernels/codes.h
//   bound        a number that the score of a row does not exceed, from its code
//   judge        by what a row may be pruned: its bound from four or eight bits, or its estimate
//   pruning      skipping the score of a row whose bound or estimate proves that it cannot enter
//   candidate    a row that was not pruned and waits for its score
#pragma once

#include "kernels/codes.h"
#include "support/array.h"
#include "support/int64_map.h"

// The library is compiled with hidden visibility. The functions of the public header are the only
// exception.
#pragma GCC visibility push(default)
#include "qx_runtime.h"
#pragma GCC visibility pop

// The codes of rows 0 to rows - 1 of an array of vectors, in one block: store/codes.cpp has the
// layout.
struct QxCodes {
  std::int64_t rows = 0;      // 0 without codes
  std::int64_t capacity = 0;  // rows for which the block has room
  std::int64_t dim = 0;
  std::uint8_t* block = nullptr;
};

// One IVF structure, exactly as the host passed it: nothing in it is validated.
struct QxIvf {
  std::int32_t nlist;
  std::int32_t nprobe;                   // lists scanned by a search; may be below 1
  qx::Array<float> centroids;            // nlist x the dimension at the time of attachment
  qx::Array<std::int64_t> list_ids;      // the members of all lists, list after list
  qx::Array<std::int32_t> list_offsets;  // nlist + 1: where each list starts, and the end
};

// What is derived from the members of an IVF structure, in the order of its lists.
struct QxMembers {
  std::int64_t first_row = -1;   // the base row of the first, if all follow each other in the base
  std::int64_t* rows = nullptr;  // the base row of each, if they do not; null without codes
  QxCodes codes;                 // of all members, or of none
};

// Invariants (store/validity.cpp checks them)
//   While sealed is 0, fields n_base to max_base_id have their initial values.
//   id_to_row has max_base_id + 1 elements; element i is -1 or the last row r with base_ids[r] ==
//   i. duplicate_rows are the base rows r with id_to_row[base_ids[r]] != r, ascending. No component
//   of a base vector that is no NaN exceeds base_magnitude in magnitude. delta_pos maps id to p if
//   and only if delta_ids[p] == id; delta_stamps is as long as delta_ids. delta_vectors has, for
//   each delta row, as many floats as dim was when the row was first inserted; row p is read at p *
//   dim for today's dim. mutated is 0 if and only if snapshot is 0. base_codes are those of all
//   base rows, or of none. delta_codes are those of delta rows as they are read under its
//   dimension. meta_columns has at least meta_ncols maps. ivf_map refers to each position of
//   ivf_list once, and ivf_members is as long. Members of which something is derived all have
//   a base row.
//
// The first 24 fields are fixed in name, type and order; what is derived follows.
struct QxIndex {
  std::uint32_t dim = 0;  // read as signed; below 1 means vectors of no elements
  std::uint32_t user_tag = 0;

  // The base. Written by store/base.cpp alone.
  std::int64_t n_base = 0;
  std::uint32_t sealed = 0;
  std::int32_t n_parts = 0;
  float* base_vectors = nullptr;      // n_base x dim
  std::int64_t* base_ids = nullptr;   // n_base
  std::int64_t* part_keys = nullptr;  // n_parts, ascending if the host kept its word
  std::int32_t* part_starts = nullptr;
  std::int32_t* part_sizes = nullptr;
  std::int64_t* id_to_row = nullptr;
  std::int64_t max_base_id = -1;

  // Mutation. Written by store/delta.cpp alone.
  std::uint64_t snapshot = 0;
  std::uint32_t mutated = 0;
  qx::Int64Map delta_pos;  // id -> delta row
  qx::Array<std::int64_t> delta_ids;
  qx::Array<std::int64_t> delta_stamps;  // snapshot of the insert that last wrote the row
  qx::Array<float> delta_vectors;
  qx::Int64Map deleted_at;  // id -> snapshot of its delete, 0 once lifted

  // Metadata. Written by store/metadata.cpp alone.
  qx::Int64Map row_labels;  // id -> label
  std::int32_t meta_ncols = 0;
  qx::Array<qx::Int64Map> meta_columns;  // per column: id -> value

  // IVF. Written by store/ivf.cpp alone.
  qx::Int64Map ivf_map;  // key -> position in ivf_list
  qx::Array<QxIvf> ivf_list;

  // Derived from the base. Written by store/base.cpp alone, and released by another build.
  float base_magnitude = 0;  // 0 without components; infinite if one is
  qx::Array<std::int64_t> duplicate_rows;
  QxCodes base_codes;  // of all base rows, or of none

  // Derived from the base and the IVF structures. Written by store/members.cpp alone.
  qx::Array<QxMembers> ivf_members;  // of each structure in ivf_list

  // Derived from the delta. Written by store/delta.cpp alone.
  QxCodes delta_codes;  // of all delta rows under this dimension, or of no use
};
