// The functions that attach IVF structures and change them.
#include "store/ivf.h"

#include "store/members.h"

int32_t qx_index_set_ivf(QxIndex* index, int64_t key, int32_t nlist, int32_t nprobe,
                         const float* centroids, const int64_t* list_ids,
                         const int32_t* list_offsets, int32_t n_ids) {
  const std::int64_t n_floats = std::int64_t{static_cast<std::int32_t>(index->dim)} * nlist;
  QxIvf ivf{
      .nlist = nlist,
      .nprobe = nprobe,
      .centroids = qx::Array<float>::copy_of(centroids, n_floats),
      .list_ids = qx::Array<std::int64_t>::copy_of(list_ids, n_ids),
      .list_offsets = qx::Array<std::int32_t>::copy_of(list_offsets, std::int64_t{nlist} + 1)};
  qx::derive_members(*index, qx::attach_ivf(*index, key, std::move(ivf)));
  return 0;
}

int32_t qx_index_has_ivf(const QxIndex* index, int64_t key) {
  return qx::find_ivf(*index, key) == nullptr ? 0 : 1;
}

int32_t qx_index_clear_ivf(QxIndex* index) {
  qx::release_ivf(*index);
  qx::release_all_members(*index);
  return 0;
}

int64_t qx_index_set_ivf_nprobe(QxIndex* index, int64_t key, int32_t nprobe) {
  QxIvf* const ivf = qx::find_ivf(*index, key);
  if (ivf == nullptr) return -1;
  ivf->nprobe = nprobe;
  return 0;
}
