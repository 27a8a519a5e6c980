// The two ways in which the engine ends the process. There is no error return for either: one line
// goes to standard error, whole and before the trap, and nothing of the process is touched after.
#pragma once

#include <cstdint>
#if !__has_builtin(__builtin_COLUMN)
#include <source_location>
#endif

namespace qx {

// A line and a column of the engine's own source.
struct SourcePlace {
  std::uint32_t line;
  std::uint32_t column;

  // The place of the call.
#if __has_builtin(__builtin_COLUMN)
  static constexpr SourcePlace here(std::uint32_t line = __builtin_LINE(),
                                    std::uint32_t column = __builtin_COLUMN()) {
    return {line, column};
  }
#else
  static constexpr SourcePlace here(std::source_location call = std::source_location::current()) {
    return {call.line(), call.column()};
  }
#endif
};

// Memory could not be had. `file` is the allocator's source file, `place` the place in it.
[[noreturn]] void abort_allocation(const char* file, SourcePlace place);

// `index` was used on an array of `length` elements that it does not name an element of.
[[noreturn]] void abort_index(std::int64_t index, std::int64_t length, SourcePlace place);

}  // namespace qx
