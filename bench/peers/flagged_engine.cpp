#include <dlfcn.h>

#include "harness/measure.h"
#include "peers/peers.h"

namespace bench {
namespace {

// The functions of the second library. It is loaded apart, so both keep their own kernels.
struct Library {
  decltype(&qx_index_new) make;
  decltype(&qx_index_free) free;
  decltype(&qx_index_build) build;
  decltype(&qx_index_search_full) search;
};

template <typename Function>
void find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  require(function != nullptr, std::string("the second library has ") + name);
}

Library load() {
  void* const library = dlopen(QX_FLAGGED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  require(library != nullptr, "the second library can be loaded");
  bool (*force)(const char* kernel) = nullptr;
  find(library, "_ZN2qx13force_kernelsEPKc", force);
  require(force("portable"), "the second library has a portable kernel");
  Library functions{};
  find(library, "qx_index_new", functions.make);
  find(library, "qx_index_free", functions.free);
  find(library, "qx_index_build", functions.build);
  find(library, "qx_index_search_full", functions.search);
  return functions;
}

}  // namespace

FlatPeer flagged_engine(const Matrix& matrix, std::int64_t k) {
  static const Library library = load();
  const std::shared_ptr<QxIndex> index(library.make(static_cast<std::uint32_t>(matrix.dim), 0),
                                       library.free);
  const std::int32_t status =
      library.build(index.get(), matrix.values, matrix.rows, static_cast<std::int32_t>(matrix.dim),
                    ascending_ids(matrix.rows).data(), nullptr, nullptr, nullptr, 0);
  require(status == 0, "the second library builds its index");
  return {"portable, -O3 -mavx2 -mfma", [index, found = Slots(k)](const float* query) mutable {
            library.search(index.get(), query, found.k, found.ids.data(), found.scores.data());
            return found.scores.front();
          }};
}

}  // namespace bench
