// A sequence of calls on an index as data: the functions with all their arguments. It can be drawn
// from a seed, played, shrunk and printed; these parts do not depend on each other.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "cpus/digest.h"
#include "model.h"
#include "qx_runtime.h"
#include "support/random.h"

namespace qx_test {

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

// The functions, in the order of the enumeration. Their types tell the arguments: the first
// parameter that is a number stands for the first of a call's `numbers`, and so on; the same holds
// for the arrays of a type, and for the numbers that a function writes.
inline constexpr auto kInterface = std::make_tuple(
    qx_index_new, qx_index_free, qx_index_free, qx_index_stats, qx_index_snapshot, qx_index_mutated,
    qx_index_sealed, qx_index_delta_count, qx_runtime_format_version, qx_index_build,
    qx_index_export_base, qx_index_search_full, qx_index_search_partition, qx_index_scatter_topk,
    qx_tuner_defaults, qx_index_tuner_oversized, qx_index_insert, qx_index_delete, qx_index_set_ivf,
    qx_index_has_ivf, qx_index_clear_ivf, qx_index_set_ivf_nprobe, qx_index_search_ivf,
    qx_index_search_mvcc, qx_index_set_rowmeta, qx_index_export_rowmeta, qx_index_search_filtered,
    qx_index_match_ids, qx_index_visible_ids, qx_index_visible_count, qx_index_export_visible);

// Calls use(f) with the C function.
template <typename Use>
void with_function(Function function, Use use) {
  auto left = static_cast<int>(function);
  std::apply([&](auto... each) { (void)((left-- == 0 && (use(each), true)) || ...); }, kInterface);
}

// What an argument is, told by the type of its parameter.
enum class Kind { kIndex, kNumber, kFloats, kIds, kInts, kOutIds, kOutFloats, kOutNumber };

template <typename Parameter>
constexpr Kind kind_of() {
  using Pointed = std::remove_pointer_t<Parameter>;
  constexpr bool kOutput = !std::is_const_v<Pointed>;
  if (std::is_integral_v<Parameter>) return Kind::kNumber;
  if (std::is_same_v<std::remove_const_t<Pointed>, QxIndex>) return Kind::kIndex;
  if (std::is_floating_point_v<Pointed>) return kOutput ? Kind::kOutFloats : Kind::kFloats;
  if (std::is_same_v<std::remove_const_t<Pointed>, std::int64_t>) {
    return kOutput ? Kind::kOutIds : Kind::kIds;
  }
  return kOutput ? Kind::kOutNumber : Kind::kInts;
}

// The arguments of a function in order: choose<Parameter>(n) gives each, number n of its kind.
template <typename Result, typename... Parameters, typename Choose>
auto arguments_of(Result (*)(Parameters...), const Choose& choose) {
  [[maybe_unused]] static constexpr Kind kKinds[] = {kind_of<Parameters>()..., Kind::kIndex};
  return [&]<std::size_t... i>(std::index_sequence<i...>) {
    return std::tuple<decltype(choose.template operator()<Parameters>(0))...>{
        // cppcheck-suppress internalAstError ; it does not know lambdas that are templates
        choose.template operator()<Parameters>(
            static_cast<std::size_t>(std::count(kKinds, kKinds + i, kKinds[i])))...};
  }
  (std::index_sequence_for<Parameters...>());
}

// The arrays of a call: inputs, then outputs.
inline constexpr const char* kArrays[] = {"floats",    "ids",     "more_ids",   "values",    "ints",
                                          "more_ints", "out_ids", "out_floats", "out_values"};
constexpr std::size_t kOutputs = 6;

// The number of array n of a kind.
constexpr std::size_t array_number(Kind kind, std::size_t n) {
  if (kind == Kind::kOutIds) return n == 0 ? kOutputs : kOutputs + 2;
  if (kind == Kind::kOutFloats) return kOutputs + 1;
  return kind == Kind::kFloats ? 0 : (kind == Kind::kIds ? 1 : 4) + n;
}

template <typename AnyCall>
auto inputs_of(AnyCall& call) {
  return std::tie(call.floats, call.ids, call.more_ids, call.values, call.ints, call.more_ints);
}

inline std::size_t numbers(Function function) {
  std::size_t count = 0;
  with_function(function, [&]<typename Result, typename... Parameters>(Result (*)(Parameters...)) {
    count = (std::size_t{std::is_integral_v<Parameters>} + ... + 0);
  });
  return count;
}

// True if a function changes the index.
inline bool changes(Function function) {
  bool found = false;
  with_function(function, [&]<typename Result, typename... Parameters>(Result (*)(Parameters...)) {
    found = (std::is_same_v<Parameters, QxIndex*> || ... || std::is_same_v<Result, QxIndex*>);
  });
  return found;
}

// The result of a call and everything that it writes. The engine's must equal the model's.
struct Answer {
  std::int64_t result = 0;
  Ids numbers;  // what qx_index_stats and qx_tuner_defaults write
  Ids ids;      // the host's buffers after the call, spare elements included
  Floats floats;
  Ids values;
  std::optional<OutOfBounds> end;  // the process ends instead

  auto outputs() const { return std::tie(ids, floats, values); }
};

// What the types do not tell.
struct FunctionTraits {
  const char* name;                              // in the header
  int k;                                         // index of the number of results, or -1
  int count;                                     // index of the length of `ids`, or -1
  void (*answer)(Answer&, Model&, const Call&);  // asks the model
};
const FunctionTraits& traits(Function function);

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

// Adds the calls and all their arguments, except that all NaNs count as one.
void add_to(Digest& digest, const CallSequence& sequence);

// By contract a rebuild keeps the arrays of the earlier base allocated, which a leak checker would
// report.
enum class Rebuilds { kAllowed, kLeftOut };

// Draws a call sequence, for example that of a seed.
CallSequence draw_call_sequence(Random random, Rebuilds rebuilds = Rebuilds::kAllowed);

// The smallest call sequence found that still `fails`, starting from one that does. Every attempt
// is repaired first. Stops early after `seconds`.
CallSequence shrink(const CallSequence& sequence,
                    const std::function<bool(const CallSequence&)>& fails, int seconds);

// A C99 source that needs only the public header and a POSIX system: it makes exactly these calls,
// on arrays that begin or end at unmapped pages, and compares each answer with the model's. It
// exits with 0 if all are equal, and otherwise prints the calls that differ. `comment` is its
// opening comment.
std::string replay_source(const CallSequence& sequence, const std::string& comment);

}  // namespace qx_test
