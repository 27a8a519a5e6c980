#include "histories/replay.h"

#include <bit>
#include <cstdio>

namespace qx_test {
namespace {

// What every replay begins with.
constexpr const char* kFrame = R"(#define _DEFAULT_SOURCE
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qx_runtime.h"

typedef struct { unsigned char *pages, *data; size_t usable, size; } Block;

static int differences = 0;

static void differs(int call, const char* what) {
  fprintf(stderr, "call %d: %s\n", call, what);
  ++differences;
}

/* Memory of `size` bytes against an unmapped page, at its end or at its start. */
static Block block(size_t size, int at_start) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  Block b;
  b.size = size;
  b.usable = (size / page + 1) * page;
  b.pages = mmap(NULL, b.usable + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (b.pages == MAP_FAILED) exit(2);
  b.pages += page;
  if (mprotect(b.pages, b.usable, PROT_READ | PROT_WRITE) != 0) exit(2);
  b.data = at_start ? b.pages : b.pages + (b.usable - size);
  memset(b.pages, 0xA5, b.usable);
  memset(b.data, 0x5A, size);
  return b;
}

static Block input(const void* bytes, size_t size, int at_start) {
  Block b = block(size, at_start);
  if (size != 0) memcpy(b.data, bytes, size);
  return b;
}

/* Compares a block, and what lies around it. */
static void same(int call, Block b, const void* bytes, const char* what) {
  const size_t before = (size_t)(b.data - b.pages);
  size_t i;
  if (b.size != 0 && memcmp(b.data, bytes, b.size) != 0) differs(call, what);
  for (i = 0; i < b.usable; ++i) {
    if (i >= before && i < before + b.size) continue;
    if (b.pages[i] != 0xA5) {
      differs(call, "written outside of an array");
      return;
    }
  }
}

static void result(int call, int64_t got, int64_t expected) {
  if (got == expected) return;
  differs(call, "another result");
  fprintf(stderr, "  %" PRId64 ", expected %" PRId64 "\n", got, expected);
}

)";

// Where the process must end.
constexpr const char* kEndFrame = R"(static int is_child(int call, const char* line_part) {
  char text[512];
  size_t length = 0;
  ssize_t got;
  int ends[2], status;
  pid_t child;
  if (pipe(ends) != 0) exit(2);
  child = fork();
  if (child < 0) exit(2);
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    return 1;
  }
  close(ends[1]);
  while ((got = read(ends[0], text + length, sizeof text - 1 - length)) > 0) length += (size_t)got;
  text[length] = '\0';
  close(ends[0]);
  waitpid(child, &status, 0);
  if (!WIFSIGNALED(status) || (WTERMSIG(status) != SIGILL && WTERMSIG(status) != SIGTRAP)) {
    differs(call, "the process goes on, where its end was due");
  }
  if (strstr(text, line_part) == NULL) differs(call, "another last line");
  return 0;
}

)";

std::string number(std::int64_t value) {
  return value == INT64_MIN ? "INT64_MIN" : "INT64_C(" + std::to_string(value) + ")";
}
std::string element(std::int64_t value) { return number(value); }
std::string element(std::int32_t value) {
  return value == INT32_MIN ? "INT32_MIN" : std::to_string(value);
}
std::string element(float value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08Xu", std::bit_cast<std::uint32_t>(value));
  return text;
}

template <typename T>
const char* type_name() {
  if (sizeof(T) == 8) return "int64_t";
  return std::is_same_v<T, float> ? "uint32_t" : "int32_t";
}

// A constant array; floats as their bits.
template <typename T>
std::string constant(const std::string& name, const std::vector<T>& values) {
  std::string text = std::string("    static const ") + type_name<T>() + " " + name + "[] = {";
  std::size_t column = text.size();
  if (values.empty()) text += "0";
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::string next = (i == 0 ? "" : ", ") + element(values[i]);
    column += next.size();
    if (column > 96) {
      text += i == 0 ? "\n        " : ",\n        ";
      text += element(values[i]);
      column = 8 + element(values[i]).size();
    } else {
      text += next;
    }
  }
  return text + "};\n";
}

class Writer {
 public:
  Writer(const Life& life, const std::string& comment)
      : text_("/*\n" + comment + " */\n" + kFrame) {
    std::string body;
    bool ends = false;
    for (const Call& call : life) {
      const Answer answer = expected_answer(model_, call);
      ends |= answer.end.has_value();
      body += block(call, answer);
    }
    if (ends) text_ += kEndFrame;
    text_ +=
        "int main(void) {\n  QxIndex* index = NULL;\n  (void)input, (void)same, (void)result;\n" +
        body + "  return differences == 0 ? 0 : 1;\n}\n";
  }

  const std::string& text() const { return text_; }

 private:
  // One call with its arrays and its comparison.
  std::string block(const Call& call, const Answer& answer) {
    before_.clear();
    after_.clear();
    array_ = 0;
    const std::string at = std::to_string(++calls_);
    const std::string floats = input("floats", call.floats, call);
    const std::string ids = input("ids", call.ids, call);
    const std::string more = input("more_ids", call.more_ids, call);
    const std::string values = input("values", call.values, call);
    const std::string ints = input("ints", call.ints, call);
    const std::string more_ints = input("more_ints", call.more_ints, call);
    const std::string in_floats = "(const float*)" + floats;
    const std::string in_ids = "(const int64_t*)" + ids;
    const std::string arguments = call_text(
        call, answer, in_floats, in_ids, "(const int64_t*)" + more, "(const int64_t*)" + values,
        "(const int32_t*)" + ints, "(const int32_t*)" + more_ints);
    std::string code = "  { /* " + at + " */\n" + before_;
    if (answer.end) {
      code += "    if (is_child(" + at + ", \"index " + std::to_string(answer.end->index) +
              " is out of bounds, valid range is 0 to " + std::to_string(answer.end->length - 1) +
              "\\n\")) {\n      " + arguments + ";\n      _exit(0);\n    }\n";
    } else {
      code += statement(call, answer, arguments) + after_;
    }
    return code + "  }\n";
  }

  std::string statement(const Call& call, const Answer& answer, const std::string& made) {
    const std::string at = std::to_string(calls_);
    if (call.function == Function::kNew) return "    index = " + made + ";\n";
    if (call.function == Function::kFree || call.function == Function::kFreeNull) {
      return "    " + made + ";\n";
    }
    return "    result(" + at + ", (int64_t)" + made + ", " + number(answer.result) + ");\n";
  }

  template <typename T>
  std::string input(const std::string& name, const std::vector<T>& values, const Call& call) {
    const bool at_start = (call.starts >> array_++ & 1) != 0;
    if (!takes(call.function, name)) return name;
    before_ += constant(name + "_", values);
    before_ += "    const Block " + name + " = input(" + name + "_, " +
               std::to_string(values.size() * sizeof(T)) + ", " + (at_start ? "1" : "0") + ");\n";
    after_ += "    same(" + std::to_string(calls_) + ", " + name + ", " + name +
              "_, \"an input was changed\");\n";
    return name + ".data";
  }

  static bool takes(Function function, const std::string& name) {
    const bool build = function == Function::kBuild;
    const bool ivf = function == Function::kSetIvf;
    const bool meta = function == Function::kSetRowmeta;
    if (name == "floats") {
      return build || ivf || function == Function::kInsert || traits(function).k >= 0;
    }
    if (name == "ids") return build || traits(function).count >= 0;
    if (name == "more_ids") return build || meta;
    if (name == "values") return meta;
    return name == "ints" ? build || ivf : build;
  }

  template <typename T>
  std::string output(const std::string& name, const std::vector<T>& after, const Call& call,
                     int array, bool compared) {
    const bool at_start = (call.starts >> array & 1) != 0;
    before_ += "    const Block " + name + " = block(" + std::to_string(after.size() * sizeof(T)) +
               ", " + (at_start ? "1" : "0") + ");\n";
    if (compared) {
      before_ += constant(name + "_", after);
      after_ += "    same(" + std::to_string(calls_) + ", " + name + ", " + name + "_, \"other " +
                name.substr(4) + "\");\n";
    }
    return std::string(std::is_same_v<T, float> ? "(float*)" : "(int64_t*)") + name + ".data";
  }

  std::string plain_numbers(const char* type, const Ids& expected, const std::string& made) {
    std::string names;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const std::string name = "number" + std::to_string(i);
      const bool is_base = expected.size() == 4 && i == 0;
      const bool is_parts = expected.size() == 4 && i == 3;
      before_ += std::string("    ") +
                 (is_base    ? "uint64_t"
                  : is_parts ? "int32_t"
                             : type) +
                 " " + name + " = 1;\n";
      names += (i == 0 ? "&" : ", &") + name;
      after_ += "    result(" + std::to_string(calls_) + ", (int64_t)" + name + ", " +
                number(expected[i]) + ");\n";
    }
    return made + names + ")";
  }

  std::string call_text(const Call& call, const Answer& answer, const std::string& floats,
                        const std::string& ids, const std::string& more, const std::string& values,
                        const std::string& ints, const std::string& more_ints) {
    const std::string made = std::string(traits(call.function).name) + "(";
    const auto n = [&](std::size_t i) { return number(call.numbers[i]); };
    const auto int32 = [&](std::size_t i) { return "(int32_t)" + n(i); };
    const auto uint32 = [&](std::size_t i) { return "(uint32_t)" + n(i); };
    const auto out_ids = [&] { return output("out_ids", answer.ids, call, 6, !answer.end); };
    const auto out_floats = [&] {
      return output("out_floats", answer.floats, call, 7, !answer.end);
    };
    const auto out_values = [&] {
      return output("out_values", answer.values, call, 8, !answer.end);
    };
    const auto hits = [&] {
      const std::string written = out_ids();
      return ", " + written + ", " + out_floats() + ")";
    };
    switch (call.function) {
      case Function::kNew:
        return made + uint32(0) + ", " + uint32(1) + ")";
      case Function::kFreeNull:
        return made + "NULL)";
      case Function::kFormatVersion:
        return made + ")";
      case Function::kStats:
        return plain_numbers("uint32_t", answer.numbers, made + "index, ");
      case Function::kTunerDefaults:
        return plain_numbers("uint32_t", answer.numbers, made);
      case Function::kBuild:
        return made + "index, " + floats + ", " + n(0) + ", " + int32(1) + ", " + ids + ", " +
               more + ", " + ints + ", " + more_ints + ", " + int32(2) + ")";
      case Function::kExportBase:
      case Function::kExportVisible: {
        const std::string written = out_floats();
        return made + "index, " + written + ", " + out_ids() + ")";
      }
      case Function::kSearchFull:
        return made + "index, " + floats + ", " + int32(0) + hits();
      case Function::kSearchPartition:
      case Function::kSearchIvf:
        return made + "index, " + n(0) + ", " + floats + ", " + int32(1) + hits();
      case Function::kScatterTopk:
        return made + "index, " + ids + ", " + int32(0) + ", " + floats + ", " + int32(1) + hits();
      case Function::kSearchMvcc:
        return made + "index, " + ids + ", " + int32(0) + ", " + floats + ", " + uint32(1) + hits();
      case Function::kSearchFiltered:
        return made + "index, " + uint32(0) + ", " + int32(1) + ", " + n(2) + ", " + floats + ", " +
               uint32(3) + hits();
      case Function::kTunerOversized: {
        const std::string written = out_ids();
        return made + "index, " + int32(0) + ", " + written + ", " + out_values() + ")";
      }
      case Function::kInsert:
        return made + "index, " + floats + ", " + ids + ", " + int32(0) + ")";
      case Function::kDelete:
        return made + "index, " + ids + ", " + int32(0) + ")";
      case Function::kSetIvf:
        return made + "index, " + n(0) + ", " + int32(1) + ", " + int32(2) + ", " + floats + ", " +
               ids + ", " + ints + ", " + int32(3) + ")";
      case Function::kHasIvf:
        return made + "index, " + n(0) + ")";
      case Function::kSetIvfNprobe:
        return made + "index, " + n(0) + ", " + int32(1) + ")";
      case Function::kSetRowmeta:
        return made + "index, " + ids + ", " + more + ", " + values + ", " + int32(0) + ", " +
               int32(1) + ")";
      case Function::kExportRowmeta: {
        const std::string written = out_ids();
        return made + "index, " + ids + ", " + uint32(0) + ", " + written + ", " + out_values() +
               ")";
      }
      case Function::kMatchIds:
        return made + "index, " + uint32(0) + ", " + int32(1) + ", " + n(2) + ", " + out_ids() +
               ")";
      case Function::kVisibleIds:
        return made + "index, " + out_ids() + ")";
      default:
        return made + "index)";
    }
  }

  std::string text_;
  std::string before_;
  std::string after_;
  int array_ = 0;
  int calls_ = 0;
  Model model_{0, 0};
};

}  // namespace

std::string replay_source(const Life& life, const std::string& comment) {
  return Writer(life, comment).text();
}

}  // namespace qx_test
