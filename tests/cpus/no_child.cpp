// For systems without processes: calls that end one are not made, and taken as they are expected.
#include "support/child.h"

namespace qx_test {

ChildEnd run_in_child(const std::function<void()>& /*body*/) { return {true, -1, ""}; }

bool is_bounds_line(const std::string& /*text*/, std::int64_t /*index*/, std::int64_t /*length*/) {
  return true;
}

}  // namespace qx_test
