#include "store/ivf.h"

namespace qx {

std::int64_t attach_ivf(QxIndex& index, std::int64_t key, QxIvf&& ivf) {
  if (QxIvf* const present = find_ivf(index, key)) {
    *present = std::move(ivf);
    return present - index.ivf_list.data;
  }
  index.ivf_map.assign(key, index.ivf_list.length);
  index.ivf_list.append(std::move(ivf));
  return index.ivf_list.length - 1;
}

// The arrays of a structure are released in the order of its fields; destructors would reverse it.
void release_ivf(QxIndex& index) {
  index.ivf_map.release();
  for (std::int64_t i = 0; i < index.ivf_list.length; ++i) {
    QxIvf& ivf = index.ivf_list.at(i);
    ivf.centroids.release();
    ivf.list_ids.release();
    ivf.list_offsets.release();
  }
  index.ivf_list.release();
}

}  // namespace qx
