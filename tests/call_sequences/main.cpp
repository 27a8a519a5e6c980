// Plays random call sequences, by default those of `./check`:
//
//   call_sequence_tests [--seed N] [--count N | --calls N] [--workers N] [--progress] [--trace]
//                 [--replay FILE | --program FILE] [GoogleTest options]
//
// A call sequence that fails is shrunk and printed as a program that replays it; --replay also
// writes the program to a file. --program writes the whole call sequence of the first seed as such
// a program, and plays nothing.
#include <gtest/gtest.h>

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "call_sequences/call_sequence.h"
#include "call_sequences/replay.h"
#include "call_sequences/series.h"

namespace {

qx_test::SeriesOptions options;
std::string replay_file;
std::string program_file;

constexpr std::int64_t kFunctions = 30;

// Fewer call sequences may not call every function, and their average length may differ.
constexpr std::uint64_t kEnoughForAverages = 500;
constexpr std::uint64_t kLeastComparedOnAverage = 25;

bool write_file(const std::string& name, const std::string& text) {
  std::FILE* const file = std::fopen(name.c_str(), "w");
  if (file == nullptr) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && written;
}

int write_program() {
  const std::uint64_t seed = options.first_seed;
  const std::string comment = " * The call sequence of seed " + std::to_string(seed) + ".\n";
  if (write_file(program_file, replay_source(draw_call_sequence(qx_test::Random(seed)), comment)))
    return 0;
  std::perror(program_file.c_str());
  return 1;
}

void report_failure(std::uint64_t seed, const std::string& failure) {
  std::printf("%s\nreplay: call_sequence_tests --seed %llu --count 1 --trace\n", failure.c_str(),
              static_cast<unsigned long long>(seed));
  if (options.trace) return;
  const std::string source = qx_test::shrunk_replay(seed, failure);
  std::printf("%s\n", source.empty() ? "by itself it does not fail again" : source.c_str());
  if (replay_file.empty() || source.empty()) return;
  EXPECT_TRUE(write_file(replay_file, source)) << replay_file;
}

TEST(CallSequences, AgreeWithTheModel) {
  const qx_test::SeriesResult result = qx_test::play_series(options);
  std::printf(
      "%llu call sequences, seeds %llu to %llu, %lld calls of %lld functions, "
      "%lld of them compared with the model, %.1f s\n",
      static_cast<unsigned long long>(result.sequences),
      static_cast<unsigned long long>(options.first_seed),
      static_cast<unsigned long long>(result.last_seed), static_cast<long long>(result.made),
      static_cast<long long>(result.functions), static_cast<long long>(result.compared),
      result.seconds);
  if (result.failed_seed) {
    report_failure(*result.failed_seed, result.failure);
    FAIL() << "seed " << *result.failed_seed << ": " << result.failure;
  }
  if (result.sequences >= kEnoughForAverages) {
    EXPECT_EQ(result.functions, kFunctions);
    EXPECT_GE(result.compared,
              static_cast<std::int64_t>(kLeastComparedOnAverage * result.sequences));
  }
}

// A seed that was printed on one machine must give the same calls on every other.
TEST(CallSequences, AreTheSameWithEveryCompilerAndOnEveryCpu) {
  qx_test::Digest digest;
  for (std::uint64_t seed = 1; seed <= 100; ++seed) {
    qx_test::add_to(digest, qx_test::draw_call_sequence(qx_test::Random(seed)));
  }
  EXPECT_EQ(digest.text(), "982b490087b29ebbf1871e6e910fefde");
}

bool parse_number(const char* text, std::uint64_t* number) {
  const std::string_view digits(text);
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), *number);
  return error == std::errc() && end == digits.data() + digits.size();
}

bool parse_option(std::string_view option, const char* value, bool* took_value) {
  *took_value = false;
  if (option == "--trace") return options.trace = true;
  if (option == "--progress") return options.progress = true;
  if (value == nullptr) return false;
  *took_value = true;
  if (option == "--replay" || option == "--program") {
    (option == "--replay" ? replay_file : program_file) = value;
    return true;
  }
  if (option == "--seed") return parse_number(value, &options.first_seed);
  if (option == "--count") return parse_number(value, &options.sequences);
  if (option == "--calls") return parse_number(value, &options.calls);
  return option == "--workers" && parse_number(value, &options.workers) && options.workers > 0;
}

bool parse_options(int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    bool took_value = false;
    if (!parse_option(arguments[i], i + 1 < count ? arguments[i + 1] : nullptr, &took_value)) {
      return false;
    }
    i += took_value ? 1 : 0;
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  if (!parse_options(count, arguments)) {
    std::fprintf(stderr,
                 "usage: call_sequence_tests [--seed N] [--count N | --calls N] [--workers N] "
                 "[--progress] [--trace] [--replay FILE | --program FILE]\n");
    return 2;
  }
  if (!program_file.empty()) return write_program();
  if (options.trace) std::setvbuf(stdout, nullptr, _IONBF, 0);
  return RUN_ALL_TESTS();
}
