#include "program/indexes.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>

namespace qx::postgresql {

std::shared_ptr<Index> Indexes::find(std::uint32_t table) {
  const std::lock_guard lock(mutex_);
  const auto found = all_.find(table);
  return found == all_.end() ? nullptr : found->second;
}

void Indexes::put(std::uint32_t table, std::shared_ptr<Index> index) {
  const std::lock_guard lock(mutex_);
  all_[table] = std::move(index);
}

void Indexes::drop(std::uint32_t table) {
  const std::lock_guard lock(mutex_);
  all_.erase(table);
}

void Indexes::report(Writer& answer) {
  const std::lock_guard lock(mutex_);
  answer.put(static_cast<std::int32_t>(all_.size()));
  for (const auto& [table, index] : all_) {
    const std::lock_guard inner(index->mutex);
    QxIndexStats stats = {};
    stats.table = table;
    stats.ready = index->ready ? 1 : 0;
    stats.expected = index->ready ? 0 : index->expected.load();
    stats.changes = index->changes;
    stats.searches = index->searches;
    stats.microseconds = index->microseconds;
    if (index->rows) {
      QxCollectionStats rows = {};
      qx_collection_stats(index->rows.get(), &rows);
      stats.rows = rows.rows;
      stats.bytes = rows.bytes;
    }
    answer.put(stats);
    answer.text(index->error);
  }
}

namespace {

// Answers messages until the other end closes. What a handler throws is the answer.
using Handler = std::function<std::optional<std::uint32_t>(std::uint32_t, Reader&, Writer&)>;

bool refuse(int socket, const std::string& why) {
  Writer answer;
  answer.text(why);
  return send(socket, QX_REFUSED, answer.body());
}

bool answer_one(int socket, const QxHeader& header, std::span<const char> body,
                const Handler& handle) try {
  Reader message(body);
  Writer answer;
  const auto status = handle(header.kind, message, answer);
  return !status || send(socket, *status, answer.body());
} catch (const std::bad_alloc&) {
  return refuse(socket, "out of memory");
} catch (const std::exception& error) {
  return refuse(socket, error.what());
}

void serve(int socket, const Handler& handle) try {
  QxHeader header;
  std::vector<char> body;
  while (receive(socket, header, body)) {
    if (!answer_one(socket, header, body, handle)) return;
    if (body.capacity() > (1u << 20)) body = {};
  }
} catch (const std::bad_alloc&) {
  // There is no memory for the message. The connection ends, and with it the statement.
}

class Worker {
 public:
  explicit Worker(Indexes& indexes) : indexes_(indexes) {}

  std::uint32_t handle(std::uint32_t kind, Reader& message) {
    const auto table = message.get<std::uint32_t>();
    if (kind == QX_DEFINE) {
      define(table, message);
      return QX_ANSWER;
    }
    const auto index = indexes_.find(table);
    if (!index) throw Refused("there is no such index");
    if (kind == QX_CHANGE) change(index, message);
    if (kind == QX_PUBLISH) publish(index, message);
    if (kind == QX_FAIL) fail(table, message.text());
    if (kind == QX_DROP) {
      held_.reset();
      held_index_.reset();
      indexes_.drop(table);
    }
    return QX_ANSWER;
  }

 private:
  void define(std::uint32_t table, Reader& message) {
    held_.reset();
    held_index_.reset();
    indexes_.drop(table);  // its memory, before other is taken
    const auto index = std::make_shared<Index>();
    const auto limit = message.get<std::int64_t>();
    index->expected = message.get<std::int64_t>();
    const Schema schema(message);
    if (schema.dim() > 0) index->rows = schema.make(limit);
    indexes_.put(table, index);
  }
  // From the first change on nobody may search, until all are made.
  void hold(const std::shared_ptr<Index>& index) {
    if (held_ && held_index_ == index) return;
    held_.reset();
    held_index_ = index;
    held_.emplace(index->mutex);
  }
  void change(const std::shared_ptr<Index>& index, Reader& message) {
    if (index->ready) hold(index);  // only this thread sets it
    const Rows rows(message);
    rows.apply(index->rows.get());
    if (index->ready) index->changes += rows.count() + rows.removed();
  }
  void publish(const std::shared_ptr<Index>& index, Reader& message) {
    hold(index);
    const auto snapshot = message.rest();
    index->snapshot.assign(snapshot.begin(), snapshot.end());
    index->ready = true;
    held_.reset();
  }
  void fail(std::uint32_t table, const std::string& why) {
    const auto failed = std::make_shared<Index>();
    failed->error = why;
    held_.reset();
    held_index_.reset();
    indexes_.put(table, failed);
  }

  Indexes& indexes_;
  std::shared_ptr<Index> held_index_;
  std::optional<std::unique_lock<std::mutex>> held_;
};

class BackEnd {
 public:
  BackEnd(int socket, Indexes& indexes) : socket_(socket), indexes_(indexes) {}

  std::optional<std::uint32_t> handle(std::uint32_t kind, Reader& message, Writer& answer) {
    switch (kind) {
      case QX_SEARCH:
        return search(message, answer);
      case QX_REPLACE:
        Rows(message).apply(view_.get());
        return QX_ANSWER;
      case QX_AGAIN:
        put(ask(index_->rows.get(), view_.get()), answer);
        return QX_ANSWER;
      case QX_RELEASE:
        release();
        return {};
      case QX_SCAN:
        release();
        schema_ = Schema(message);
        question_ = Question(message);
        best_.clear();
        ask(schema_.make(0).get(), nullptr);  // refuses what does not fit, also without rows
        return QX_ANSWER;
      case QX_ROWS:
        rank(message);
        return QX_ANSWER;
      case QX_RANKED:
        put_best(answer);
        return QX_ANSWER;
      case QX_STATS:
        indexes_.report(answer);
        return QX_ANSWER;
      default:
        throw Malformed();
    }
  }

 private:
  using Hit = std::pair<std::int64_t, float>;

  void release() {
    view_.reset();
    index_.reset();
  }

  std::uint32_t search(Reader& message, Writer& answer) {
    release();
    index_ = indexes_.find(message.get<std::uint32_t>());
    if (!index_) return QX_UNKNOWN;
    question_ = Question(message);
    {
      const std::lock_guard lock(index_->mutex);
      if (!index_->error.empty()) {
        answer.text(index_->error);
        return QX_FAILED;
      }
      if (!index_->ready) return QX_LOADING;
      if (!index_->rows) return QX_EMPTY;
      answer.array(index_->snapshot.data(), index_->snapshot.size());
      QxView* view = nullptr;
      expect(qx_view_new(index_->rows.get(), &view));
      view_.reset(view);
    }
    const auto began = std::chrono::steady_clock::now();
    put(ask(index_->rows.get(), view_.get()), answer);
    ++index_->searches;
    index_->microseconds += std::chrono::duration_cast<std::chrono::microseconds>(
                                std::chrono::steady_clock::now() - began)
                                .count();
    return QX_ANSWER;
  }

  // A statement that is cancelled closes its connection.
  static std::int32_t closed(void* socket, std::int64_t, std::int64_t) {
    char byte;
    return ::recv(*static_cast<int*>(socket), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0 ? 1 : 0;
  }
  Hits ask(const QxCollection* rows, const QxView* view) {
    return question_.ask(rows, view, closed, &socket_);
  }

  // Ranks a part of the rows, and keeps the k best of all parts by the order of the collection.
  void rank(Reader& message) {
    const Collection part = schema_.make(0);
    Rows(message).apply(part.get());
    const Hits hits = ask(part.get(), nullptr);
    for (std::int64_t i = 0; i < hits->counts[0]; ++i) {
      best_.emplace_back(hits->ids[i], hits->scores[i]);
    }
    const bool rising = schema_.metric() == QX_EUCLIDEAN;
    std::sort(best_.begin(), best_.end(), [rising](const Hit& a, const Hit& b) {
      if (a.second != b.second) return rising == (a.second < b.second);
      return a.first < b.first;
    });
    if (std::ssize(best_) > question_.k) best_.resize(static_cast<std::size_t>(question_.k));
  }

  void put_best(Writer& answer) {
    answer.put(static_cast<std::int64_t>(best_.size()));
    for (const Hit& hit : best_) answer.put(hit.first);
    for (const Hit& hit : best_) answer.put(hit.second);
    best_ = {};
  }

  static void put(const Hits& hits, Writer& answer) {
    const auto count = static_cast<std::size_t>(hits->counts[0]);
    answer.put(hits->counts[0]);
    answer.array(hits->ids, count);
    answer.array(hits->scores, count);
  }

  int socket_;
  Indexes& indexes_;
  Question question_;
  std::shared_ptr<Index> index_;
  View view_;  // of the index above
  Schema schema_;
  std::vector<Hit> best_;
};

}  // namespace

void serve_worker(int socket, Indexes& indexes) {
  Worker worker(indexes);
  serve(socket, [&](std::uint32_t kind, Reader& message, Writer&) {
    return std::optional(worker.handle(kind, message));
  });
}

void serve_back_end(int socket, Indexes& indexes) {
  BackEnd back_end(socket, indexes);
  serve(socket, [&](std::uint32_t kind, Reader& message, Writer& answer) {
    return back_end.handle(kind, message, answer);
  });
}

}  // namespace qx::postgresql
