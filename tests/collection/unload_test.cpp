// A host may unload the library: it stays where its threads need their code. Left out where there
// is no shared library.
#if defined(QX_COLLECTION_LIBRARY)
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <stdexcept>
#include <vector>

#include "qx_collection.h"

namespace {

// The library, as a host loads it at run time.
class Library {
 public:
  Library() : handle_(dlopen(QX_COLLECTION_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
  }
  Library(const Library&) = delete;
  ~Library() { dlclose(handle_); }

  template <typename Function>
  Function* find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }
  static bool is_loaded() {
    void* const handle = dlopen(QX_COLLECTION_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) dlclose(handle);
    return handle != nullptr;
  }

 private:
  void* handle_;
};
// A function of a library.
#define CALL(library, function) (library).find<decltype(function)>(#function)

// Searches a batch on all CPUs.
void search(const Library& library) {
  constexpr std::int64_t kQueries = 256;
  const std::vector<float> ones(kQueries, 1);
  const std::int64_t id = 7;
  QxOptions options = {};
  options.dim = 1;
  QxCollection* collection = nullptr;
  QxHits* hits = nullptr;
  ASSERT_EQ(CALL(library, qx_collection_new)(&options, &collection), QX_OK);
  ASSERT_EQ(
      CALL(library, qx_collection_upsert)(collection, {1, &id, nullptr}, ones.data(), nullptr),
      QX_OK);
  ASSERT_EQ(CALL(library, qx_collection_search)(collection, nullptr, ones.data(), kQueries, 1,
                                                nullptr, &hits),
            QX_OK);
  EXPECT_EQ(hits->ids[kQueries - 1], id);
  CALL(library, qx_hits_free)(hits);
  CALL(library, qx_collection_free)(collection);
}

TEST(Unloading, IsDoneUnlessThereAreThreads) {
  { const Library library; }
  EXPECT_FALSE(Library::is_loaded());
  cpu_set_t cpus;
  sched_getaffinity(0, sizeof(cpus), &cpus);
  for (int i = 0; i < 3; ++i) {
    search(Library());
    EXPECT_EQ(Library::is_loaded(), CPU_COUNT(&cpus) > 1);
  }
}

}  // namespace
#endif
