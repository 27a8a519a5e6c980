// Recall and speed of searches through lists, beside Faiss's IndexIVFFlat and hnswlib's graph: one
// query at a time, on one thread, settings interleaved. Prints a line of JSON for each setting.
//
//   lists ROWS QUERIES DIM LISTS GRAPH    files of floats; GRAPH keeps hnswlib's, once made, and
//                                        its line; - leaves it out
#include <faiss/IndexFlat.h>
#include <faiss/IndexIVFFlat.h>
#include <hnswlib/hnswlib.h>
#include <malloc.h>
#include <omp.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "qx_collection.h"

namespace {

constexpr std::int64_t kK = 10;
constexpr int kRounds = 5;

using Ids = std::vector<std::int64_t>;

struct Matrix {
  Matrix(const char* path, std::int64_t width) : dim(width) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) throw std::runtime_error(std::string("cannot read ") + path);
    values.resize(static_cast<std::size_t>(file.tellg()) / sizeof(float));
    file.seekg(0).read(reinterpret_cast<char*>(values.data()),
                       static_cast<std::streamsize>(values.size() * sizeof(float)));
    rows = static_cast<std::int64_t>(values.size()) / dim;
  }
  const float* row(std::int64_t i) const { return values.data() + i * dim; }

  std::int64_t dim;
  std::int64_t rows;
  std::vector<float> values;
};

double cpu_seconds(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double resident_bytes() {
  malloc_trim(0);
  std::ifstream file("/proc/self/statm");
  double pages = 0;
  file >> pages >> pages;
  return pages * 4096;
}

// Tells what an index costs: seconds of the process's CPUs, and the memory that has come.
std::string measure_building(const char* name, const std::function<void()>& build) {
  const double before = resident_bytes();
  const double began = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID);
  build();
  const double took = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - began;
  char line[200];
  std::snprintf(line, sizeof line, "{\"built\": \"%s\", \"seconds\": %.4g, \"bytes\": %.0f}\n",
                name, took, resident_bytes() - before);
  return line;
}

void print(const std::string& line) {
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

struct Setting {
  const char* name;
  std::int64_t effort;  // probes, or the length of the graph's list of candidates; 0: exact
  std::function<Ids(const float*)> search;
  std::vector<double> seconds;  // of each round
  std::int64_t found = 0;
};

void require(std::int32_t status) {
  if (status != QX_OK) throw std::runtime_error(qx_collection_message());
}

Ids search_collection(const QxCollection* collection, const float* query, std::int64_t probes) {
  QxSearch search = {};
  search.threads = 1;
  search.probes = static_cast<std::int32_t>(probes);
  QxHits* hits = nullptr;
  require(qx_collection_search(collection, nullptr, query, 1, kK, &search, &hits));
  Ids ids(hits->ids, hits->ids + hits->counts[0]);
  qx_hits_free(hits);
  return ids;
}

QxCollection* make_collection(const Matrix& rows, std::int64_t lists) {
  QxCollection* collection = nullptr;
  QxOptions options = {};
  options.dim = static_cast<std::int32_t>(rows.dim);
  Ids ids(static_cast<std::size_t>(rows.rows));
  std::iota(ids.begin(), ids.end(), 0);
  print(measure_building("rows", [&] {
    require(qx_collection_new(&options, &collection));
    require(
        qx_collection_upsert(collection, {rows.rows, ids.data(), nullptr}, rows.row(0), nullptr));
    require(qx_collection_compact(collection, nullptr, nullptr));
  }));
  print(measure_building(
      "lists", [&] { require(qx_collection_train(collection, lists, nullptr, nullptr)); }));
  return collection;
}

using Graph = hnswlib::HierarchicalNSW<float>;

std::unique_ptr<Graph> make_graph(const Matrix& rows, hnswlib::SpaceInterface<float>* space,
                                  const std::string& path) {
  if (path == "-") return nullptr;
  if (std::ifstream cost(path + ".cost"); cost) {
    std::string line;
    std::getline(cost, line);
    print(line + "\n");
    return std::make_unique<Graph>(space, path);
  }
  auto graph = std::make_unique<Graph>(space, static_cast<std::size_t>(rows.rows), 16, 200);
  const std::string cost = measure_building("graph", [&] {
    graph->addPoint(rows.row(0), 0);
#pragma omp parallel for num_threads(2)
    for (std::int64_t i = 1; i < rows.rows; ++i) {
      graph->addPoint(rows.row(i), static_cast<hnswlib::labeltype>(i));
    }
  });
  graph->saveIndex(path);
  print(cost);
  std::ofstream(path + ".cost") << cost;
  return graph;
}

Ids search_graph(Graph& graph, const float* query, std::int64_t effort) {
  graph.setEf(static_cast<std::size_t>(effort));
  auto queue = graph.searchKnn(query, static_cast<std::size_t>(kK));
  Ids ids;
  for (; !queue.empty(); queue.pop()) ids.push_back(static_cast<std::int64_t>(queue.top().second));
  return ids;
}

Ids search_inverted(faiss::IndexIVFFlat& index, const float* query, std::int64_t probes) {
  float scores[kK];
  Ids ids(kK);
  index.nprobe = static_cast<std::size_t>(probes);
  index.search(1, query, kK, scores, ids.data());
  return ids;
}

void run_round(const Matrix& queries, Setting& setting, std::vector<Ids>& right) {
  std::vector<Ids> found;
  const double began = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
  for (std::int64_t q = 0; q < queries.rows; ++q) found.push_back(setting.search(queries.row(q)));
  setting.seconds.push_back(cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - began);
  if (right.empty()) right = found;
  setting.found = 0;
  for (std::size_t q = 0; q < found.size(); ++q) {
    for (const std::int64_t id : found[q]) setting.found += std::ranges::count(right[q], id);
  }
}

void print(const Setting& setting, double queries) {
  std::vector<double> rates;
  for (const double seconds : setting.seconds) rates.push_back(queries / seconds);
  std::ranges::sort(rates);
  std::printf(
      "{\"name\": \"%s\", \"effort\": %ld, \"recall\": %.4f, \"rate\": %.6g, "
      "\"least\": %.6g, \"most\": %.6g}\n",
      setting.name, static_cast<long>(setting.effort),
      static_cast<double>(setting.found) / (queries * static_cast<double>(kK)),
      rates[rates.size() / 2], rates.front(), rates.back());
}

void run(char** arguments) {
  const std::int64_t dim = std::atoll(arguments[3]);
  const std::int64_t lists = std::atoll(arguments[4]);
  const Matrix rows(arguments[1], dim);
  const Matrix queries(arguments[2], dim);
  hnswlib::InnerProductSpace space(static_cast<std::size_t>(dim));
  const auto graph = make_graph(rows, &space, arguments[5]);
  QxCollection* const collection = make_collection(rows, lists);
  faiss::IndexFlatIP quantizer(dim);
  faiss::IndexIVFFlat inverted(&quantizer, static_cast<std::size_t>(dim),
                               static_cast<std::size_t>(lists), faiss::METRIC_INNER_PRODUCT);
  print(measure_building("inverted", [&] {
    inverted.train(rows.rows, rows.row(0));
    inverted.add(rows.rows, rows.row(0));
  }));
  omp_set_num_threads(1);
  std::vector<Setting> settings = {
      {"exact", 0, [&](const float* q) { return search_collection(collection, q, 0); }, {}}};
  for (const std::int64_t n : {1, 2, 4, 8, 16, 32, 64, 128, 256}) {
    settings.push_back(
        {"lists", n, [&, n](const float* q) { return search_collection(collection, q, n); }, {}});
    settings.push_back(
        {"inverted", n, [&, n](const float* q) { return search_inverted(inverted, q, n); }, {}});
    if (graph == nullptr) continue;
    settings.push_back(
        {"graph", 5 * n, [&, n](const float* q) { return search_graph(*graph, q, 5 * n); }, {}});
  }
  std::vector<Ids> right;
  for (int round = 0; round < kRounds; ++round) {
    for (Setting& setting : settings) run_round(queries, setting, right);
  }
  for (const Setting& setting : settings) print(setting, static_cast<double>(queries.rows));
  qx_collection_free(collection);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 6) return 2;
  try {
    run(arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lists: %s\n", error.what());
    return 1;
  }
}
