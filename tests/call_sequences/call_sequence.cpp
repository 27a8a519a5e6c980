// The properties of each function, the model's answers, and the repair of call sequences.
#include "call_sequences/call_sequence.h"

#include <bit>

#include "qx_runtime.h"

namespace qx_test {
namespace {

constexpr std::int64_t kUntouchedId = 0x5A5A5A5A5A5A5A5A;
constexpr float kUntouchedFloat = std::bit_cast<float>(0x5A5A5A5A);
constexpr std::int64_t kLimit = std::int64_t{1} << 40;

// A product of two large negative numbers is a large positive one: too many floats for a test.
constexpr std::int64_t kMostCentroidFloats = 100000;

std::int32_t int32(std::int64_t number) { return static_cast<std::int32_t>(number); }
std::int64_t as_int64(std::uint64_t number) { return static_cast<std::int64_t>(number); }

void grant(Answer& answer, const Call& call, std::int64_t ids, std::int64_t floats,
           std::int64_t values = -1) {
  const auto elements = [&](std::int64_t granted) {
    return granted < 0 ? 0 : static_cast<std::size_t>(granted + call.spare);
  };
  answer.ids.assign(elements(ids), kUntouchedId);
  answer.floats.assign(elements(floats), kUntouchedFloat);
  answer.values.assign(elements(values), kUntouchedId);
}

Model::Predicate predicate_of(const Call& call) {
  return {static_cast<std::uint32_t>(call.numbers[0]), int32(call.numbers[1]), call.numbers[2]};
}

void answer_search(Answer& answer, const Model& model, const Call& call) {
  const auto& n = call.numbers;
  const std::int32_t k = int32(n[static_cast<std::size_t>(traits(call.function).k)]);
  const std::int64_t slots = std::max(k, 0);
  switch (call.function) {
    case Function::kSearchFull: {
      const std::int64_t granted = std::min(slots, model.n_base());
      grant(answer, call, granted, granted);
      answer.result = model.search_full(call.floats, k, answer.ids, answer.floats);
      break;
    }
    case Function::kSearchPartition: {
      grant(answer, call, model.n_base(), model.n_base());
      Answer most = answer;
      answer.result = model.search_partition(n[0], call.floats, k, most.ids, most.floats);
      grant(answer, call, answer.result, answer.result);
      model.search_partition(n[0], call.floats, k, answer.ids, answer.floats);
      break;
    }
    case Function::kScatterTopk: {
      const std::int64_t granted = std::max(0, std::min(k, int32(n[0])));
      grant(answer, call, granted, granted);
      answer.result =
          model.scatter_topk(call.ids, int32(n[0]), call.floats, k, answer.ids, answer.floats);
      break;
    }
    case Function::kSearchIvf:
      grant(answer, call, slots, slots);
      answer.result = model.search_ivf(n[0], call.floats, k, answer.ids, answer.floats);
      break;
    case Function::kSearchMvcc:
      grant(answer, call, slots, slots);
      answer.result = model.search_mvcc(call.ids, call.floats, static_cast<std::uint32_t>(k),
                                        answer.ids, answer.floats);
      break;
    default:
      grant(answer, call, slots, slots);
      answer.result =
          model.search_filtered(predicate_of(call), call.floats, static_cast<std::uint32_t>(k),
                                answer.ids, answer.floats);
  }
}

void answer_listing(Answer& answer, const Model& model, const Call& call) {
  const auto& n = call.numbers;
  switch (call.function) {
    case Function::kExportBase:
      grant(answer, call, model.n_base(), std::ssize(model.base_vectors));
      answer.result = model.export_base(answer.floats, answer.ids);
      break;
    case Function::kTunerOversized:
      grant(answer, call, std::ssize(model.part_keys), -1, std::ssize(model.part_keys));
      answer.result = model.tuner_oversized(int32(n[0]), answer.ids, answer.values);
      break;
    case Function::kExportRowmeta:
      grant(answer, call, std::ssize(call.ids), -1,
            std::ssize(call.ids) * std::ssize(model.columns));
      answer.result = model.export_rowmeta(call.ids, answer.ids, answer.values);
      break;
    case Function::kMatchIds:
      grant(answer, call, model.visible_count(), -1);
      answer.result = model.match_ids(predicate_of(call), answer.ids);
      break;
    case Function::kVisibleIds:
      grant(answer, call, model.visible_count(), -1);
      answer.result = model.match_ids({QX_FILTER_ALL, 0, 0}, answer.ids);
      break;
    case Function::kExportVisible: {
      const std::int64_t rows = model.visible_count();
      grant(answer, call, rows, rows * model.width());
      answer.result = model.export_visible(answer.floats, answer.ids);
      break;
    }
    default:
      answer_search(answer, model, call);
  }
}

void answer_accessor(Answer& answer, const Model& model, const Call& call) {
  switch (call.function) {
    case Function::kStats:
      answer.numbers = {model.n_base(), static_cast<std::uint32_t>(model.dim), model.user_tag,
                        std::ssize(model.part_keys)};
      break;
    case Function::kSnapshot:
      answer.result = as_int64(model.snapshot);
      break;
    case Function::kMutated:
      answer.result = model.mutated ? 1 : 0;
      break;
    case Function::kSealed:
      answer.result = model.sealed ? 1 : 0;
      break;
    case Function::kDeltaCount:
      answer.result = std::ssize(model.delta_ids);
      break;
    case Function::kFormatVersion:
      answer.result = 1;
      break;
    case Function::kTunerDefaults:
      answer.numbers = {20000, 980};
      break;
    case Function::kHasIvf:
      answer.result = static_cast<std::int64_t>(model.ivfs.count(call.numbers[0]));
      break;
    case Function::kVisibleCount:
      answer.result = model.visible_count();
      break;
    default:
      answer_listing(answer, model, call);
  }
}

void answer_call(Answer& answer, Model& model, const Call& call) {
  const auto& n = call.numbers;
  switch (call.function) {
    case Function::kNew:
      model = Model(static_cast<std::uint32_t>(n[0]), static_cast<std::uint32_t>(n[1]));
      break;
    case Function::kFree:
    case Function::kFreeNull:
      break;
    case Function::kBuild:
      answer.result = model.build(call.floats, n[kBuildN], int32(n[kBuildDim]), call.ids,
                                  call.more_ids, call.ints, call.more_ints, int32(n[kBuildParts]));
      break;
    case Function::kInsert:
      answer.result = as_int64(model.insert(call.floats, call.ids));
      break;
    case Function::kDelete:
      answer.result = as_int64(model.erase(call.ids));
      break;
    case Function::kSetIvf:
      model.ivfs[n[kIvfKey]] = {int32(n[kIvfNlist]), int32(n[kIvfNprobe]), call.floats, call.ids,
                                call.ints};
      break;
    case Function::kClearIvf:
      model.ivfs.clear();
      break;
    case Function::kSetIvfNprobe:
      answer.result = model.set_ivf_nprobe(n[0], int32(n[1]));
      break;
    case Function::kSetRowmeta:
      answer.result = model.set_rowmeta(call.ids, call.more_ids, call.values, int32(n[0]));
      break;
    default:
      answer_accessor(answer, model, call);
  }
}

}  // namespace

const FunctionTraits& traits(Function function) {
  static const std::array<FunctionTraits, 31> all = {{
      {"qx_index_new", 2, -1, -1, true},
      {"qx_index_free", 0, -1, -1, true},
      {"qx_index_free", 0, -1, -1, true},
      {"qx_index_stats", 0, -1, -1, false},
      {"qx_index_snapshot", 0, -1, -1, false},
      {"qx_index_mutated", 0, -1, -1, false},
      {"qx_index_sealed", 0, -1, -1, false},
      {"qx_index_delta_count", 0, -1, -1, false},
      {"qx_runtime_format_version", 0, -1, -1, false},
      {"qx_index_build", 3, -1, -1, true},
      {"qx_index_export_base", 0, -1, -1, false},
      {"qx_index_search_full", 1, 0, -1, false},
      {"qx_index_search_partition", 2, 1, -1, false},
      {"qx_index_scatter_topk", 2, 1, 0, false},
      {"qx_tuner_defaults", 0, -1, -1, false},
      {"qx_index_tuner_oversized", 1, -1, -1, false},
      {"qx_index_insert", 1, -1, 0, true},
      {"qx_index_delete", 1, -1, 0, true},
      {"qx_index_set_ivf", 4, -1, 3, true},
      {"qx_index_has_ivf", 1, -1, -1, false},
      {"qx_index_clear_ivf", 0, -1, -1, true},
      {"qx_index_set_ivf_nprobe", 2, -1, -1, true},
      {"qx_index_search_ivf", 2, 1, -1, false},
      {"qx_index_search_mvcc", 2, 1, 0, false},
      {"qx_index_set_rowmeta", 2, -1, 1, true},
      {"qx_index_export_rowmeta", 1, -1, 0, false},
      {"qx_index_search_filtered", 4, 3, -1, false},
      {"qx_index_match_ids", 3, -1, -1, false},
      {"qx_index_visible_ids", 0, -1, -1, false},
      {"qx_index_visible_count", 0, -1, -1, false},
      {"qx_index_export_visible", 0, -1, -1, false},
  }};
  return all.at(static_cast<std::size_t>(function));
}

Answer expected_answer(Model& model, const Call& call) {
  Answer answer;
  try {
    answer_call(answer, model, call);
  } catch (const OutOfBounds& end) {
    answer.end = end;
  }
  return answer;
}

bool rejected_unread(const Call& build) {
  const std::int64_t n = build.numbers[kBuildN];
  const std::int64_t dim = build.numbers[kBuildDim];
  return n < 0 || n > kLimit || dim < 0 || build.numbers[kBuildParts] < 0 ||
         (dim > 0 && n > kLimit / dim);
}

namespace {

// Changes the length of each row: the last components are removed, or zeros appended.
void fit_rows(Floats& floats, std::int64_t rows, std::int64_t width) {
  rows = std::max<std::int64_t>(rows, 0);
  const std::int64_t old_width = rows == 0 ? 0 : std::ssize(floats) / rows;
  if (old_width == width && std::ssize(floats) == rows * width) return;
  Floats fitted(static_cast<std::size_t>(rows * width), 0.0f);
  for (std::int64_t i = 0; i < rows; ++i) {
    std::copy_n(floats.begin() + i * old_width, std::min(width, old_width),
                fitted.begin() + i * width);
  }
  floats = fitted;
}

void fit_build(Call& call) {
  if (rejected_unread(call)) return;
  call.numbers[kBuildN] = std::ssize(call.ids);
  call.numbers[kBuildParts] = std::ssize(call.more_ids);
  call.ints.resize(call.more_ids.size());
  call.more_ints.resize(call.more_ids.size());
  const auto is_bad = [](std::int64_t id) { return id < 0 || id > QX_MAX_BASE_ID; };
  if (std::any_of(call.ids.begin(), call.ids.end(), is_bad)) {
    call.floats.clear();  // the engine must not read them
  } else {
    fit_rows(call.floats, std::ssize(call.ids), call.numbers[kBuildDim]);
  }
}

// Returns false for a call whose arrays would not fit into this process.
bool fit(Call& call, const Model& model) {
  if (call.function == Function::kBuild) {
    fit_build(call);
    return true;
  }
  const FunctionTraits& function = traits(call.function);
  if (function.count >= 0) {
    std::int64_t& count = call.numbers[static_cast<std::size_t>(function.count)];
    count = call.ids.empty() ? std::min<std::int64_t>(count, 0) : std::ssize(call.ids);
  }
  if (call.function == Function::kInsert) {
    fit_rows(call.floats, std::ssize(call.ids), model.width());
  } else if (call.function == Function::kSetIvf) {
    const std::int64_t nlist = call.numbers[kIvfNlist];
    const std::int64_t floats = std::int64_t{model.dim} * nlist;
    if (floats > kMostCentroidFloats) return false;
    if (model.dim >= 0 && nlist >= 0) {
      fit_rows(call.floats, nlist, model.dim);
    } else {
      call.floats.resize(static_cast<std::size_t>(std::max<std::int64_t>(floats, 0)));
    }
    call.ints.resize(static_cast<std::size_t>(std::max<std::int64_t>(nlist + 1, 0)));
  } else if (call.function == Function::kSetRowmeta) {
    call.more_ids.resize(call.ids.size());
    call.values.resize(call.ids.size() *
                       static_cast<std::size_t>(std::max<std::int64_t>(call.numbers[0], 0)));
  } else if (function.k >= 0) {
    fit_rows(call.floats, 1, model.width());
  }
  return true;
}

}  // namespace

CallSequence repair(CallSequence sequence) {
  CallSequence valid;
  Model model(0, 0);
  bool there = false;
  for (Call& call : sequence) {
    if (call.function == Function::kNew) {
      if (there) valid.push_back({Function::kFree});
      there = true;
    } else if (call.function == Function::kFree) {
      if (!there) continue;
      there = false;
    } else if (!there || !fit(call, model)) {
      continue;
    }
    if (traits(call.function).changes && expected_answer(model, call).end) {
      valid.push_back(call);
      break;
    }
    valid.push_back(call);
  }
  if (there) valid.push_back({Function::kFree});
  return valid;
}

std::string describe(const Call& call) {
  const FunctionTraits& function = traits(call.function);
  std::string text = function.name;
  text += '(';
  for (std::size_t i = 0; i < function.numbers; ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(call.numbers[i]);
  }
  return text + (call.function == Function::kFreeNull ? "null)" : ")");
}

}  // namespace qx_test
