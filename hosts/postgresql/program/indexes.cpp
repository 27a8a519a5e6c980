#include "program/indexes.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <tuple>

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

namespace {

QxCollectionStats stats_of(const Index& index) {
  QxCollectionStats stats = {};
  stats.rows = index.loaded;
  stats.bytes = index.loaded_bytes;
  if (index.rows) qx_collection_stats(index.rows.get(), &stats);
  return stats;
}

}  // namespace

std::int64_t Indexes::bytes() {
  const std::lock_guard lock(mutex_);
  std::int64_t bytes = 0;
  for (const auto& [table, index] : all_) {
    const std::lock_guard inner(index->mutex);
    bytes += stats_of(*index).bytes;
  }
  return bytes;
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
    const QxCollectionStats rows = stats_of(*index);
    stats.rows = rows.rows;
    stats.bytes = rows.bytes;
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

// Memory of a message is kept for the next one, up to `kept` bytes.
void serve(int socket, std::size_t kept, const Handler& handle) try {
  QxHeader header;
  std::vector<char> body;
  while (receive(socket, header, body)) {
    if (!answer_one(socket, header, body, handle)) return;
    if (body.capacity() > kept) body = {};
  }
} catch (const std::bad_alloc&) {
  // There is no memory for the message. The connection ends, and with it the statement.
}

class Worker {
 public:
  explicit Worker(Indexes& indexes) : indexes_(indexes) {}

  std::uint32_t handle(std::uint32_t kind, Reader& message, Writer& answer) {
    const auto table = message.get<std::uint32_t>();
    if (kind == QX_DEFINE || kind == QX_DROP || kind == QX_FAIL) {
      loading_.reset();
      indexes_.drop(table);  // its memory, before other is taken
    }
    if (kind == QX_DEFINE) define(table, message);
    if (kind == QX_FAIL) fail(table, message.text());
    if (kind == QX_CHANGE || kind == QX_BEGIN || kind == QX_PUBLISH) {
      const auto index = indexes_.find(table);
      if (!index) throw Refused("there is no such index");
      if (kind == QX_CHANGE) change(*index, Rows(message));
      if (kind == QX_BEGIN) begin(*index, message);
      if (kind == QX_PUBLISH) publish(*index, message);
    }
    answer.put(indexes_.bytes());
    return QX_ANSWER;
  }

 private:
  void define(std::uint32_t table, Reader& message) {
    const auto index = std::make_shared<Index>();
    const auto limit = message.get<std::int64_t>();
    index->expected = message.get<std::int64_t>();
    loading_.emplace(Schema(message), limit);
    indexes_.put(table, index);
  }
  void fail(std::uint32_t table, const std::string& why) {
    const auto failed = std::make_shared<Index>();
    failed->error = why;
    indexes_.put(table, failed);
  }
  void change(Index& index, Rows rows) {
    if (index.ready) {  // only this thread sets it
      rows.apply(index.rows.get());
      index.changes += rows.count() + rows.removed();
      return;
    }
    loading_.value().add(std::move(rows));
    index.loaded = loading_->rows();
    index.loaded_bytes = loading_->bytes();
  }
  static void begin(Index& index, const Reader& message) {
    const auto snapshot = message.rest();
    const std::lock_guard lock(index.mutex);
    index.snapshots.emplace_back(snapshot.begin(), snapshot.end());
  }
  void publish(Index& index, const Reader& message) {
    Collection rows = index.ready ? nullptr : loading_.value().build();
    loading_.reset();
    const auto snapshot = message.rest();
    const std::lock_guard lock(index.mutex);
    index.snapshots = {{snapshot.begin(), snapshot.end()}};
    if (!index.ready) index.rows = std::move(rows);
    index.ready = true;
  }

  Indexes& indexes_;
  std::optional<Loading> loading_;  // of the index that was defined last
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
  struct Hit {
    std::int64_t number;
    std::string text;
    float score;
  };

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
      answer.put(static_cast<std::int32_t>(index_->snapshots.size()));
      for (const auto& snapshot : index_->snapshots) {
        answer.array(snapshot.data(), snapshot.size());
      }
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
      const QxText text = hits->texts == nullptr ? QxText{} : hits->texts[i];
      best_.push_back({hits->texts == nullptr ? hits->ids[i] : 0,
                       {text.data, static_cast<std::size_t>(text.size)},
                       hits->scores[i]});
    }
    const bool rising = schema_.metric() == QX_EUCLIDEAN;
    std::sort(best_.begin(), best_.end(), [rising](const Hit& a, const Hit& b) {
      if (a.score != b.score) return rising == (a.score < b.score);
      return std::tie(a.number, a.text) < std::tie(b.number, b.text);
    });
    if (std::ssize(best_) > question_.k) best_.resize(static_cast<std::size_t>(question_.k));
  }

  void put_best(Writer& answer) {
    std::vector<std::int64_t> numbers;
    std::vector<QxText> texts;
    std::vector<float> scores;
    for (const Hit& hit : best_) {
      numbers.push_back(hit.number);
      texts.push_back({hit.text.data(), std::ssize(hit.text)});
      scores.push_back(hit.score);
    }
    const bool has_texts = schema_.id_kind() == QX_TEXTS;
    put(numbers.data(), has_texts ? texts.data() : nullptr, scores.data(), scores.size(), answer);
    best_ = {};
  }

  static void put(const Hits& hits, Writer& answer) {
    put(hits->ids, hits->texts, hits->scores, static_cast<std::size_t>(hits->counts[0]), answer);
  }
  static void put(const std::int64_t* numbers, const QxText* texts, const float* scores,
                  std::size_t count, Writer& answer) {
    answer.put(static_cast<std::int64_t>(count));
    if (texts == nullptr) answer.array(numbers, count);
    for (std::size_t i = 0; texts != nullptr && i < count; ++i) answer.put(texts[i].size);
    for (std::size_t i = 0; texts != nullptr && i < count; ++i) {
      answer.array(texts[i].data, static_cast<std::size_t>(texts[i].size));
    }
    answer.array(scores, count);
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
  serve(socket, 8u << 20, [&](std::uint32_t kind, Reader& message, Writer& answer) {
    return std::optional(worker.handle(kind, message, answer));
  });
}

void serve_back_end(int socket, Indexes& indexes) {
  BackEnd back_end(socket, indexes);
  serve(socket, 1u << 20, [&](std::uint32_t kind, Reader& message, Writer& answer) {
    return back_end.handle(kind, message, answer);
  });
}

}  // namespace qx::postgresql
