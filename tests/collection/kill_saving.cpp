// Processes that are killed while they save: the file has the old rows or the new ones, and what is
// left beside it is called as docs/FORMAT.md says.
//
//   kill_saving KILLS
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "qx_collection.h"
#include "support/random.h"

namespace {

namespace fs = std::filesystem;

void require(bool holds, const std::string& what) {
  if (holds) return;
  std::printf("kill_saving: %s\n", what.c_str());
  std::exit(1);
}

// Rows that take some milliseconds to save.
QxCollection* rows_of(std::uint64_t seed) {
  constexpr std::int64_t kRows = 4000;
  qx_test::Random random(seed);
  std::vector<std::int64_t> ids;
  for (std::int64_t row = 0; row < kRows; ++row) ids.push_back(2 * row + random.between(0, 1));
  const auto vectors = qx_test::draw_floats(random, qx_test::Values::kSmooth, kRows * 200);
  QxOptions options = {};
  options.dim = 200;
  QxCollection* made = nullptr;
  require(qx_collection_new(&options, &made) == QX_OK, "no collection");
  const QxIds given = {kRows, ids.data(), nullptr};
  require(qx_collection_upsert(made, given, vectors.data(), nullptr) == QX_OK, "no rows");
  return made;
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void save(const QxCollection* collection, const fs::path& path) {
  const std::int32_t status =
      qx_collection_save(collection, nullptr, path.c_str(), nullptr, nullptr);
  require(status == QX_OK, qx_collection_message());
}

// A process that saves one after the other, and is killed after so many microseconds.
void save_and_be_killed(const std::vector<QxCollection*>& collections, const fs::path& path,
                        useconds_t after) {
  const pid_t child = fork();
  require(child >= 0, "no process");
  if (child == 0) {
    for (std::size_t i = 0;; ++i) save(collections[i % collections.size()], path);
  }
  usleep(after);
  int status = 0;
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  require(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, "a process ended by itself");
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown ends it, which is a failure
int main(int count, char** arguments) {
  require(count == 2, "usage: kill_saving KILLS");
  const int kills = std::atoi(arguments[1]);
  std::string name = fs::temp_directory_path() / "qx_kills_XXXXXX";
  require(mkdtemp(name.data()) != nullptr, "no folder");
  const fs::path folder = name, path = folder / "file";
  const std::vector<QxCollection*> collections = {rows_of(1), rows_of(2)};
  std::vector<std::string> whole;
  for (const QxCollection* collection : collections) {
    save(collection, path);
    whole.push_back(read_file(path));
  }
  const std::regex beside("file\\.saving-[0-9a-f]{16}");
  qx_test::Random random(static_cast<std::uint64_t>(kills));
  int found[2] = {}, left = 0;
  for (int i = 0; i < kills; ++i) {
    save_and_be_killed(collections, path, static_cast<useconds_t>(random.between(0, 30000)));
    const std::string bytes = read_file(path);
    require(bytes == whole[0] || bytes == whole[1], "the file is not whole");
    ++found[bytes == whole[1]];
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path() == path) continue;
      require(std::regex_match(entry.path().filename().string(), beside), "a strange file is left");
      fs::remove(entry.path());
      ++left;
    }
  }
  fs::remove_all(folder);
  for (QxCollection* collection : collections) qx_collection_free(collection);
  require(kills < 100 || (left > kills / 10 && found[0] > 0 && found[1] > 0), "few saves were met");
  std::printf(
      "%d kills: the file had the rows of one %d times and of the other %d times, and %d left "
      "a file beside it\n",
      kills, found[0], found[1], left);
  return 0;
}
