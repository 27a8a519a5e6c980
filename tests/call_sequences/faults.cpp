// Planted faults: the environment variable QX_PLANTED_FAULT chooses one. The linker redirects calls
// of three functions to these wrappers (--wrap), which call the real ones.
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "qx_runtime.h"

namespace {

bool planted(const char* name) {
  const char* const fault = std::getenv("QX_PLANTED_FAULT");
  return fault != nullptr && std::strcmp(fault, name) == 0;
}

}  // namespace

extern "C" {

decltype(qx_index_search_mvcc) __real_qx_index_search_mvcc, __wrap_qx_index_search_mvcc;
decltype(qx_index_export_visible) __real_qx_index_export_visible, __wrap_qx_index_export_visible;
decltype(qx_index_search_full) __real_qx_index_search_full, __wrap_qx_index_search_full;

// A wrong bit in the second score, once two rows have been inserted.
int64_t __wrap_qx_index_search_mvcc(const QxIndex* index, const int64_t* ids, int32_t n,
                                    const float* query, uint32_t k, int64_t* out_ids,
                                    float* out_scores) {
  const int64_t result = __real_qx_index_search_mvcc(index, ids, n, query, k, out_ids, out_scores);
  if (planted("wrong-score") && result >= 2 && out_ids[1] != -1 &&
      qx_index_delta_count(index) >= 2) {
    uint32_t bits = 0;
    std::memcpy(&bits, &out_scores[1], sizeof bits);
    bits ^= 1;
    std::memcpy(&out_scores[1], &bits, sizeof bits);
  }
  return result;
}

// A crash after the third change.
int64_t __wrap_qx_index_export_visible(const QxIndex* index, float* out_vectors, int64_t* out_ids) {
  if (planted("crash") && qx_index_snapshot(index) >= 3) std::raise(SIGSEGV);
  return __real_qx_index_export_visible(index, out_vectors, out_ids);
}

// One slot too many.
int32_t __wrap_qx_index_search_full(const QxIndex* index, const float* query, int32_t k,
                                    int64_t* out_ids, float* out_scores) {
  const int32_t result = __real_qx_index_search_full(index, query, k, out_ids, out_scores);
  if (planted("write-beyond") && result >= 1) out_scores[result] = 0.0f;
  return result;
}
}
