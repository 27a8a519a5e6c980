// The sections of the benchmark: each measures one kind of work in a file of its own.
#pragma once

#include "harness/results.h"
#include "harness/settings.h"

namespace bench {

struct Section {
  const char* name;
  const char* what;
  void (*run)(const Settings& settings, Results& results);
};

void run_scan(const Settings& settings, Results& results);
void run_candidates(const Settings& settings, Results& results);
void run_walk(const Settings& settings, Results& results);
void run_match(const Settings& settings, Results& results);
void run_filtered(const Settings& settings, Results& results);
void run_ivf(const Settings& settings, Results& results);
void run_topk(const Settings& settings, Results& results);
void run_mutation(const Settings& settings, Results& results);
void run_keys(const Settings& settings, Results& results);
void run_header(const Settings& settings, Results& results);
void run_environment(const Settings& settings, Results& results);
void run_readers(const Settings& settings, Results& results);

inline constexpr Section kSections[] = {
    {"scan", "exact search of the whole base, against reading its bytes and four peers", run_scan},
    {"candidates", "search of listed ids, against touching their cache lines", run_candidates},
    {"walk", "counting and listing visible rows, against absl::flat_hash_map", run_walk},
    {"match", "ids by label, against absl::flat_hash_map", run_match},
    {"filtered", "filtered search, against the exact search of the base", run_filtered},
    {"ivf", "search through lists, against Faiss IndexIVFFlat", run_ivf},
    {"topk", "the result buffer, against plain shifting insertion", run_topk},
    {"mutation", "insert, delete, metadata and build, against maps and copies", run_mutation},
    {"keys", "patterned keys, against random ones", run_keys},
    {"header", "calls of the C++ header, against those of the C interface", run_header},
    {"environment", "short calls in floating-point environments of hosts", run_environment},
    {"readers", "two threads that search one handle, against one", run_readers},
};

}  // namespace bench
