#include "shared.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>

namespace qx_sqlite {
namespace {

// A history that has written more rowids forgets its beginning.
constexpr std::size_t kLongestHistory = 100'000;

ViewPointer view_of(QxCollection* collection) {
  QxView* view = nullptr;
  check_call(qx_view_new(collection, &view));
  return ViewPointer(view);
}

}  // namespace

// ---- Copies ----

Copy Copy::loaded(Storage& storage, const Declaration& declaration) {
  Copy copy;
  copy.history_.push_back({storage.stamp(), {}});
  copy.collection = load_rows(storage, declaration);
  return copy;
}

Copy Copy::view() const {
  Copy copy;
  copy.collection = collection;
  copy.own = view_of(collection.get());
  copy.history_ = history_;
  return copy;
}

Copy::Path Copy::path(Storage& storage) const {
  Path path;
  storage.commits([&](const Commit& commit) {
    const auto same = std::find_if(history_.rbegin(), history_.rend(), [&](const Commit& before) {
      return before.stamp == commit.stamp;
    });
    if (same != history_.rend()) {
      path.known = true;
      path.common = static_cast<std::size_t>(history_.rend() - same) - 1;
      return true;
    }
    path.commits.push_back(commit);
    return !commit.rowids;
  });
  return path;
}

Copy::Relation Copy::relation(Storage& storage) const {
  const Path found = path(storage);
  if (!found.known) return Relation::kUnknown;
  return found.common + 1 == history_.size() ? Relation::kLater : Relation::kApart;
}

bool Copy::follow(Storage& storage, const Declaration& declaration) {
  const Path found = path(storage);
  if (!found.known) return false;
  std::vector<std::int64_t> rowids;
  const auto add = [&](const Commit& commit) {
    rowids.insert(rowids.end(), commit.rowids->begin(), commit.rowids->end());
  };
  std::for_each(found.commits.begin(), found.commits.end(), add);
  std::for_each(history_.begin() + static_cast<std::ptrdiff_t>(found.common) + 1, history_.end(),
                add);
  std::sort(rowids.begin(), rowids.end());
  rowids.erase(std::unique(rowids.begin(), rowids.end()), rowids.end());
  refresh_rows(storage, declaration, collection.get(), own.get(), rowids);
  history_.resize(found.common + 1);
  history_.insert(history_.end(), found.commits.rbegin(), found.commits.rend());
  std::size_t known = 0;
  auto first = history_.end() - 1;
  while (first != history_.begin() &&
         (known += first->rowids ? first->rowids->size() + 4 : 0) < kLongestHistory) {
    --first;
  }
  history_.erase(history_.begin(), first);
  return true;
}

// ---- What is shared ----

std::shared_ptr<Slot> slot_of(sqlite3* database, const std::string& schema,
                              const std::string& table) {
  static std::mutex mutex;
  static std::map<std::string, std::weak_ptr<Slot>> slots;
  const char* const path = sqlite3_db_filename(database, schema.c_str());
  struct stat file;
  if (path == nullptr || *path == 0 || stat(path, &file) != 0) return std::make_shared<Slot>();
  const std::string key = joined(path, "\n", file.st_dev, "\n", file.st_ino, "\n", table);
  const std::lock_guard lock(mutex);
  std::erase_if(slots, [](const auto& slot) { return slot.second.expired(); });
  std::shared_ptr<Slot> slot = slots[key].lock();
  if (!slot) slots[key] = slot = std::make_shared<Slot>();
  return slot;
}

Reader::Reader(Storage& storage, const Declaration& declaration)
    : storage_(storage),
      declaration_(declaration),
      slot_(slot_of(storage.database(), storage.schema(), storage.table())) {}

void Reader::release() {
  own_.reset();
  is_writing_ = false;
}

void Reader::release_snapshot() {
  if (!is_writing_ && sqlite3_get_autocommit(storage_.database()) != 0) own_.reset();
}

Reader::Rows Reader::rows() {
  const std::int64_t stamp = storage_.stamp();
  if (own_ && own_->stamp() == stamp) return {own_->collection, own_->own.get(), {}};
  const std::lock_guard lock(slot_->mutex);
  std::optional<Copy>& shared = slot_->copy;
  if (!is_writing_ && (!shared || shared->stamp() != stamp)) update(shared);
  if (!shared || shared->stamp() != stamp) return own_rows(shared);
  own_.reset();
  Rows seen = {shared->collection, nullptr, view_of(shared->collection.get())};
  seen.view = seen.owned.get();
  return seen;
}

// Brings what is shared to the present rows. A transaction may have a snapshot of before, which
// must not undo what others have read since.
void Reader::update(std::optional<Copy>& shared) {
  const auto relation = shared ? shared->relation(storage_) : Copy::Relation::kUnknown;
  const bool is_present = sqlite3_get_autocommit(storage_.database()) != 0;
  if (relation != Copy::Relation::kLater && shared && !is_present) return;
  try {
    if (relation != Copy::Relation::kUnknown) {
      shared->follow(storage_, declaration_);
    } else {
      shared.reset();
      shared = Copy::loaded(storage_, declaration_);
    }
  } catch (...) {
    shared.reset();
    throw;
  }
}

Reader::Rows Reader::own_rows(const std::optional<Copy>& shared) {
  try {
    if (!own_ && shared) own_ = shared->view();
    if (!own_ || !own_->follow(storage_, declaration_)) {
      own_.reset();
      own_ = Copy::loaded(storage_, declaration_);
    }
  } catch (...) {
    own_.reset();
    throw;
  }
  return {own_->collection, own_->own.get(), {}};
}

}  // namespace qx_sqlite
