#include <cmath>
#include <string>

#include "peers/peers.h"

namespace bench {

void add_others(Contestants& contestants, std::span<const Other> others, const Matrix& matrix,
                Queries& queries, std::int64_t k, float best) {
  const float rounding = 1e-4f * std::sqrt(static_cast<float>(matrix.dim));
  for (const Other& other : others) {
    const FlatPeer peer = other.make(matrix, k);
    require(std::abs(peer.search(queries.first()) - best) <= (other.same_bits ? 0 : rounding),
            std::string(peer.name) + " finds the same best score");
    contestants.push_back({peer.name, other.role,
                           [&queries, search = peer.search] { return search(queries.next()); }});
  }
}

}  // namespace bench
