// Prints a call sequence as a C program.
#include <bit>
#include <cstdio>
#include <sstream>

#include "call_sequences/call_sequence.h"

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

// The type of an element; floats are written as their bits.
template <typename T>
std::string type_name() {
  constexpr bool kSigned = std::is_signed_v<T> && !std::is_same_v<T, float>;
  return std::string(kSigned ? "int" : "uint") + std::to_string(8 * sizeof(T)) + "_t";
}

// A constant array; floats as their bits.
template <typename T>
std::string constant(const std::string& name, const std::vector<T>& values) {
  std::string text = std::string("    static const ") + type_name<T>() + " " + name + "[] = {";
  std::size_t column = text.size();
  if (values.empty()) text += "0";
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::string next = element(values[i]);
    const bool wraps = column + next.size() > 94;
    column = (wraps ? 8 : column + 2) + next.size();
    text += std::string(i == 0 ? "" : ",") + (wraps ? "\n        " : i == 0 ? "" : " ");
    text += next;
  }
  return text + "};\n";
}

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
    if (call.function == Function::kNew) return "    index = " + made + ";\n";
    if (call.function == Function::kFree || call.function == Function::kFreeNull) {
      return "    " + made + ";\n";
    }
    return result("(int64_t)" + made, answer.result);
  }

  std::string result(const std::string& got, std::int64_t expected) const {
    return std::string("    result(") + std::to_string(calls_) + ", " + got + ", " +
           number(expected) + ");\n";
  }

  std::string call_text(const Call& call, const Answer& answer) {
    std::string made;
    // cppcheck-suppress syntaxError ; it does not know lambdas that are templates
    const auto choose = [&]<typename Parameter>(std::size_t n) {
      constexpr Kind kKind = kind_of<Parameter>();
      made += made.empty() ? "" : ", ";
      if constexpr (kKind == Kind::kIndex) {
        made += call.function == Function::kFreeNull ? "NULL" : "index";
      } else if constexpr (kKind == Kind::kNumber) {
        made += std::string("(") + type_name<Parameter>() + ")" + number(call.numbers[n]);
      } else if constexpr (kKind == Kind::kOutNumber) {
        made += out_number(type_name<std::remove_pointer_t<Parameter>>(), n, answer);
      } else {
        made += array(array_number(kKind, n), call, answer);
      }
      return 0;
    };
    with_function(call.function, [&](auto typed) { arguments_of(typed, choose); });
    return std::string(traits(call.function).name) + "(" + made + ")";
  }

  // Declares array number `i`, and compares it with what it must be after the call.
  std::string array(std::size_t i, const Call& call, const Answer& answer) {
    std::string argument;
    std::size_t at = 0;
    const auto write = [&](const auto& values) {
      if (at++ == i) argument = array_of(i, values, call, answer);
    };
    std::apply([&](const auto&... each) { (write(each), ...); },
               std::tuple_cat(inputs_of(call), answer.outputs()));
    return argument;
  }

  template <typename T>
  std::string array_of(std::size_t i, const std::vector<T>& values, const Call& call,
                       const Answer& answer) {
    const bool is_input = i < kOutputs;
    const std::string name = kArrays[i];
    const std::string kept = name + "_";
    if (is_input || !answer.end) {
      before_ += constant(kept, values);
      after_ += "    same(" + std::to_string(calls_) + ", " + name + ", " + kept + ", \"" +
                (is_input ? "an input was changed" : "other " + name.substr(4)) + "\");\n";
    }
    before_ += "    const Block " + name + " = " + (is_input ? "input(" + kept + ", " : "block(") +
               std::to_string(values.size() * sizeof(T)) + ", " +
               ((call.starts >> i & 1) != 0 ? "1" : "0") + ");\n";
    return std::string("(") + (is_input ? "const " : "") +
           (std::is_same_v<T, float> ? "float" : type_name<T>()) + "*)" + name + ".data";
  }

  std::string out_number(const std::string& type, std::size_t i, const Answer& answer) {
    const std::string name = "number" + std::to_string(i);
    before_ += "    " + type + " " + name + " = 1;\n";
    after_ += result("(int64_t)" + name, answer.numbers.at(i));
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
