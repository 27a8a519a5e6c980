// Walks through the searches and through changes, and ends with the table of costs. Words that a
// file lacks are replaced by others.
#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>

#include "answer.h"
#include "text.h"

namespace {

// The table of costs: every function of the library, called with one word after another.
constexpr int kRepetitions = 31;

using Vector = std::span<const float>;

class Costs {
 public:
  explicit Costs(WordIndex& search)
      : search_(search), index_(search.index), ids_(search.words.spread(1000)) {}

  void print() {
    say("   Medians of up to " + std::to_string(kRepetitions) +
        " calls through the C++ header. Rows: the vectors that each of them reads.");
    say(std::string(52, ' ') + "median       rows    GB/s");
    print_life();
    print_sealed();
    print_current();
    print_accessors();
  }

 private:
  // A row of the table; rows is how many vectors a call reads, if that is known.
  void row(const std::string& name, const std::string& what, std::int64_t rows,
           const std::function<void(Vector)>& call, const std::function<void()>& before = nullptr) {
    std::size_t next = 0;
    const auto ask = [&] { call(search_.words.vector(ids_[next++ % ids_.size()])); };
    const double time = time_of(kRepetitions, ask, before);
    const double bytes = 4.0 * search_.words.dim() * static_cast<double>(rows);
    say("   " + left((name.starts_with("qx_") ? "" : "qx_index_") + name, 26) + left(what, 20) +
        right(time_text(time), 9) + right(rows > 0 ? grouped(rows) : "", 11) +
        right(rows > 0 ? decimal(bytes / time, 2) : "", 8));
  }
  void row(const std::string& name, const std::function<void()>& call,
           const std::function<void()>& before = nullptr) {
    const auto ask = [&](Vector) { call(); };
    row(name, "", 0, ask, before);
  }

  // From new to free, by copies: a base is sealed once.
  void print_life() {
    const qx::Rows rows = index_.export_base();
    const qx::RowMeta meta = index_.export_rowmeta(rows.ids);
    const std::span<const std::int64_t> id = std::span(rows.ids).first(1);
    const Lists& lists = search_.lists;
    std::optional<qx::Index> copy;
    const auto free = [&] { copy.reset(); };
    const auto renew = [&] { copy = qx::Index(search_.words.dim()); };
    const auto build = [&](Vector = {}) {
      copy->build(rows.vectors, rows.ids, search_.partitions);
    };
    const auto rebuild = [&] { renew(), build(); };
    const auto set = [&] { copy->set_ivf(0, 1, lists.centroids, lists.ids, lists.offsets); };
    const auto clear = [&] { copy->clear_ivf(); };
    row("new", renew, free);
    row("build", "", index_.size(), build, renew);
    row("set_rowmeta", [&] { copy->set_rowmeta(rows.ids, meta.labels, meta.values, 1); });
    row("set_ivf", set);
    row("clear_ivf", clear, set);
    row("insert", "a row", 0, [&](Vector vector) { copy->insert(vector, id); });
    row("delete", "an id", 0, [&](Vector) { copy->erase(id); });
    row("free", free, rebuild);
  }

  void print_sealed() {
    const std::int64_t all = index_.size();
    const auto part = std::ranges::max(search_.partitions, {}, &qx::Partition::size);
    const std::string letter(1, static_cast<char>(part.key));
    const std::string lists = std::to_string(search_.nprobe) + " lists";
    row("search_full", "k = 10", all, [&](Vector v) { index_.search_full(v, 10); });
    row("search_full", "k = 100", all, [&](Vector v) { index_.search_full(v, 100); });
    row("search_partition", "partition " + letter, part.size,
        [&](Vector v) { index_.search_partition(part.key, v, 10); });
    row("scatter_topk", "listed ids", std::ssize(ids_),
        [&](Vector v) { index_.scatter_topk(ids_, v, 10); });
    row("search_ivf", lists, 0, [&](Vector v) { index_.search_ivf(kIvfKey, v, 10); });
    row("set_ivf_nprobe", [&] { search_.set_nprobe(search_.nprobe); });
    row("export_base", "", all, [&](Vector) { index_.export_base(); });
  }

  void print_current() {
    const std::int64_t all = index_.visible_count();
    const qx::Filter length = qx::Filter::column(0, 6);
    row("search_mvcc", "listed ids", std::ssize(ids_),
        [&](Vector v) { index_.search_mvcc(ids_, v, 10); });
    print_filtered("every visible row", qx::Filter::all());
    print_filtered("label s", qx::Filter::label('s'));
    print_filtered("6 characters", length);
    row("match_ids", "6 characters", 0, [&](Vector) { index_.match_ids(length); });
    row("visible_count", [&] { index_.visible_count(); });
    row("visible_ids", [&] { index_.visible_ids(); });
    row("export_visible", "", all, [&](Vector) { index_.export_visible(); });
    row("export_rowmeta", "listed ids", 0, [&](Vector) { index_.export_rowmeta(ids_); });
  }

  void print_filtered(const std::string& what, const qx::Filter& filter) {
    row("search_filtered", what, std::ssize(index_.match_ids(filter)),
        [&](Vector v) { index_.search_filtered(filter, v, 10); });
  }

  void print_accessors() {
    const auto threshold = static_cast<std::int32_t>(qx::tuner_defaults().first);
    row("tuner_oversized", [&] { index_.tuner_oversized(threshold); });
    row("qx_tuner_defaults", [] { qx::tuner_defaults(); });
    row("stats", [&] { index_.size(); });
    row("snapshot", [&] { index_.snapshot(); });
    row("mutated", [&] { index_.mutated(); });
    row("sealed", [&] { index_.sealed(); });
    row("delta_count", [&] { index_.delta_count(); });
    row("has_ivf", [&] { index_.has_ivf(kIvfKey); });
    row("qx_runtime_format_version", [] { qx_runtime_format_version(); });
  }

  WordIndex& search_;
  const qx::Index& index_;
  std::vector<std::int64_t> ids_;
};

class Tour {
 public:
  Tour(WordIndex& search, std::int64_t k) : search_(search), words_(search.words), k_(k) {}

  void run() {
    say("\nAnswers stand below their function and its median time; the scores are cosines.");
    show_searches();
    show_changes();
    step("What the calls cost");
    Costs(search_).print();
  }

 private:
  void step(const std::string& title) {
    say("");
    say(std::to_string(++steps_) + ". " + title);
  }

  // A word, or the one at a place where there is none.
  std::string word(const std::string& word, std::int64_t place) const {
    return words_.find(word) ? word : words_.word(std::min(place, search_.index.size() - 1));
  }
  Asker asker(const std::string& text) const { return {search_, parse_query(text, words_), k_}; }
  std::vector<std::int64_t> some_ids() const {
    std::vector<std::int64_t> ids;
    for (const char* some : {"queen", "castle", "banana", "monday", "throne", "prince", "river"}) {
      ids.push_back(words_.require(word(some, std::ssize(ids))));
    }
    return ids;
  }

  void show_searches() {
    const Asker king = asker(king_);
    const std::int64_t letter = parse_query(queen_, words_).letter;
    step("Search the sealed base for " + in_quotes(king_) + ": all of it, a partition, listed ids");
    const Column listed = king.ask("listed ids", "scatter_topk", [&](auto k) {
      return search_.index.scatter_topk(some_ids(), king.query.vector, k);
    });
    print_columns({king.full("every word"), king.partition(letter), listed}, words_);
    step("Search by IVF: fewer rows, and now and then a neighbour missed");
    print_columns({king.full("every word"), king.ivf()}, words_);
    step("Search words whose metadata pass a test: a label, the value of a column, or both");
    print_columns({king.label(letter), king.length(6), king.label_and_length(letter, 5)}, words_);
  }

  void show_changes() {
    const std::int64_t queen = words_.require(queen_);
    step("Delete " + in_quotes(queen_) +
         ": current reads see that, the sealed base stays as it is");
    show_call("qx_index_delete", queen_, [&] { search_.erase(queen); });
    print_columns({asker(king_).filtered("visible now", qx::Filter::all()),
                   asker(king_).full("still sealed"), asker(king_).now("listed ids", some_ids())},
                  words_);
    const std::string sum = king_ + " - " + word("man", 1) + " + " + word("woman", 2);
    step("Insert it again, and a row that no word has: " + in_quotes(sum));
    show_call("qx_index_insert", queen_, [&] { search_.insert(queen); });
    const std::int64_t added = search_.add(sum, parse_query(sum, words_).vector);
    show_call("qx_index_insert", "the sum", [&] { search_.insert(added); });
    print_columns({asker(king_).filtered("visible now", qx::Filter::all()), asker(king_).ivf_now(),
                   asker(queen_).filtered("near " + queen_, qx::Filter::all())},
                  words_);
  }

  WordIndex& search_;
  const Words& words_;
  std::int64_t k_;
  int steps_ = 0;
  std::string king_ = word("king", 0);
  std::string queen_ = word("queen", 1);
};

}  // namespace

void run_tour(WordIndex& search, std::int64_t k) { Tour(search, k).run(); }
