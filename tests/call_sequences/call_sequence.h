// A sequence of calls on an index as data: the functions with all their arguments. It can be drawn
// from a seed, played, shrunk and printed; these parts do not depend on each other.
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
  std::uint32_t starts{};  // bit i: array i (inputs, then outputs) begins on its first page
  std::int64_t spare{};    // output elements beyond those that the contract grants
};

using CallSequence = std::vector<Call>;

// The indices in `numbers` of some arguments.
inline constexpr std::size_t kBuildN = 0, kBuildDim = 1, kBuildParts = 2;
inline constexpr std::size_t kIvfKey = 0, kIvfNlist = 1, kIvfNprobe = 2, kIvfIds = 3;

struct FunctionTraits {
  const char* name;     // in the header
  std::size_t numbers;  // number of scalar arguments
  int k;                // index of the number of results, or -1
  int count;            // index of the length of `ids`, or -1
  bool changes;         // true if it changes the index
};
const FunctionTraits& traits(Function function);

// The result of a call and everything that it writes. The engine's must equal the model's.
struct Answer {
  std::int64_t result = 0;
  Ids numbers;  // what qx_index_stats and qx_tuner_defaults write
  Ids ids;      // the host's buffers after the call, spare elements included
  Floats floats;
  Ids values;
  std::optional<OutOfBounds> end;  // the process ends instead
};

// Every byte of an output buffer before a call. Elements of such bytes are neither empty results
// nor values that call sequences draw.
inline constexpr int kUntouchedByte = 0x5A;

// Makes the call on the model. A changing call whose answer has an `end` is the last one.
Answer expected_answer(Model& model, const Call& call);

// True if the contract rejects a build before it reads any of its arrays.
bool rejected_unread(const Call& build);

// Makes a call sequence valid again after a change: all calls use an existing index, it is released
// at last, and every array has the length that the other arguments and the state of the index
// require. Calls that cannot be repaired are removed.
CallSequence repair(CallSequence sequence);

std::string describe(const Call& call);

// By contract a rebuild keeps the arrays of the earlier base allocated, which a leak checker would
// report.
enum class Rebuilds { kAllowed, kLeftOut };

// Draws a call sequence, for example that of a seed.
CallSequence draw_call_sequence(Random random, Rebuilds rebuilds = Rebuilds::kAllowed);

}  // namespace qx_test
