// Files of collections: what is saved is loaded, the same rows give the same bytes, and what is not
// whole or not of the format is refused. The format is said again here, as far as tests change it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "files/format.h"
#include "qx_collection.h"
#include "support/child.h"
#include "support/random.h"

namespace {

// The call of a system function that fails, counted from 1. Where `part` is set, none fails, and
// each reads or writes only that share of the bytes.
struct Fault {
  std::string function;
  int number = 0;
  int error = 0;
  int calls = 0;
  std::size_t part = 1;

  bool strikes(std::string_view called) {
    if (called != function || ++calls != number) return false;
    errno = error;
    return true;
  }
  std::size_t share(std::size_t bytes) const { return (bytes + part - 1) / part; }
} fault;

}  // namespace

// Reached instead of the system's, by the linker.
extern "C" {
ssize_t __real_pread(int file, void* to, std::size_t bytes, off_t offset);
ssize_t __real_pwrite(int file, const void* from, std::size_t bytes, off_t offset);
int __real_fsync(int file);
int __real_renameat(int from, const char* name, int to, const char* new_name);
ssize_t __wrap_pread(int file, void* to, std::size_t bytes, off_t offset) {
  return fault.strikes("pread") ? -1 : __real_pread(file, to, fault.share(bytes), offset);
}
ssize_t __wrap_pwrite(int file, const void* from, std::size_t bytes, off_t offset) {
  return fault.strikes("pwrite") ? -1 : __real_pwrite(file, from, fault.share(bytes), offset);
}
int __wrap_fsync(int file) { return fault.strikes("fsync") ? -1 : __real_fsync(file); }
int __wrap_renameat(int from, const char* name, int to, const char* new_name) {
  return fault.strikes("renameat") ? -1 : __real_renameat(from, name, to, new_name);
}
}

namespace qx_test {
namespace {

namespace fs = std::filesystem;
using Numbers = std::vector<std::int64_t>;

struct Release {
  void operator()(QxCollection* collection) const { qx_collection_free(collection); }
  void operator()(QxView* view) const { qx_view_free(view); }
  void operator()(QxRows* rows) const { qx_rows_free(rows); }
  void operator()(QxHits* hits) const { qx_hits_free(hits); }
};
template <typename T>
using Owner = std::unique_ptr<T, Release>;

// A folder that is removed with all that is in it.
class Folder {
 public:
  Folder() : path_(fs::path(testing::TempDir()) / "qx_files_XXXXXX") {
    std::string name = path_;
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~Folder() { fs::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ / name; }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_))
      names.push_back(entry.path().filename());
    std::ranges::sort(names);
    return names;
  }

 private:
  fs::path path_;
};

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string& path, const std::string& bytes) {
  fs::remove(path);  // since a file that is cut to nothing and written again is synced
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

constexpr QxColumn kColumns[] = {{"integer", QX_INTEGER},
                                 {"a \"real\"", QX_REAL},
                                 {"boolean", QX_BOOLEAN},
                                 {"text", QX_TEXT},
                                 {"nothing", QX_TEXT}};
constexpr std::size_t kMany = std::size(kColumns);

// Rows as a host gives them. What a row has follows from its number.
struct Rows {
  Rows(std::int32_t dim, const Numbers& numbers, std::uint64_t version = 0) {
    constexpr auto kNaN = std::bit_cast<double>(0xFFF4567812345678u);
    for (const std::int64_t n : numbers) {
      Random random(static_cast<std::uint64_t>(n) ^ version << 32);
      const std::vector<float> vector = draw_floats(random, Values::kSmooth, dim);
      vectors.insert(vectors.end(), vector.begin(), vector.end());
      if (n % 5 == 0) vectors.back() = -0.0f;
      keys.push_back(n == 0 ? ""
                            : std::string(static_cast<std::size_t>(n) % 3, '\xFF') +
                                  std::to_string(n) + '\0');
      integers.push_back(static_cast<std::int64_t>(random.bits()));
      reals.push_back(random.any_of(std::vector<double>{-0.0, 0.0, -1.5, 1e300, kNaN}));
      booleans.push_back(random.percent(50));
      texts.push_back(
          random.any_of(std::vector<std::string>{"", "a", std::string("a\0b", 3), "\xFF"}));
      for (auto& column : nulls) column.push_back(random.percent(30));
      nulls[kMany - 1].back() = 1;
    }
    ids = {std::ssize(numbers), numbers.data(), texts_of(keys, &key_texts)};
    values[0].integers = integers.data();
    values[1].reals = reals.data();
    values[2].booleans = booleans.data();
    values[3].texts = texts_of(texts, &value_texts);
    for (std::size_t c = 0; c < kMany; ++c) values[c].nulls = nulls[c].data();
  }
  Rows(const Rows&) = delete;

  static const QxText* texts_of(const std::vector<std::string>& from, std::vector<QxText>* to) {
    for (const std::string& text : from) to->push_back({text.data(), std::ssize(text)});
    return to->data();
  }

  std::vector<float> vectors;
  std::vector<std::string> keys, texts;
  std::vector<QxText> key_texts, value_texts;
  Numbers integers;
  std::vector<double> reals;
  std::vector<std::uint8_t> booleans, nulls[kMany];
  QxIds ids;
  QxValues values[kMany] = {};
};

Owner<QxCollection> create(std::int32_t dim, std::int32_t id_kind, const Numbers& numbers = {},
                           QxOptions options = {}) {
  options.dim = dim;
  options.id_kind = id_kind;
  options.columns = kColumns;
  options.n_columns = kMany;
  QxCollection* made = nullptr;
  EXPECT_EQ(qx_collection_new(&options, &made), QX_OK) << qx_collection_message();
  const Rows rows(dim, numbers);
  EXPECT_EQ(qx_collection_upsert(made, rows.ids, rows.vectors.data(), rows.values), QX_OK);
  return Owner<QxCollection>(made);
}

Numbers numbers_to(std::int64_t count) {
  Numbers numbers(static_cast<std::size_t>(count));
  std::iota(numbers.begin(), numbers.end(), 0);
  return numbers;
}

std::string saved(const QxCollection* collection, const QxView* view = nullptr) {
  const Folder folder;
  const std::string path = folder / "saved";
  EXPECT_EQ(qx_collection_save(collection, view, path.c_str(), nullptr, nullptr), QX_OK)
      << qx_collection_message();
  EXPECT_EQ(folder.names(), std::vector<std::string>{"saved"});
  return read_file(path);
}

// The status of a load; a collection with QX_OK alone, and a message that names the file otherwise.
std::int32_t load(const std::string& path, Owner<QxCollection>* loaded, QxOptions options = {}) {
  QxCollection* made = nullptr;
  const std::int32_t status = qx_collection_load(path.c_str(), &options, nullptr, nullptr, &made);
  EXPECT_EQ(made != nullptr, status == QX_OK);
  loaded->reset(made);
  const std::string message = qx_collection_message();
  if (status == QX_CORRUPT || status == QX_IO_ERROR) {
    EXPECT_EQ(message.substr(0, path.size() + 2), path + ": ");
    EXPECT_EQ(message.find('\n'), std::string::npos);
  }
  return status;
}

Owner<QxCollection> loaded_from(const std::string& bytes) {
  const Folder folder;
  write_file(folder / "file", bytes);
  Owner<QxCollection> collection;
  EXPECT_EQ(load(folder / "file", &collection), QX_OK) << qx_collection_message();
  return collection;
}

void append_texts(std::string& bytes, const QxText* texts, std::int64_t count) {
  for (std::int64_t i = 0; texts != nullptr && i < count; ++i) {
    bytes.append(std::to_string(texts[i].size) + ':')
        .append(texts[i].data, static_cast<std::size_t>(texts[i].size));
  }
}
template <typename T>
void append_array(std::string& bytes, const T* array, std::int64_t count) {
  if (array == nullptr) return;
  bytes.append(reinterpret_cast<const char*>(array), static_cast<std::size_t>(count) * sizeof(T));
}

// Everything that a collection gives out of its rows, and the hits of some queries.
std::string contents_of(const QxCollection* collection) {
  QxRows* listed = nullptr;
  EXPECT_EQ(qx_collection_list(collection, nullptr, nullptr, {}, INT64_MAX, &listed), QX_OK);
  const Owner<QxRows> rows(listed);
  const std::int64_t count = rows->count;
  std::string bytes = std::to_string(count) + ' ' + std::to_string(rows->dim);
  append_array(bytes, rows->ids, count);
  append_texts(bytes, rows->texts, count);
  append_array(bytes, rows->vectors, count * rows->dim);
  for (std::int32_t c = 0; c < rows->n_columns; ++c) {
    const QxValues& column = rows->columns[c];
    append_array(bytes, column.integers, count);
    append_array(bytes, column.reals, count);
    append_array(bytes, column.booleans, count);
    append_texts(bytes, column.texts, count);
    append_array(bytes, column.nulls, count);
  }
  const Rows queries(rows->dim, {-1, -2, -3});
  QxHits* found = nullptr;
  EXPECT_EQ(
      qx_collection_search(collection, nullptr, queries.vectors.data(), 3, 20, nullptr, &found),
      QX_OK);
  const Owner<QxHits> hits(found);
  append_array(bytes, hits->scores, 3 * hits->k);
  append_array(bytes, hits->ids, 3 * hits->k);
  append_texts(bytes, hits->texts, 3 * hits->k);
  return bytes;
}

// ---- What is saved is loaded ----

TEST(CollectionFiles, KeepEveryBitOfRowsOfEveryKind) {
  for (const std::int32_t id_kind : {QX_NUMBERS, QX_TEXTS}) {
    for (const std::int32_t dim : {1, 7, 100, 9000}) {
      for (const std::int64_t count : {0, 1, 63, 64, 65, dim > 1000 ? 100 : 5000}) {
        QxOptions options = {};
        options.metric = static_cast<std::int32_t>((dim + count + id_kind) % 3);
        SCOPED_TRACE(testing::Message() << id_kind << ' ' << dim << ' ' << count);
        const auto collection = create(dim, id_kind, numbers_to(count), options);
        const std::string bytes = saved(collection.get());
        const auto copy = loaded_from(bytes);
        EXPECT_EQ(contents_of(copy.get()), contents_of(collection.get()));
        EXPECT_EQ(saved(copy.get()), bytes);
        QxOptions schema;
        qx_collection_schema(copy.get(), &schema);
        EXPECT_EQ(schema.id_kind, id_kind);
        EXPECT_EQ(schema.metric, options.metric);
        ASSERT_EQ(schema.n_columns, std::ssize(kColumns));
        for (std::size_t c = 0; c < kMany; ++c) {
          EXPECT_STREQ(schema.columns[c].name, kColumns[c].name);
          EXPECT_EQ(schema.columns[c].type, kColumns[c].type);
        }
      }
    }
  }
}

TEST(CollectionFiles, HaveTheSameBytesWhateverTheHistory) {
  constexpr std::int32_t kDim = 33;
  for (const std::int32_t id_kind : {QX_NUMBERS, QX_TEXTS}) {
    const std::string expected = saved(create(kDim, id_kind, numbers_to(9000)).get());
    for (const std::uint64_t seed : {1u, 2u}) {
      Random random(seed);
      Numbers numbers = numbers_to(10000);
      random.shuffle(numbers);
      const auto collection = create(kDim, id_kind);
      for (const std::uint64_t version : {1u, 0u}) {  // which replaces the one before
        for (std::size_t first = 0; first < numbers.size();) {
          const std::size_t end = std::min(first + 1 + random.bits() % 3000, numbers.size());
          const Numbers some(&numbers[first], &numbers[end - 1] + 1);
          const Rows rows(kDim, some, version);
          ASSERT_EQ(
              qx_collection_upsert(collection.get(), rows.ids, rows.vectors.data(), rows.values),
              QX_OK);
          first = end;
        }
      }
      Numbers extra = numbers_to(1000);
      for (std::int64_t& number : extra) number += 9000;
      const Rows removed(kDim, extra);
      ASSERT_EQ(qx_collection_remove(collection.get(), removed.ids, nullptr), QX_OK);
      EXPECT_EQ(saved(collection.get()), expected);
      ASSERT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
      EXPECT_EQ(saved(collection.get()), expected);
    }
  }
}

TEST(CollectionFiles, HaveTheRowsOfAView) {
  const auto collection = create(5, QX_TEXTS, numbers_to(700));
  const std::string before = saved(collection.get());
  QxView* made = nullptr;
  ASSERT_EQ(qx_view_new(collection.get(), &made), QX_OK);
  const Owner<QxView> view(made);
  const Rows removed(5, {3, 699}), added(5, {700, 701});
  ASSERT_EQ(qx_view_remove(view.get(), removed.ids, nullptr), QX_OK);
  ASSERT_EQ(qx_view_upsert(view.get(), added.ids, added.vectors.data(), added.values), QX_OK);
  Numbers expected = numbers_to(702);
  std::erase_if(expected, [](std::int64_t number) { return number == 3 || number == 699; });
  EXPECT_EQ(saved(collection.get(), view.get()), saved(create(5, QX_TEXTS, expected).get()));
  EXPECT_EQ(saved(collection.get()), before);
}

// ---- What is refused ----

std::string small_file() { return saved(create(2, QX_TEXTS, {0, 1, 2, 3, 4}).get()); }

TEST(CollectionFiles, AreRefusedWithoutAByteWithOneMoreAndWithOneBitChanged) {
  const std::string whole = small_file();
  ASSERT_LT(whole.size(), 2000u);
  const Folder folder;
  const std::string path = folder / "file";
  Owner<QxCollection> loaded;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    write_file(path, whole.substr(0, size));
    EXPECT_EQ(load(path, &loaded), QX_CORRUPT) << size << " bytes";
  }
  write_file(path, whole + '\0');
  EXPECT_EQ(load(path, &loaded), QX_CORRUPT);
  for (std::size_t bit = 0; bit < 8 * whole.size(); ++bit) {
    std::string changed = whole;
    changed[bit / 8] ^= static_cast<char>(1 << bit % 8);
    write_file(path, changed);
    EXPECT_EQ(load(path, &loaded), QX_CORRUPT) << "bit " << bit;
  }
  write_file(path, whole);
  EXPECT_EQ(load(path, &loaded), QX_OK);
}

// Numbers of `width` bytes, the lowest first.
std::string bytes_of(const std::vector<std::uint64_t>& numbers, int width) {
  std::string bytes;
  for (const std::uint64_t number : numbers) {
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<char>(number >> 8 * i & 0xFF));
  }
  return bytes;
}

// A file of three rows, written by hand, with digests that fit.
struct Crafted {
  struct Column {
    std::uint64_t type, known, texts, text_bytes;
    std::string name;
  };
  std::uint64_t version = 1, dim = 2, id_kind = QX_NUMBERS, metric = QX_EUCLIDEAN, rows = 3,
                id_bytes = 0, lists = 0, columns_claimed = 5;
  std::vector<Column> columns = {{QX_INTEGER, 1, 0, 0, "n"},
                                 {QX_REAL, 2, 0, 0, "r"},
                                 {QX_BOOLEAN, 2, 0, 0, "b"},
                                 {QX_TEXT, 1, 2, 3, "t"},
                                 {QX_TEXT, 0, 0, 0, "empty"}};
  std::string ids = bytes_of({~0ull, 5, 300}, 8), id_texts;
  std::string vectors =
      bytes_of({0x3F800000, 0x80000000, 0x00000001, 0xC0490FDB, 0x7F7FFFFF, 0x3DCCCCCD}, 4);
  std::string centroids, list_of_rows;
  std::string known_n = bytes_of({0b110}, 8), n = bytes_of({0, 7, ~0ull - 1}, 8);
  std::string r = bytes_of({0xFFFFFFFFFFFFFFFF, 0x3FF8000000000000, 0xBFF7FFFFFFFFFFFF}, 8);
  std::string b = bytes_of({0b101}, 8);
  std::string known_t = bytes_of({0b101}, 8), t = bytes_of({1, 0, 0}, 4);
  std::string ends = bytes_of({1, 3}, 8), texts = "abb";

  std::string bytes() const {
    std::string numbers =
        bytes_of({dim, id_kind, metric, rows, id_bytes, lists, columns_claimed}, 8);
    for (const Column& c : columns) {
      numbers += bytes_of({c.type, c.known, c.texts, c.text_bytes, c.name.size()}, 8) + c.name;
    }
    std::string file("\x89QXC\r\n\x1A\n");
    file += bytes_of({version, 24 + numbers.size() + 8}, 8) + numbers;
    file += bytes_of({XXH3_64bits(file.data(), file.size())}, 8);
    for (const auto* array : {&ids, &id_texts, &vectors, &centroids, &list_of_rows, &known_n, &n,
                              &r, &b, &known_t, &t, &ends, &texts}) {
      if (array->empty()) continue;
      const std::uint64_t place = file.size();
      file += *array + bytes_of({XXH3_64bits_withSeed(array->data(), array->size(), place)}, 8);
    }
    return file;
  }
};

Crafted crafted_lists() {
  Crafted crafted;
  crafted.lists = 2;
  crafted.centroids = bytes_of({0x3F800000, 0, 0x80000000, 0xBF800000}, 4);
  crafted.list_of_rows = bytes_of({1, 0, 1}, 4);
  return crafted;
}

// In hexadecimal: changes with the format alone.
constexpr char kGolden[] =
    "895158430d0a1a0a010000000000000029010000000000000200000000000000000000000000000002000000000000"
    "0003000000000000000000000000000000000000000000000005000000000000000000000000000000010000000000"
    "00000000000000000000000000000000000001000000000000006e0100000000000000020000000000000000000000"
    "0000000000000000000000000100000000000000720200000000000000020000000000000000000000000000000000"
    "0000000000000100000000000000620300000000000000010000000000000002000000000000000300000000000000"
    "0100000000000000740300000000000000000000000000000000000000000000000000000000000000050000000000"
    "0000656d707479805b631fa6363548ffffffffffffffff05000000000000002c01000000000000a6a34e6a7e60dd55"
    "0000803f0000008001000000db0f49c0ffff7f7fcdcccc3dbe33f5b2c952db0f0600000000000000412973ecb4f343"
    "e200000000000000000700000000000000feffffffffffffffec2e7e59d9d6a233ffffffffffffffff000000000000"
    "f83ffffffffffffff7bf80517f9201eee17d0500000000000000869507ee7f11658b050000000000000011fd7a323c"
    "52c33d010000000000000000000000423602d76ca95bf3010000000000000003000000000000001f19281af1008443"
    "61626211bdd3f3e6eb108b";

// The same rows, upserted.
Owner<QxCollection> crafted_rows() {
  const QxColumn columns[] = {
      {"n", QX_INTEGER}, {"r", QX_REAL}, {"b", QX_BOOLEAN}, {"t", QX_TEXT}, {"empty", QX_TEXT}};
  QxOptions options = {};
  options.dim = 2;
  options.columns = columns;
  options.n_columns = 5;
  options.metric = QX_EUCLIDEAN;
  QxCollection* made = nullptr;
  EXPECT_EQ(qx_collection_new(&options, &made), QX_OK);
  const std::int64_t ids[] = {300, -1, 5}, n[] = {-2, 99, 7};
  const float vectors[] = {std::numeric_limits<float>::max(), 0.1f, 1.0f, -0.0f, 0x1p-149f,
                           std::bit_cast<float>(0xC0490FDBu)};
  const double r[] = {-3.0, -0.0, 1.5};
  const std::uint8_t b[] = {1, 9, 0}, no_n[] = {0, 1, 0}, no_t[] = {0, 0, 1};
  const QxText t[] = {{"a", 1}, {"bb", 2}, {"x", 1}};
  QxValues values[5] = {};
  values[0] = {n, nullptr, nullptr, nullptr, no_n};
  values[1].reals = r;
  values[2].booleans = b;
  values[3] = {nullptr, nullptr, nullptr, t, no_t};
  EXPECT_EQ(qx_collection_upsert(made, {3, ids, nullptr}, vectors, values), QX_OK);
  return Owner<QxCollection>(made);
}

TEST(CollectionFiles, HaveTheBytesOfTheFormat) {
  const std::string bytes = saved(crafted_rows().get());
  EXPECT_EQ(bytes, Crafted().bytes());
  std::string hex;
  for (const char byte : bytes) {
    for (const int half : {byte >> 4 & 15, byte & 15}) hex.push_back("0123456789abcdef"[half]);
  }
  EXPECT_EQ(hex, kGolden);
  EXPECT_EQ(contents_of(loaded_from(bytes).get()), contents_of(crafted_rows().get()));
}

TEST(CollectionFiles, KeepLists) {
  const std::string bytes = crafted_lists().bytes();
  const auto loaded = loaded_from(bytes);
  EXPECT_EQ(saved(loaded.get()), bytes);
  QxCollectionStats stats;
  qx_collection_stats(loaded.get(), &stats);
  EXPECT_EQ(stats.lists, 2);
}

TEST(CollectionFiles, HaveNoListsWithoutRows) {
  const auto loaded = loaded_from(crafted_lists().bytes());
  QxRows* rows = nullptr;
  ASSERT_EQ(qx_collection_list(loaded.get(), nullptr, nullptr, {}, INT64_MAX, &rows), QX_OK);
  const Owner<QxRows> all(rows);
  const QxIds ids = {all->count, all->ids, all->texts};
  ASSERT_EQ(qx_collection_remove(loaded.get(), ids, nullptr), QX_OK);
  const auto empty = loaded_from(saved(loaded.get()));
  QxCollectionStats stats;
  qx_collection_stats(empty.get(), &stats);
  EXPECT_EQ(stats.rows, 0);
  EXPECT_EQ(stats.lists, 0);
}

struct Case {
  std::function<void(Crafted&)> change;
  const char* message;
};
const Case kNotOfTheFormat[] = {
    {[](Crafted& c) { c.version = 2; }, "version of the format is 2"},
    {[](Crafted& c) { c.dim = 0; }, "dim is 0"},
    {[](Crafted& c) { c.dim = 65537; }, "dim is 65537"},
    {[](Crafted& c) { c.dim = 65536, c.rows = 0xFFFFFFFF; }, "ends too soon"},
    {[](Crafted& c) { c.rows = 0x100000000; }, "rows is 4294967296"},
    {[](Crafted& c) { c.rows = 0; }, "known of a column"},
    {[](Crafted& c) { c.lists = 65537; }, "number of lists is 65537"},
    {[](Crafted& c) { c.rows = 0, c.lists = 1; }, "number of lists is 1"},
    {[](Crafted& c) { c.lists = 65536; }, "ends too soon"},
    {[](Crafted& c) { c = crafted_lists(), c.list_of_rows[4] = 2; }, "a row is in no list"},
    {[](Crafted& c) { c = crafted_lists(), c.centroids.replace(8, 4, bytes_of({0x7F800000}, 4)); },
     "component 0 of centroid 1 is not finite"},
    {[](Crafted& c) { c.id_kind = 2; }, "kind of ids is 2"},
    {[](Crafted& c) { c.metric = 3; }, "metric is 3"},
    {[](Crafted& c) { c.metric = QX_COSINE; }, "vector 1 is not divided by its norm"},
    {[](Crafted& c) { c.id_bytes = 1; }, "size of ids is 1"},
    {[](Crafted& c) { c.id_kind = QX_TEXTS, c.id_bytes = ~0ull; }, "size of ids"},
    {[](Crafted& c) { c.id_kind = QX_TEXTS, c.id_bytes = 400; }, "ends too soon"},
    {[](Crafted& c) { c.columns[0].type = 4; }, "type of a column is 4"},
    {[](Crafted& c) { c.columns[0].known = 3; }, "known of a column is 3"},
    {[](Crafted& c) { c.columns[0].texts = 1; }, "number of texts is 1"},
    {[](Crafted& c) { c.columns[3].texts = 0; }, "number of texts is 0"},
    {[](Crafted& c) { c.columns[3].texts = 4; }, "number of texts is 4"},
    {[](Crafted& c) { c.columns[3].text_bytes = 1ull << 63; }, "size of texts"},
    {[](Crafted& c) { c.columns[0].name.clear(); }, "size of a name is 0"},
    {[](Crafted& c) { c.columns[0].name[0] = 'r'; }, "has the name of another: r"},
    {[](Crafted& c) { c.columns[0].name = std::string("n\0", 2); }, "zero byte"},
    {[](Crafted& c) {
       c.columns.resize(c.columns_claimed = 1001, {QX_REAL, 0, 0, 0, "x"});
     },
     "columns is 1001"},
    {[](Crafted& c) { c.columns_claimed = 6; }, "header is too short"},
    {[](Crafted& c) { c.columns_claimed = 4; }, "header is too long"},
    {[](Crafted& c) {
       c.ids = bytes_of({5, 5, 300}, 8);
     },
     "ids do not ascend"},
    {[](Crafted& c) {
       c.ids = bytes_of({0, ~0ull, 300}, 8);
     },
     "ids do not ascend"},
    {[](Crafted& c) { c.vectors.replace(12, 4, bytes_of({0x7FC00000}, 4)); },
     "component 1 of vector 1"},
    {[](Crafted& c) { c.vectors.replace(16, 4, bytes_of({0xFF800000}, 4)); },
     "component 0 of vector 2"},
    {[](Crafted& c) { c.n[0] = 1; }, "values of column n"},
    {[](Crafted& c) { c.known_n[0] = 0b1110; }, "values of column n"},
    {[](Crafted& c) { c.known_n[0] = 0b111; }, "values of column n"},
    {[](Crafted& c) { c.known_n[0] = 0, c.n.assign(24, '\0'); }, "values of column n"},
    {[](Crafted& c) { c.b[0] = 0b1101; }, "values of column b"},
    {[](Crafted& c) { c.t[0] = 2; }, "values of column t"},
    {[](Crafted& c) { c.t[4] = 1; }, "values of column t"},
    {[](Crafted& c) { c.t[0] = 0; }, "values of column t"},
    {[](Crafted& c) { c.texts[0] = 'c'; }, "texts of column t do not ascend"},
    {[](Crafted& c) { c.columns[3].text_bytes = 2, c.texts.erase(1) += 'a', c.ends[8] = 2; },
     "texts of column t"},
    {[](Crafted& c) { c.ends[0] = 4; }, "texts of column t"},
    {[](Crafted& c) { c.ends[0] = 3, c.ends[8] = 1; }, "texts of column t"},
    {[](Crafted& c) { c.ends[8] = 4; }, "texts of column t"},
    {[](Crafted& c) { c.ends[8] = 2; }, "texts of column t"},
};

TEST(CollectionFiles, AreRefusedWhereTheyAreWholeAndNotOfTheFormat) {
  const Folder folder;
  Owner<QxCollection> loaded;
  QxOptions options = {};
  options.memory_limit = 1 << 20;
  for (const auto& [change, message] : kNotOfTheFormat) {
    Crafted crafted;
    change(crafted);
    write_file(folder / "file", crafted.bytes());
    EXPECT_EQ(load(folder / "file", &loaded, options), QX_CORRUPT) << message;
    EXPECT_NE(std::string(qx_collection_message()).find(message), std::string::npos)
        << qx_collection_message();
  }
  Crafted crafted;
  crafted.id_kind = QX_TEXTS;
  crafted.id_bytes = 3;
  crafted.ids = bytes_of({0, 1, 3}, 8);
  for (const auto& [texts, status] :
       {std::pair("abb", QX_OK), std::pair("aba", QX_OK), std::pair("bab", QX_CORRUPT)}) {
    crafted.id_texts = texts;
    write_file(folder / "file", crafted.bytes());
    EXPECT_EQ(load(folder / "file", &loaded), status) << qx_collection_message();
  }
}

TEST(CollectionFiles, AreNotLoadedBeyondTheMemoryLimit) {
  const Folder folder;
  const std::string path = folder / "file";
  write_file(path, saved(create(100, QX_NUMBERS, numbers_to(1000)).get()));
  Owner<QxCollection> loaded;
  QxOptions options = {};
  options.memory_limit = 300 << 10;
  EXPECT_EQ(load(path, &loaded, options), QX_OUT_OF_MEMORY);
  options.memory_limit = 1 << 20;
  EXPECT_EQ(load(path, &loaded, options), QX_OK);
}

// ---- What fails ----

// Saves over an old file. Returns 0 if that fails and leaves everything as it was.
int failed_save(const QxCollection* collection, const Folder& folder, QxProgress progress,
                void* context, std::int32_t status) {
  const std::string path = folder / "file";
  if (qx_collection_save(collection, nullptr, path.c_str(), progress, context) != status) return 1;
  return read_file(path) == "old" && folder.names() == std::vector<std::string>{"file"} ? 0 : 2;
}

TEST(CollectionFiles, StayAsTheyWereWhereAWriteFails) {
  const auto collection = create(300, QX_TEXTS, numbers_to(2000));
  const auto size = static_cast<rlim_t>(std::ssize(saved(collection.get())));
  const Folder folder;
  write_file(folder / "file", "old");
  for (const rlim_t limit : {rlim_t{0}, rlim_t{1}, rlim_t{500}, size / 2, size - 1}) {
    const ChildEnd end = run_in_child([&] {
      std::signal(SIGXFSZ, SIG_IGN);
      const rlimit limits = {limit, limit};
      setrlimit(RLIMIT_FSIZE, &limits);
      const int failed = failed_save(collection.get(), folder, nullptr, nullptr, QX_IO_ERROR);
      const std::string message = folder / "file: it cannot be written: File too large";
      _exit(qx_collection_message() == message ? failed : 3);
    });
    EXPECT_EQ(end.exit_status, 0) << limit;
  }
}

// A call of the system that fails, for each function and each of its calls. After a failed sync of
// the folder alone, the new file is there.
TEST(CollectionFiles, StayAsTheyWereOrAreReplacedWhicheverCallFails) {
  const auto collection = create(3, QX_TEXTS, numbers_to(200));
  const std::string bytes = saved(collection.get());
  const Folder folder;
  const std::string path = folder / "file";
  const std::pair<const char*, const char*> functions[] = {{"pwrite", "it cannot be written"},
                                                           {"fsync", "it cannot be synced"},
                                                           {"renameat", "it cannot be replaced"}};
  for (const auto& [function, message] : functions) {
    int calls = 1;  // all of them, once one was interrupted and no other failed
    for (const int error : {EINTR, ENOSPC, EIO, EINVAL}) {
      for (int number = 1; number <= calls; ++number) {
        SCOPED_TRACE(testing::Message() << function << ' ' << number << ' ' << error);
        write_file(path, "old");
        fault = {function, number, error};
        const std::int32_t status =
            qx_collection_save(collection.get(), nullptr, path.c_str(), nullptr, nullptr);
        const int called = std::exchange(fault, {}).calls;
        if (error == EINTR) calls = std::max(calls, called - 1);
        const bool is_folder = function == std::string("fsync") && number == 2;
        const bool is_saved = error == EINTR || (is_folder && error == EINVAL);
        EXPECT_EQ(status, is_saved ? QX_OK : QX_IO_ERROR);
        EXPECT_EQ(read_file(path) == bytes, is_saved || is_folder);
        EXPECT_EQ(read_file(path) == "old", !is_saved && !is_folder);
        EXPECT_EQ(folder.names(), std::vector<std::string>{"file"});
        if (is_saved) continue;
        const char* const what =
            is_folder ? "it is saved, but its folder cannot be synced" : message;
        EXPECT_EQ(qx_collection_message(), path + ": " + what + ": " + std::strerror(error));
      }
    }
  }
}

TEST(CollectionFiles, AreReadWholeOrNotAtAllWhicheverCallFails) {
  const auto collection = create(3, QX_TEXTS, numbers_to(200));
  const Folder folder;
  const std::string path = folder / "file", bytes = saved(collection.get());
  write_file(path, bytes);
  Owner<QxCollection> loaded;
  QxOptions options = {};
  options.threads = 1;
  int calls = 1;
  for (const int error : {EINTR, EIO}) {
    for (int number = 1; number <= calls; ++number) {
      fault = {"pread", number, error};
      EXPECT_EQ(load(path, &loaded, options), error == EINTR ? QX_OK : QX_IO_ERROR) << number;
      const int called = std::exchange(fault, {}).calls;
      if (error != EINTR) continue;
      calls = std::max(calls, called - 1);
      EXPECT_EQ(contents_of(loaded.get()), contents_of(collection.get()));
    }
  }
  EXPECT_GT(calls, 10);
}

TEST(CollectionFiles, AreTheSameWhereEachCallReadsAndWritesAPart) {
  const auto collection = create(300, QX_NUMBERS, numbers_to(1000));
  const std::string bytes = saved(collection.get());
  fault.part = 3;
  EXPECT_EQ(saved(collection.get()), bytes);
  EXPECT_EQ(contents_of(loaded_from(bytes).get()), contents_of(collection.get()));
  fault = {};
}

TEST(CollectionFiles, HaveTheOrderOfBytesOfNoMachine) {
  std::string bytes = "12345678";
  qx::collection::turn_order<std::endian::little>(bytes.data(), 8, 4);
  EXPECT_EQ(bytes, "12345678");
  qx::collection::turn_order<std::endian::big>(bytes.data(), 8, 4);
  EXPECT_EQ(bytes, "43218765");
  qx::collection::turn_order<std::endian::big>(bytes.data(), 8, 8);
  EXPECT_EQ(bytes, "56781234");
}

TEST(CollectionFiles, AreRefusedForNamesThatNoHeaderHolds) {
  const Folder folder;
  const std::string path = folder / "file", name(64 << 20, 'n');
  const QxColumn column = {name.c_str(), QX_INTEGER};
  const QxOptions options = {1, QX_NUMBERS, &column, 1, 0, 0, 0, 0};
  QxCollection* made = nullptr;
  ASSERT_EQ(qx_collection_new(&options, &made), QX_OK);
  const Owner<QxCollection> collection(made);
  EXPECT_EQ(qx_collection_save(made, nullptr, path.c_str(), nullptr, nullptr), QX_INVALID);
  EXPECT_STREQ(qx_collection_message(), "the names of the columns are too long for a file");
  EXPECT_EQ(folder.names(), std::vector<std::string>());
}

// Cancels when it is called for the last time that `left` allows.
struct Patience {
  std::int64_t left, calls, done, total;
  static std::int32_t report(void* context, std::int64_t done, std::int64_t total) {
    auto& patience = *static_cast<Patience*>(context);
    EXPECT_LE(patience.done, done);
    EXPECT_LE(done, total);
    EXPECT_EQ(total, patience.calls++ == 0 ? total : patience.total);
    patience.done = done;
    patience.total = total;
    return --patience.left == 0;
  }
};

TEST(CollectionFiles, StayAsTheyWereWhereTheHostCancels) {
  const auto collection = create(300, QX_NUMBERS, numbers_to(2000));
  const Folder folder;
  const std::string path = folder / "file";
  const auto save = [&](Patience& patience) {
    return qx_collection_save(collection.get(), nullptr, path.c_str(), Patience::report, &patience);
  };
  const auto load = [&](Patience& patience, QxCollection** loaded) {
    QxOptions options = {};
    options.threads = 1;
    return qx_collection_load(path.c_str(), &options, Patience::report, &patience, loaded);
  };
  Patience saving = {}, loading = {};
  ASSERT_EQ(save(saving), QX_OK);
  QxCollection* loaded = nullptr;
  ASSERT_EQ(load(loading, &loaded), QX_OK);
  qx_collection_free(std::exchange(loaded, nullptr));
  for (const Patience& patience : {saving, loading}) {
    EXPECT_GT(patience.calls, 5);
    EXPECT_EQ(patience.done, patience.total);
  }
  for (std::int64_t calls = 1; calls <= loading.calls; ++calls) {
    Patience patience = {calls, 0, 0, 0};
    EXPECT_EQ(load(patience, &loaded), QX_CANCELLED);
    EXPECT_EQ(loaded, nullptr);
  }
  write_file(path, "old");
  for (std::int64_t calls = 1; calls <= saving.calls; ++calls) {
    Patience patience = {calls, 0, 0, 0};
    EXPECT_EQ(failed_save(collection.get(), folder, Patience::report, &patience, QX_CANCELLED), 0);
  }
}

TEST(CollectionFiles, AreRefusedWhereTheyAreCutWhileTheyAreRead) {
  const Folder folder;
  std::string path = folder / "file";
  write_file(path, saved(create(300, QX_NUMBERS, numbers_to(5000)).get()));
  const auto cut = [](void* context, std::int64_t, std::int64_t) -> std::int32_t {
    fs::resize_file(*static_cast<std::string*>(context), 1000);
    return 0;
  };
  QxOptions options = {};
  options.threads = 1;
  QxCollection* loaded = nullptr;
  EXPECT_EQ(qx_collection_load(path.c_str(), &options, cut, &path, &loaded), QX_CORRUPT);
  EXPECT_EQ(qx_collection_message(), path + ": it ends too soon");
}

TEST(CollectionFiles, AreNotSavedWhereNoFileCanBe) {
  const auto collection = create(3, QX_NUMBERS, numbers_to(3));
  const Folder folder;
  write_file(folder / "file", "old");
  ASSERT_EQ(mkdir((folder / "folder").c_str(), 0777), 0);
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0666), 0);
  const std::vector<std::string> names = folder.names();
  Owner<QxCollection> loaded;
  for (const std::string& path :
       {std::string(), folder / "", folder / "folder", folder / "pipe", folder / "none/file",
        folder / "file/file", folder / std::string(300, 'x'), std::string("/proc/file")}) {
    EXPECT_EQ(qx_collection_save(collection.get(), nullptr, path.c_str(), nullptr, nullptr),
              QX_IO_ERROR);
    EXPECT_EQ(std::string(qx_collection_message()).substr(0, path.size() + 2), path + ": ");
    EXPECT_NE(load(path, &loaded), QX_OK);
  }
  EXPECT_EQ(folder.names(), names);
}

TEST(CollectionFiles, TakeThePlaceOfANameWithTheModeOfANewFile) {
  const auto collection = create(3, QX_NUMBERS, numbers_to(3));
  const Folder folder;
  write_file(folder / "other", "old");
  const std::string path = folder / std::string(255, 'n');
  ASSERT_EQ(symlink("other", path.c_str()), 0);
  const mode_t mask = umask(027);
  const std::int32_t status =
      qx_collection_save(collection.get(), nullptr, path.c_str(), nullptr, nullptr);
  umask(mask);
  ASSERT_EQ(status, QX_OK) << qx_collection_message();
  struct stat file;
  ASSERT_EQ(lstat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode, mode_t{S_IFREG | 0640});
  EXPECT_EQ(read_file(folder / "other"), "old");
  EXPECT_EQ(folder.names().size(), 2u);
}

}  // namespace
}  // namespace qx_test
