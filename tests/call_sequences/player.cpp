#include "call_sequences/player.h"

#include <cstdio>
#include <cstring>

#include "kernels/kernels.h"
#include "store/validity.h"
#include "support/child.h"
#include "support/host_environment.h"

namespace qx_test {
namespace {

std::int32_t int32(std::int64_t number) { return static_cast<std::int32_t>(number); }
std::uint32_t uint32(std::int64_t number) { return static_cast<std::uint32_t>(number); }

Edge edge_of(const Call& call, int array) {
  return (call.starts >> array & 1) != 0 ? Edge::kStart : Edge::kEnd;
}

// The host's floating-point environment during a call: chosen by the call, so that it is the same
// each time the call is played.
const FpEnvironment& environment_of(const Call& call) {
  const auto drawn = static_cast<std::size_t>(call.starts + call.spare);
  return fp_environments()[drawn % fp_environments().size()];
}

}  // namespace

std::string Player::play(const CallSequence& sequence) {
  for (step_ = 0; step_ < sequence.size() && !ended_ && disagreement_.empty(); ++step_) {
    perform(sequence[step_]);
  }
  qx_index_free(index_);
  index_ = nullptr;
  ended_ = false;
  return disagreement_;
}

void Player::perform(const Call& call) {
  const FunctionTraits& function = traits(call.function);
  ++calls_[function.name];
  if (trace_) std::printf("%4zu  %s\n", step_, describe(call).c_str());
  const bool compares = call.function != Function::kNew && call.function != Function::kFree &&
                        call.function != Function::kFreeNull;
  compared_ += compares ? 1 : 0;
  const bool builds_anew = call.function == Function::kBuild && model_.sealed;
  // The model is asked first: if it ends the process, the call must not change the engine's index.
  const Answer expected = expected_answer(model_, call);
  rebuilt_ |= builds_anew && expected.result >= 0;
  place_inputs(call);
  const auto run = [&] {
    if (expected.end) {
      expect_end(call, expected);
    } else {
      compare(call, expected);
    }
  };
  if (function.changes || kernels_ == UnderKernels::kChosen) {
    run();
  } else {
    for (const qx::Kernels* const* kernels = qx::all_kernels(); *kernels != nullptr; ++kernels) {
      if (qx::force_kernels((*kernels)->name)) run();
    }
    qx::force_kernels(nullptr);
  }
  check_inputs(call);
  ended_ = expected.end && function.changes;  // the model has stopped in the middle of the call
}

void Player::compare(const Call& call, const Answer& expected) {
  place_outputs(call, expected);
  Answer answer;
  auto asked = [&] { answer = ask(call); };
  const bool kept = leaves_environment(environment_of(call), asked);
  check(call, kept, "another floating-point environment");
  check(call, index_ == nullptr || qx::index_is_valid(*index_), "the record is not valid");
  check(call, answer.result == expected.result, "another result");
  check(call, answer.numbers == expected.numbers, "other numbers");
  check(call, out_ids_.equals(expected.ids), "other ids");
  check(call, out_floats_.equals(expected.floats), "other floats");
  check(call, out_values_.equals(expected.values), "other values");
  check(call,
        out_ids_.margins_intact() && out_floats_.margins_intact() && out_values_.margins_intact(),
        "written outside the outputs");
  add_to_digest(answer);
}

void Player::add_to_digest(const Answer& answer) {
  digest_.add(answer.result);
  digest_.add(answer.numbers);
  digest_.add(out_ids_.values());
  digest_.add(out_floats_.values());
  digest_.add(out_values_.values());
}

void Player::expect_end(const Call& call, const Answer& expected) {
  const ChildEnd child = run_in_child([&] {
    place_outputs(call, expected);
    environment_of(call).set();
    ask(call);
  });
  check(call, child.trapped, "the process goes on, where its end was due");
  check(call, is_bounds_line(child.standard_error, expected.end->index, expected.end->length),
        "another last line");
  digest_.add(expected.end->index);
  digest_.add(expected.end->length);
}

void Player::place_inputs(const Call& call) {
  floats_.assign(call.floats, edge_of(call, 0));
  ids_.assign(call.ids, edge_of(call, 1));
  more_ids_.assign(call.more_ids, edge_of(call, 2));
  values_.assign(call.values, edge_of(call, 3));
  ints_.assign(call.ints, edge_of(call, 4));
  more_ints_.assign(call.more_ints, edge_of(call, 5));
}

void Player::place_outputs(const Call& call, const Answer& expected) {
  const auto place = [&](auto& buffer, const auto& after, int array) {
    auto untouched = after;
    if (!untouched.empty()) {
      std::memset(untouched.data(), kUntouchedByte, untouched.size() * sizeof untouched[0]);
    }
    buffer.assign(untouched, edge_of(call, array));
  };
  place(out_ids_, expected.ids, 6);
  place(out_floats_, expected.floats, 7);
  place(out_values_, expected.values, 8);
}

Answer Player::ask(const Call& call) {
  Answer answer;
  ask_change(call, answer);
  return answer;
}

void Player::ask_change(const Call& call, Answer& answer) {
  const auto& n = call.numbers;
  const auto give = [&](auto result) { answer.result = static_cast<std::int64_t>(result); };
  switch (call.function) {
    case Function::kNew:
      index_ = qx_index_new(uint32(n[0]), uint32(n[1]));
      break;
    case Function::kFree:
      qx_index_free(index_);
      index_ = nullptr;
      break;
    case Function::kFreeNull:
      qx_index_free(nullptr);
      break;
    case Function::kBuild:
      give(qx_index_build(index_, floats_.data(), n[kBuildN], int32(n[kBuildDim]), ids_.data(),
                          more_ids_.data(), ints_.data(), more_ints_.data(),
                          int32(n[kBuildParts])));
      break;
    case Function::kInsert:
      give(qx_index_insert(index_, floats_.data(), ids_.data(), int32(n[0])));
      break;
    case Function::kDelete:
      give(qx_index_delete(index_, ids_.data(), int32(n[0])));
      break;
    case Function::kSetIvf:
      give(qx_index_set_ivf(index_, n[kIvfKey], int32(n[kIvfNlist]), int32(n[kIvfNprobe]),
                            floats_.data(), ids_.data(), ints_.data(), int32(n[kIvfIds])));
      break;
    case Function::kClearIvf:
      give(qx_index_clear_ivf(index_));
      break;
    case Function::kSetIvfNprobe:
      give(qx_index_set_ivf_nprobe(index_, n[0], int32(n[1])));
      break;
    case Function::kSetRowmeta:
      give(qx_index_set_rowmeta(index_, ids_.data(), more_ids_.data(), values_.data(), int32(n[0]),
                                int32(n[1])));
      break;
    default:
      ask_accessor(call, answer);
  }
}

void Player::ask_accessor(const Call& call, Answer& answer) {
  const auto give = [&](auto result) { answer.result = static_cast<std::int64_t>(result); };
  switch (call.function) {
    case Function::kStats: {
      std::uint64_t n_base = 1;
      std::uint32_t dim = 1;
      std::uint32_t tag = 1;
      std::int32_t n_parts = -1;
      give(qx_index_stats(index_, &n_base, &dim, &tag, &n_parts));
      answer.numbers = {static_cast<std::int64_t>(n_base), dim, tag, n_parts};
      break;
    }
    case Function::kSnapshot:
      give(qx_index_snapshot(index_));
      break;
    case Function::kMutated:
      give(qx_index_mutated(index_));
      break;
    case Function::kSealed:
      give(qx_index_sealed(index_));
      break;
    case Function::kDeltaCount:
      give(qx_index_delta_count(index_));
      break;
    case Function::kFormatVersion:
      give(qx_runtime_format_version());
      break;
    case Function::kTunerDefaults: {
      std::uint32_t first = 0;
      std::uint32_t second = 0;
      give(qx_tuner_defaults(&first, &second));
      answer.numbers = {first, second};
      break;
    }
    case Function::kHasIvf:
      give(qx_index_has_ivf(index_, call.numbers[0]));
      break;
    case Function::kVisibleCount:
      give(qx_index_visible_count(index_));
      break;
    default:
      ask_listing(call, answer);
  }
}

void Player::ask_listing(const Call& call, Answer& answer) {
  const auto& n = call.numbers;
  const auto give = [&](auto result) { answer.result = static_cast<std::int64_t>(result); };
  switch (call.function) {
    case Function::kExportBase:
      give(qx_index_export_base(index_, out_floats_.data(), out_ids_.data()));
      break;
    case Function::kTunerOversized:
      give(qx_index_tuner_oversized(index_, int32(n[0]), out_ids_.data(), out_values_.data()));
      break;
    case Function::kExportRowmeta:
      give(qx_index_export_rowmeta(index_, ids_.data(), uint32(n[0]), out_ids_.data(),
                                   out_values_.data()));
      break;
    case Function::kMatchIds:
      give(qx_index_match_ids(index_, uint32(n[0]), int32(n[1]), n[2], out_ids_.data()));
      break;
    case Function::kVisibleIds:
      give(qx_index_visible_ids(index_, out_ids_.data()));
      break;
    case Function::kExportVisible:
      give(qx_index_export_visible(index_, out_floats_.data(), out_ids_.data()));
      break;
    default:
      ask_search(call, answer);
  }
}

void Player::ask_search(const Call& call, Answer& answer) {
  const auto& n = call.numbers;
  const float* const query = floats_.data();
  std::int64_t* const ids = out_ids_.data();
  float* const scores = out_floats_.data();
  switch (call.function) {
    case Function::kSearchFull:
      answer.result = qx_index_search_full(index_, query, int32(n[0]), ids, scores);
      break;
    case Function::kSearchPartition:
      answer.result = qx_index_search_partition(index_, n[0], query, int32(n[1]), ids, scores);
      break;
    case Function::kScatterTopk:
      answer.result =
          qx_index_scatter_topk(index_, ids_.data(), int32(n[0]), query, int32(n[1]), ids, scores);
      break;
    case Function::kSearchIvf:
      answer.result = qx_index_search_ivf(index_, n[0], query, int32(n[1]), ids, scores);
      break;
    case Function::kSearchMvcc:
      answer.result =
          qx_index_search_mvcc(index_, ids_.data(), int32(n[0]), query, uint32(n[1]), ids, scores);
      break;
    default:
      answer.result = qx_index_search_filtered(index_, uint32(n[0]), int32(n[1]), n[2], query,
                                               uint32(n[3]), ids, scores);
  }
}

void Player::check(const Call& call, bool agrees, const char* what) {
  if (agrees || !disagreement_.empty()) return;
  disagreement_ = "step " + std::to_string(step_) + ", " + describe(call) + ", kernel " +
                  qx::kernels().name + ", host's floats: " + environment_of(call).name + ": " +
                  what;
}

void Player::check_inputs(const Call& call) {
  const auto check_input = [&](const auto& placed, const auto& values) {
    check(call, placed.equals(values), "an input was changed");
    check(call, placed.margins_intact(), "written outside an input");
  };
  check_input(floats_, call.floats);
  check_input(ids_, call.ids);
  check_input(more_ids_, call.more_ids);
  check_input(values_, call.values);
  check_input(ints_, call.ints);
  check_input(more_ints_, call.more_ints);
}

}  // namespace qx_test
