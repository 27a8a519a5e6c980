// Plays random histories: history_tests [--seed N] [--count N] [--trace] [GoogleTest options].
// Without options it plays the histories of `./check`.
#include <gtest/gtest.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <string_view>

#include "histories/history.h"

namespace {

std::uint64_t first_seed = 1;
std::uint64_t history_count = 1000;
bool trace = false;

constexpr std::size_t kFunctions = 30;

// What replays the history that is being played, ready to be written when the process ends in it.
char replay_line[100];

void write_replay_line(int signal) {
  std::signal(signal, SIG_DFL);
  (void)!write(STDOUT_FILENO, replay_line, std::char_traits<char>::length(replay_line));
  std::raise(signal);
}

// Below this many histories some function may not have had its turn.
constexpr std::uint64_t kEnoughForEveryFunction = 500;

TEST(Histories, AgreeWithTheModel) {
  qx_test::CallCounts calls;
  for (std::uint64_t seed = first_seed; seed - first_seed < history_count; ++seed) {
    std::snprintf(replay_line, sizeof replay_line,
                  "replay: history_tests --seed %llu --count 1 --trace\n",
                  static_cast<unsigned long long>(seed));
    const std::string disagreement = qx_test::History(qx_test::Random(seed), calls, trace).play();
    ASSERT_EQ(disagreement, "") << replay_line;
  }
  std::int64_t total = 0;
  for (const auto& [function, count] : calls) total += count;
  std::printf("%llu histories from seed %llu, %lld calls of %zu functions\n",
              static_cast<unsigned long long>(history_count),
              static_cast<unsigned long long>(first_seed), static_cast<long long>(total),
              calls.size());
  if (history_count >= kEnoughForEveryFunction) {
    EXPECT_EQ(calls.size(), kFunctions);
  }
}

bool parse_number(const char* text, std::uint64_t* number) {
  const std::string_view digits(text);
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), *number);
  return error == std::errc() && end == digits.data() + digits.size();
}

bool parse_options(int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    const std::string_view option(arguments[i]);
    const bool has_value = i + 1 < count;
    if (option == "--trace") {
      trace = true;
    } else if (option == "--seed" && has_value && parse_number(arguments[i + 1], &first_seed)) {
      ++i;
    } else if (option == "--count" && has_value && parse_number(arguments[i + 1], &history_count)) {
      ++i;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  if (!parse_options(count, arguments)) {
    std::fprintf(stderr, "usage: history_tests [--seed N] [--count N] [--trace]\n");
    return 2;
  }
  for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGTRAP}) {
    const auto earlier = std::signal(signal, write_replay_line);
    if (earlier != SIG_DFL) std::signal(signal, earlier);  // a sanitizer's says more
  }
  if (trace) std::setvbuf(stdout, nullptr, _IONBF, 0);
  return RUN_ALL_TESTS();
}
