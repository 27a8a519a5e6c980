#include "call_sequences/player.h"

#include <cstdio>
#include <cstring>

#include "kernels/kernels.h"
#include "store/validity.h"
#include "support/child.h"
#include "support/host_environment.h"

namespace qx_test {
namespace {

Edge edge_of(const Call& call, std::size_t array) {
  return (call.starts >> array & 1) != 0 ? Edge::kStart : Edge::kEnd;
}

// The host's floating-point environment during a call: chosen by the call, so that it is the same
// each time the call is played.
const FpEnvironment& environment_of(const Call& call) {
  const auto drawn = static_cast<std::size_t>(call.starts + call.spare);
  return fp_environments()[drawn % fp_environments().size()];
}

constexpr const char* kOtherOutput[] = {"other ids", "other floats", "other values"};

// Calls work(i, buffer i, values i) for each buffer.
template <typename Buffers, typename Values, typename Work>
void for_each_array(Buffers& buffers, const Values& values, Work work) {
  [&]<std::size_t... i>(std::index_sequence<i...>) {
    (work(i, std::get<i>(buffers), std::get<i>(values)), ...);
  }
  (std::make_index_sequence<std::tuple_size_v<Values>>());
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
  ++calls_[traits(call.function).name];
  if (trace_) std::printf("%4zu  %s\n", step_, describe(call).c_str());
  const bool compares = call.function != Function::kNew && call.function != Function::kFree &&
                        call.function != Function::kFreeNull;
  compared_ += compares ? 1 : 0;
  const bool builds_anew = call.function == Function::kBuild && model_.sealed;
  // The model is asked first: if it ends the process, the call must not change the engine's index.
  const Answer expected = expected_answer(model_, call);
  rebuilt_ |= builds_anew && expected.result >= 0;
  for_each_array(inputs_, inputs_of(call), [&](std::size_t i, auto& buffer, const auto& values) {
    buffer.assign(values, edge_of(call, i));
    placed_[i] = buffer.data();
  });
  const auto run = [&] { expected.end ? expect_end(call, expected) : compare(call, expected); };
  if (changes(call.function) || kernels_ == UnderKernels::kChosen) {
    run();
  } else {
    for (const qx::Kernels* const* kernels = qx::all_kernels(); *kernels != nullptr; ++kernels) {
      if (qx::force_kernels((*kernels)->name)) run();
    }
    qx::force_kernels(nullptr);
  }
  for_each_array(inputs_, inputs_of(call), [&](std::size_t, auto& buffer, const auto& values) {
    check(call, buffer.equals(values), "an input was changed");
    check(call, buffer.margins_intact(), "written outside an input");
  });
  ended_ = expected.end && changes(call.function);  // the model has stopped in the middle
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
  digest_.add(answer.result);
  digest_.add(answer.numbers);
  for_each_array(outputs_, expected.outputs(), [&](std::size_t i, auto& out, const auto& after) {
    check(call, out.equals(after), kOtherOutput[i]);
    check(call, out.margins_intact(), "written outside the outputs");
    digest_.add(out.values());
  });
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

void Player::place_outputs(const Call& call, const Answer& expected) {
  for_each_array(outputs_, expected.outputs(), [&](std::size_t i, auto& out, auto untouched) {
    if (!untouched.empty()) {
      std::memset(untouched.data(), kUntouchedByte, untouched.size() * sizeof untouched[0]);
    }
    out.assign(untouched, edge_of(call, kOutputs + i));
    placed_[kOutputs + i] = out.data();
  });
}

Answer Player::ask(const Call& call) {
  Answer answer;
  std::tuple<std::uint64_t, std::uint32_t, std::int32_t> written[4];
  written[0] = written[1] = written[2] = written[3] = {1, 1, -1};
  // cppcheck-suppress syntaxError ; it does not know lambdas that are templates
  const auto choose = [&]<typename Parameter>(std::size_t n) -> Parameter {
    constexpr Kind kKind = kind_of<Parameter>();
    if constexpr (kKind == Kind::kNumber) {
      return static_cast<Parameter>(call.numbers[n]);
    } else if constexpr (kKind == Kind::kOutNumber) {
      return &std::get<std::remove_pointer_t<Parameter>>(written[n]);
    } else if constexpr (kKind == Kind::kIndex) {
      return call.function == Function::kFreeNull ? nullptr : index_;
    } else {
      return static_cast<Parameter>(placed_[array_number(kKind, n)]);
    }
  };
  const auto note = [&]<typename Argument>(Argument argument) {
    if constexpr (kind_of<Argument>() == Kind::kOutNumber) {
      answer.numbers.push_back(static_cast<std::int64_t>(*argument));
    }
  };
  with_function(call.function, [&]<typename Result, typename... Types>(Result (*made)(Types...)) {
    const std::tuple<Types...> arguments = arguments_of(made, choose);
    if constexpr (std::is_same_v<Result, QxIndex*>) {
      index_ = std::apply(made, arguments);
    } else if constexpr (std::is_void_v<Result>) {
      std::apply(made, arguments);
      if (call.function == Function::kFree) index_ = nullptr;
    } else {
      answer.result = static_cast<std::int64_t>(std::apply(made, arguments));
    }
    std::apply([&](auto... each) { (note(each), ...); }, arguments);
  });
  return answer;
}

void Player::check(const Call& call, bool agrees, const char* what) {
  if (agrees || !disagreement_.empty()) return;
  disagreement_ = "step " + std::to_string(step_) + ", " + describe(call) + ", kernel " +
                  qx::kernels().name + ", host's floats: " + environment_of(call).name + ": " +
                  what;
}

}  // namespace qx_test
