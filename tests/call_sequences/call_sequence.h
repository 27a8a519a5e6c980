// A call sequence of an index as data: the calls that a host makes, with all that it hands over. It
// can be drawn from a seed, played, shrunk and printed, each without the others.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model.h"
#include "support/random.h"

namespace qx_test {

using Ints = std::vector<std::int32_t>;

enum class Function {
  kNew,
  kFree,
  kFreeNull,  // qx_index_free with a null handle
  kStats,
  kSnapshot,
  kMutated,
  kSealed,
  kDeltaCount,
  kFormatVersion,
  kBuild,
  kExportBase,
  kSearchFull,
  kSearchPartition,
  kScatterTopk,
  kTunerDefaults,
  kTunerOversized,
  kInsert,
  kDelete,
  kSetIvf,
  kHasIvf,
  kClearIvf,
  kSetIvfNprobe,
  kSearchIvf,
  kSearchMvcc,
  kSetRowmeta,
  kExportRowmeta,
  kSearchFiltered,
  kMatchIds,
  kVisibleIds,
  kVisibleCount,
  kExportVisible,
};

// One call. `numbers` are the scalar arguments in the order of the header; the arrays are those of
// their element type in that order too.
struct Call {
  Function function;
  std::array<std::int64_t, 4> numbers{};
  Floats floats{};         // vectors, query or centroids
  Ids ids{};               // ids, or the ids of IVF lists
  Ids more_ids{};          // labels, or partition keys
  Ids values{};            // column values
  Ints ints{};             // partition starts, or list offsets
  Ints more_ints{};        // partition sizes
  std::uint32_t starts{};  // bit i: array i, outputs behind inputs, lies at the start of its pages
  std::int64_t spare{};    // output elements beyond those that the contract grants
};

using CallSequence = std::vector<Call>;

// Where in `numbers` an argument is.
inline constexpr std::size_t kBuildN = 0, kBuildDim = 1, kBuildParts = 2;
inline constexpr std::size_t kIvfKey = 0, kIvfNlist = 1, kIvfNprobe = 2, kIvfIds = 3;

struct FunctionTraits {
  const char* name;     // in the header
  std::size_t numbers;  // how many scalar arguments it takes
  int k;                // which of them is the number of results, or -1
  int count;            // which of them counts `ids`, or -1
  bool changes;         // whether it changes the index
};
const FunctionTraits& traits(Function function);

// What a call gives: the model's answer is what the engine must answer.
struct Answer {
  std::int64_t result = 0;
  Ids numbers;  // what qx_index_stats and qx_tuner_defaults write
  Ids ids;      // the host's buffers after the call, spare elements included
  Floats floats;
  Ids values;
  std::optional<OutOfBounds> end;  // the process ends instead
};

// What an output element holds before a call, in every byte: neither a sentinel nor a value that
// call sequences draw.
inline constexpr int kUntouchedByte = 0x5A;

// Makes the call on the model. The call sequence is over where a changing call gives an `end`.
Answer expected_answer(Model& model, const Call& call);

// Whether the contract leaves a build no look at its arrays.
bool rejected_unread(const Call& build);

// The same call sequence as one that a host may live: calls on an index that is there, released at
// last, and arrays as long as the other arguments and the state of the index demand.
CallSequence repair(CallSequence sequence);

std::string describe(const Call& call);

// A rebuild keeps the arrays of the earlier base allocated by contract, which is in the way of a
// search for leaks.
enum class Rebuilds { kAllowed, kLeftOut };

// The call sequence that these choices make: those of a seed, for one.
CallSequence draw_call_sequence(Random random, Rebuilds rebuilds = Rebuilds::kAllowed);

}  // namespace qx_test
