#include "peers/flagged_engine.h"

#include <dlfcn.h>

#include <cstddef>

#include "kernels/kernels.h"

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
  decltype(&qx::force_kernels) force = nullptr;
  find(library, "_ZN2qx13force_kernelsEPKc", force);
  require(force("portable"), "the second library has a portable kernel");
  Library functions{};
  find(library, "qx_index_new", functions.make);
  find(library, "qx_index_free", functions.free);
  find(library, "qx_index_build", functions.build);
  find(library, "qx_index_search_full", functions.search);
  return functions;
}

const Library& library() {
  static const Library loaded = load();
  return loaded;
}

}  // namespace

FlaggedEngine::FlaggedEngine(const Matrix& matrix)
    : index_(library().make(static_cast<uint32_t>(matrix.dim), 0)) {
  const Ids ids = ascending_ids(matrix.rows);
  const int32_t status =
      library().build(index_, matrix.values, matrix.rows, static_cast<int32_t>(matrix.dim),
                      ids.data(), nullptr, nullptr, nullptr, 0);
  require(status == 0, "the second library builds its index");
}

FlaggedEngine::~FlaggedEngine() { library().free(index_); }

float FlaggedEngine::search(const float* query, std::int64_t k) {
  scores_.resize(static_cast<std::size_t>(k));
  ids_.resize(static_cast<std::size_t>(k));
  consume(library().search(index_, query, static_cast<int32_t>(k), ids_.data(), scores_.data()));
  return scores_.front();
}

}  // namespace bench
