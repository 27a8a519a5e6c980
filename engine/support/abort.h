// The two ways in which the engine ends the process. There is no error return for either: one line
// goes to standard error, whole and before the trap, and nothing of the process is touched after.
#pragma once

#include <cstdint>
#if !__has_builtin(__builtin_COLUMN)
#include <source_location>
#endif

namespace qx {

// A line and a column of the engine's own source.
struct SourceLocation {
  std::uint32_t line;
  std::uint32_t column;

  // Of the call.
#if __has_builtin(__builtin_COLUMN)
  static constexpr SourceLocation current(std::uint32_t line = __builtin_LINE(),
                                          std::uint32_t column = __builtin_COLUMN()) {
    return {line, column};
  }
#else
  static constexpr SourceLocation current(
      std::source_location call = std::source_location::current()) {
    return {call.line(), call.column()};
  }
#endif
};

// Memory cannot be allocated. `file` is the allocator's source file, `location` is in it.
[[noreturn]] void abort_allocation(const char* file, SourceLocation location);

// `index` was used on an array of `length` elements and is not one of them.
[[noreturn]] void abort_index(std::int64_t index, std::int64_t length, SourceLocation location);

// States a precondition or an invariant. Compiled in debug and sanitizer builds alone: what a host
// can cause is never an assertion.
#if defined(QX_ASSERTIONS)
[[noreturn]] void abort_assertion(const char* condition, const char* file, int line);
#define QX_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : qx::abort_assertion(#condition, __FILE__, __LINE__))
#else
#define QX_ASSERT(condition) static_cast<void>(0)
#endif

}  // namespace qx
