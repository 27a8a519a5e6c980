// Files.
#include "files/file.h"
#include "interface/handles.h"

using namespace qx::collection;

int32_t qx_collection_save(const QxCollection* collection, const QxView* view, const char* path,
                           QxProgress progress, void* context) {
  return status_of([&] {
    const Reading reading(collection, view);
    save(reading.shape(), reading.state(), &given(path, "the path"), {progress, context});
  });
}

int32_t qx_collection_load(const char* path, const QxOptions* options, QxProgress progress,
                           void* context, QxCollection** out) {
  return status_of([&] {
    QxCollection*& slot = given(out, "out");
    constexpr QxOptions kDefaults = {};
    const QxOptions& wanted = options == nullptr ? kDefaults : *options;
    check_options(wanted);
    Loaded loaded = load(&given(path, "the path"), wanted.memory_limit, threads_of(wanted),
                         {progress, context});
    auto made = std::make_unique<QxCollection>(std::move(loaded.shape), wanted.manual != 0);
    if (loaded.sealed.segment != nullptr) {
      made->collection.adopt(std::move(loaded.sealed), std::move(loaded.lists));
    }
    slot = made.release();
  });
}
