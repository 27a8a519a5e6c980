#include "call_sequences/replay.h"

#include <array>
#include <bit>
#include <cstdio>
#include <sstream>

namespace qx_test {
namespace {

// The beginning of every replay.
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

/* Compares a block, and the bytes around it. */
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

// For calls that must end the process.
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

// The C arguments of each function, in the order of the enumeration: arrays by their names, scalars
// by their types and indices in `numbers`. Without blanks.
constexpr std::array<const char*, 31> kArguments = {
    "uint32:0,uint32:1",                                                  // new
    "index",                                                              // free
    "NULL",                                                               // free
    "index,&uint64:0,&uint32:1,&uint32:2,&int32:3",                       // stats
    "index",                                                              // snapshot
    "index",                                                              // mutated
    "index",                                                              // sealed
    "index",                                                              // delta_count
    "",                                                                   // format_version
    "index,floats,int64:0,int32:1,ids,more_ids,ints,more_ints,int32:2",   // build
    "index,out_floats,out_ids",                                           // export_base
    "index,floats,int32:0,out_ids,out_floats",                            // search_full
    "index,int64:0,floats,int32:1,out_ids,out_floats",                    // search_partition
    "index,ids,int32:0,floats,int32:1,out_ids,out_floats",                // scatter_topk
    "&uint32:0,&uint32:1",                                                // tuner_defaults
    "index,int32:0,out_ids,out_values",                                   // tuner_oversized
    "index,floats,ids,int32:0",                                           // insert
    "index,ids,int32:0",                                                  // delete
    "index,int64:0,int32:1,int32:2,floats,ids,ints,int32:3",              // set_ivf
    "index,int64:0",                                                      // has_ivf
    "index",                                                              // clear_ivf
    "index,int64:0,int32:1",                                              // set_ivf_nprobe
    "index,int64:0,floats,int32:1,out_ids,out_floats",                    // search_ivf
    "index,ids,int32:0,floats,uint32:1,out_ids,out_floats",               // search_mvcc
    "index,ids,more_ids,values,int32:0,int32:1",                          // set_rowmeta
    "index,ids,uint32:0,out_ids,out_values",                              // export_rowmeta
    "index,uint32:0,int32:1,int64:2,floats,uint32:3,out_ids,out_floats",  // search_filtered
    "index,uint32:0,int32:1,int64:2,out_ids",                             // match_ids
    "index,out_ids",                                                      // visible_ids
    "index",                                                              // visible_count
    "index,out_floats,out_ids",                                           // export_visible
};

class Writer {
 public:
  Writer(const CallSequence& sequence, const std::string& comment)
      : text_("/*\n" + comment + " */\n" + kFrame) {
    std::string body;
    bool ends = false;
    for (const Call& call : sequence) {
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
    const std::string at = std::to_string(++calls_);
    const std::string arguments = call_text(call, answer);
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

  std::string call_text(const Call& call, const Answer& answer) {
    const auto function = static_cast<std::size_t>(call.function);
    std::istringstream words(kArguments.at(function));
    std::string made;
    for (std::string word; std::getline(words, word, ',');) {
      made += (made.empty() ? "" : ", ") + argument(word, call, answer);
    }
    return std::string(traits(call.function).name) + "(" + made + ")";
  }

  // The argument that a word of kArguments stands for.
  std::string argument(const std::string& word, const Call& call, const Answer& answer) {
    if (word == "floats") return input(word, "const float*", 0, call.floats, call);
    if (word == "ids") return input(word, "const int64_t*", 1, call.ids, call);
    if (word == "more_ids") return input(word, "const int64_t*", 2, call.more_ids, call);
    if (word == "values") return input(word, "const int64_t*", 3, call.values, call);
    if (word == "ints") return input(word, "const int32_t*", 4, call.ints, call);
    if (word == "more_ints") return input(word, "const int32_t*", 5, call.more_ints, call);
    if (word == "out_ids") return output(word, "int64_t*", 6, answer.ids, call, answer);
    if (word == "out_floats") return output(word, "float*", 7, answer.floats, call, answer);
    if (word == "out_values") return output(word, "int64_t*", 8, answer.values, call, answer);
    const std::size_t colon = word.find(':');
    if (colon == std::string::npos) return word;
    const std::string type = word.substr(0, colon) + "_t";
    const std::size_t i = std::stoul(word.substr(colon + 1));
    if (type[0] == '&') return output_number(type.substr(1), i, answer);
    return "(" + type + ")" + number(call.numbers.at(i));
  }

  static bool at_start(const Call& call, int array) { return (call.starts >> array & 1) != 0; }

  template <typename T>
  std::string input(const std::string& name, const char* type, int array,
                    const std::vector<T>& values, const Call& call) {
    before_ += constant(name + "_", values);
    before_ += "    const Block " + name + " = input(" + name + "_, " +
               std::to_string(values.size() * sizeof(T)) + ", " +
               (at_start(call, array) ? "1" : "0") + ");\n";
    after_ += "    same(" + std::to_string(calls_) + ", " + name + ", " + name +
              "_, \"an input was changed\");\n";
    return std::string("(") + type + ")" + name + ".data";
  }

  template <typename T>
  std::string output(const std::string& name, const char* type, int array,
                     const std::vector<T>& after, const Call& call, const Answer& answer) {
    before_ += "    const Block " + name + " = block(" + std::to_string(after.size() * sizeof(T)) +
               ", " + (at_start(call, array) ? "1" : "0") + ");\n";
    if (!answer.end) {
      before_ += constant(name + "_", after);
      after_ += "    same(" + std::to_string(calls_) + ", " + name + ", " + name + "_, \"other " +
                name.substr(4) + "\");\n";
    }
    return std::string("(") + type + ")" + name + ".data";
  }

  std::string output_number(const std::string& type, std::size_t i, const Answer& answer) {
    const std::string name = "number" + std::to_string(i);
    before_ += "    " + type + " " + name + " = 1;\n";
    after_ += "    result(" + std::to_string(calls_) + ", (int64_t)" + name + ", " +
              number(answer.numbers.at(i)) + ");\n";
    return "&" + name;
  }

  std::string text_;
  std::string before_;
  std::string after_;
  int calls_ = 0;
  Model model_{0, 0};
};

}  // namespace

std::string replay_source(const CallSequence& sequence, const std::string& comment) {
  return Writer(sequence, comment).text();
}

}  // namespace qx_test
