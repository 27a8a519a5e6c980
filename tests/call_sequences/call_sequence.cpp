// The properties of each function, the model's answers, and the repair of call sequences.
#include "call_sequences/call_sequence.h"

#include <bit>

namespace qx_test {
namespace {

constexpr std::int64_t kUntouchedId = 0x5A5A5A5A5A5A5A5A;
constexpr float kUntouchedFloat = std::bit_cast<float>(0x5A5A5A5A);
constexpr std::int64_t kLimit = std::int64_t{1} << 40;

// A product of two large negative numbers is a large positive one: too many floats for a test.
constexpr std::int64_t kMostCentroidFloats = 100000;

std::int32_t int32(std::int64_t number) { return static_cast<std::int32_t>(number); }
std::uint32_t uint32(std::int64_t number) { return static_cast<std::uint32_t>(number); }
std::int64_t as_int64(std::uint64_t number) { return static_cast<std::int64_t>(number); }

void grant(Answer& answer, const Call& call, std::int64_t ids, std::int64_t floats = -1,
           std::int64_t values = -1) {
  const auto elements = [&](std::int64_t granted) {
    return granted < 0 ? 0 : static_cast<std::size_t>(granted + call.spare);
  };
  answer.ids.assign(elements(ids), kUntouchedId);
  answer.floats.assign(elements(floats), kUntouchedFloat);
  answer.values.assign(elements(values), kUntouchedId);
}

// The same number of ids and scores.
void grant_slots(Answer& answer, const Call& call, std::int64_t slots) {
  grant(answer, call, std::max<std::int64_t>(slots, 0), std::max<std::int64_t>(slots, 0));
}

Model::Predicate predicate_of(const Call& call) {
  return {uint32(call.numbers[0]), int32(call.numbers[1]), call.numbers[2]};
}

void answer_partition(Answer& answer, const Model& model, const Call& call) {
  Ids ids(static_cast<std::size_t>(model.n_base()));
  Floats scores(ids.size());
  const auto search = [&](Ids& out_ids, Floats& out_scores) {
    return model.search_partition(call.numbers[0], call.floats, int32(call.numbers[1]), out_ids,
                                  out_scores);
  };
  answer.result = search(ids, scores);
  grant_slots(answer, call, answer.result);
  search(answer.ids, answer.floats);
}

constexpr FunctionTraits kTraits[] = {
    {"qx_index_new", -1, -1,
     [](Answer&, Model& m, const Call& c) {
       m = Model(uint32(c.numbers[0]), uint32(c.numbers[1]));
     }},
    {"qx_index_free", -1, -1, [](Answer&, Model&, const Call&) {}},
    {"qx_index_free", -1, -1, [](Answer&, Model&, const Call&) {}},
    {"qx_index_stats", -1, -1,
     [](Answer& a, Model& m, const Call&) {
       a.numbers = {m.n_base(), uint32(m.dim), m.user_tag, std::ssize(m.part_keys)};
     }},
    {"qx_index_snapshot", -1, -1,
     [](Answer& a, Model& m, const Call&) { a.result = as_int64(m.snapshot); }},
    {"qx_index_mutated", -1, -1, [](Answer& a, Model& m, const Call&) { a.result = m.mutated; }},
    {"qx_index_sealed", -1, -1, [](Answer& a, Model& m, const Call&) { a.result = m.sealed; }},
    {"qx_index_delta_count", -1, -1,
     [](Answer& a, Model& m, const Call&) { a.result = std::ssize(m.delta_ids); }},
    {"qx_runtime_format_version", -1, -1, [](Answer& a, Model&, const Call&) { a.result = 1; }},
    {"qx_index_build", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       a.result = m.build(c.floats, c.numbers[kBuildN], int32(c.numbers[kBuildDim]), c.ids,
                          c.more_ids, c.ints, c.more_ints, int32(c.numbers[kBuildParts]));
     }},
    {"qx_index_export_base", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant(a, c, m.n_base(), std::ssize(m.base_vectors));
       a.result = m.export_base(a.floats, a.ids);
     }},
    {"qx_index_search_full", 0, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant_slots(a, c, std::min<std::int64_t>(int32(c.numbers[0]), m.n_base()));
       a.result = m.search_full(c.floats, int32(c.numbers[0]), a.ids, a.floats);
     }},
    {"qx_index_search_partition", 1, -1,
     [](Answer& a, Model& m, const Call& c) { answer_partition(a, m, c); }},
    {"qx_index_scatter_topk", 1, 0,
     [](Answer& a, Model& m, const Call& c) {
       grant_slots(a, c, std::min(int32(c.numbers[0]), int32(c.numbers[1])));
       a.result = m.scatter_topk(c.ids, c.floats, int32(c.numbers[1]), a.ids, a.floats);
     }},
    {"qx_tuner_defaults", -1, -1,
     [](Answer& a, Model&, const Call&) {
       a.numbers = {20000, 980};
     }},
    {"qx_index_tuner_oversized", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant(a, c, std::ssize(m.part_keys), -1, std::ssize(m.part_keys));
       a.result = m.tuner_oversized(int32(c.numbers[0]), a.ids, a.values);
     }},
    {"qx_index_insert", -1, 0,
     [](Answer& a, Model& m, const Call& c) { a.result = as_int64(m.insert(c.floats, c.ids)); }},
    {"qx_index_delete", -1, 0,
     [](Answer& a, Model& m, const Call& c) { a.result = as_int64(m.erase(c.ids)); }},
    {"qx_index_set_ivf", -1, 3,
     [](Answer&, Model& m, const Call& c) {
       m.ivfs[c.numbers[kIvfKey]] = {int32(c.numbers[kIvfNlist]), int32(c.numbers[kIvfNprobe]),
                                     c.floats, c.ids, c.ints};
     }},
    {"qx_index_has_ivf", -1, -1,
     [](Answer& a, Model& m, const Call& c) { a.result = m.ivfs.contains(c.numbers[0]); }},
    {"qx_index_clear_ivf", -1, -1, [](Answer&, Model& m, const Call&) { m.ivfs.clear(); }},
    {"qx_index_set_ivf_nprobe", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       a.result = m.set_ivf_nprobe(c.numbers[0], int32(c.numbers[1]));
     }},
    {"qx_index_search_ivf", 1, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant_slots(a, c, int32(c.numbers[1]));
       a.result = m.search_ivf(c.numbers[0], c.floats, int32(c.numbers[1]), a.ids, a.floats);
     }},
    {"qx_index_search_mvcc", 1, 0,
     [](Answer& a, Model& m, const Call& c) {
       grant_slots(a, c, int32(c.numbers[1]));
       a.result = m.search_mvcc(c.ids, c.floats, int32(c.numbers[1]), a.ids, a.floats);
     }},
    {"qx_index_set_rowmeta", -1, 1,
     [](Answer& a, Model& m, const Call& c) {
       a.result = m.set_rowmeta(c.ids, c.more_ids, c.values, int32(c.numbers[0]));
     }},
    {"qx_index_export_rowmeta", -1, 0,
     [](Answer& a, Model& m, const Call& c) {
       grant(a, c, std::ssize(c.ids), -1, std::ssize(c.ids) * std::ssize(m.columns));
       a.result = m.export_rowmeta(c.ids, a.ids, a.values);
     }},
    {"qx_index_search_filtered", 3, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant_slots(a, c, int32(c.numbers[3]));
       a.result =
           m.search_filtered(predicate_of(c), c.floats, int32(c.numbers[3]), a.ids, a.floats);
     }},
    {"qx_index_match_ids", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant(a, c, m.visible_count());
       a.result = m.match_ids(predicate_of(c), a.ids);
     }},
    {"qx_index_visible_ids", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant(a, c, m.visible_count());
       a.result = m.match_ids({QX_FILTER_ALL, 0, 0}, a.ids);
     }},
    {"qx_index_visible_count", -1, -1,
     [](Answer& a, Model& m, const Call&) { a.result = m.visible_count(); }},
    {"qx_index_export_visible", -1, -1,
     [](Answer& a, Model& m, const Call& c) {
       grant(a, c, m.visible_count(), m.visible_count() * m.width());
       a.result = m.export_visible(a.floats, a.ids);
     }},
};

}  // namespace

const FunctionTraits& traits(Function function) {
  return kTraits[static_cast<std::size_t>(function)];
}

Answer expected_answer(Model& model, const Call& call) {
  Answer answer;
  try {
    traits(call.function).answer(answer, model, call);
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
    if (changes(call.function) && expected_answer(model, call).end) {
      valid.push_back(call);
      break;
    }
    valid.push_back(call);
  }
  if (there) valid.push_back({Function::kFree});
  return valid;
}

std::string describe(const Call& call) {
  std::string text = traits(call.function).name;
  text += '(';
  for (std::size_t i = 0; i < numbers(call.function); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(call.numbers[i]);
  }
  return text + (call.function == Function::kFreeNull ? "null)" : ")");
}

void add_to(Digest& digest, const CallSequence& sequence) {
  for (const Call& call : sequence) {
    digest.add(static_cast<int>(call.function));
    for (const std::int64_t number : call.numbers) digest.add(number);
    std::apply([&](const auto&... arrays) { (digest.add(arrays), ...); }, inputs_of(call));
    digest.add(call.starts);
    digest.add(call.spare);
  }
}

}  // namespace qx_test
