// SQLite's interface as this extension uses it: statements that clean up after themselves, and
// errors as exceptions, which never leave the extension.
#pragma once

#include <sqlite3ext.h>

#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

SQLITE_EXTENSION_INIT3

namespace qx_sqlite {

// The parts of a message, one after the other.
inline std::string text_of(std::string_view text) { return std::string(text); }
template <typename Number>
requires std::is_arithmetic_v<Number> std::string text_of(Number number) {
  return std::to_string(number);
}
template <typename... Parts>
std::string joined(const Parts&... parts) {
  return (std::string() + ... + text_of(parts));
}

// An SQL error: a result code of SQLite and the message that the user sees.
class SqlError : public std::runtime_error {
 public:
  SqlError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

template <typename... Parts>
void require(bool condition, const Parts&... parts) {
  if (!condition) throw SqlError(SQLITE_ERROR, joined(parts...));
}
// Of what stands in a table, and should not.
template <typename... Parts>
void require_intact(bool condition, const Parts&... parts) {
  if (!condition) throw SqlError(SQLITE_CORRUPT_VTAB, joined(parts...));
}

// Calls what may throw. Its error becomes a code of SQLite, and the text of one is given to `show`.
template <typename Function, typename Show>
int guarded(Function function, Show show) {
  try {
    if constexpr (std::is_void_v<decltype(function())>) {
      function();
      return SQLITE_OK;
    } else {
      return function();
    }
  } catch (const SqlError& error) {
    show(error.what());
    return error.code();
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const std::exception& error) {
    show(error.what());
    return SQLITE_ERROR;
  }
}

// The bytes of a value, valid until the value is converted or released.
inline std::span<const std::byte> blob_of(sqlite3_value* value) {
  const void* const bytes = sqlite3_value_blob(value);
  return {static_cast<const std::byte*>(bytes),
          static_cast<std::size_t>(sqlite3_value_bytes(value))};
}
inline std::string_view text_of(sqlite3_value* value) {
  const auto* const text = reinterpret_cast<const char*>(sqlite3_value_text(value));
  return {text == nullptr ? "" : text, static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

// A prepared statement, kept for many runs. Each run binds, steps and resets.
class Statement {
 public:
  Statement() = default;
  // Unless the flags say otherwise, of ordinary tables: what stands in a file must not call back.
  Statement(sqlite3* database, const std::string& sql,
            unsigned flags = SQLITE_PREPARE_PERSISTENT | SQLITE_PREPARE_NO_VTAB)
      : database_(database) {
    sqlite3_stmt* made = nullptr;
    check(sqlite3_prepare_v3(database, sql.c_str(), -1, flags, &made, nullptr));
    statement_.reset(made);
  }

  explicit operator bool() const { return statement_ != nullptr; }

  // Parameters count from 1.
  void bind(int at, std::string_view text) {
    check(sqlite3_bind_text64(statement_.get(), at, text.data(), text.size(), SQLITE_TRANSIENT,
                              SQLITE_UTF8));
  }
  void bind(int at, std::span<const std::byte> bytes) {
    check(sqlite3_bind_blob64(statement_.get(), at, bytes.empty() ? kNoBytes : bytes.data(),
                              bytes.size(), SQLITE_TRANSIENT));
  }
  void bind(int at, sqlite3_value* value) {
    check(sqlite3_bind_value(statement_.get(), at, value));
  }
  void bind(int at, std::optional<std::int64_t> number) {
    check(number ? sqlite3_bind_int64(statement_.get(), at, *number)
                 : sqlite3_bind_null(statement_.get(), at));
  }
  // The bytes stay until the next binding.
  void bind_static(int at, std::span<const std::byte> bytes) {
    check(sqlite3_bind_blob64(statement_.get(), at, bytes.data(), bytes.size(), SQLITE_STATIC));
  }

  // Whether there is a row.
  bool step() {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW) return true;
    if (result == SQLITE_DONE) return false;
    const int code = sqlite3_extended_errcode(database_);
    const std::string message = sqlite3_errmsg(database_);
    sqlite3_reset(statement_.get());
    throw SqlError(code, message);
  }
  void reset() {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
  }
  // Binds all parameters, calls read(*this) on each row, and resets, however that ends.
  template <typename Read, typename... Values>
  void each(Read read, Values... values) {
    const std::unique_ptr<Statement, Reset> running(this);
    int at = 0;
    (bind(++at, values), ...);
    while (step()) read(*this);
  }
  // For statements that give no rows.
  template <typename... Values>
  void run(Values... values) {
    each([](const Statement&) {}, values...);
  }
  // Of the only row the first column, where it is an integer.
  template <typename... Values>
  std::optional<std::int64_t> number(Values... values) {
    std::optional<std::int64_t> found;
    const auto read = [&](const Statement& row) {
      if (row.type(0) == SQLITE_INTEGER) found = row.integer(0);
    };
    each(read, values...);
    return found;
  }

  // Columns count from 0.
  int type(int column) const { return sqlite3_column_type(statement_.get(), column); }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  std::string_view text(int column) const {
    const auto* const text = sqlite3_column_text(statement_.get(), column);
    return {text == nullptr ? "" : reinterpret_cast<const char*>(text),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
  }
  std::span<const std::byte> blob(int column) const {
    const void* const bytes = sqlite3_column_blob(statement_.get(), column);
    return {static_cast<const std::byte*>(bytes),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
  }
  sqlite3_value* value(int column) const { return sqlite3_column_value(statement_.get(), column); }

 private:
  struct Reset {
    void operator()(Statement* statement) const { statement->reset(); }
  };
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  void check(int result) const {
    if (result == SQLITE_OK) return;
    throw SqlError(sqlite3_extended_errcode(database_), sqlite3_errmsg(database_));
  }

  // An empty BLOB has an address, too: null would be an SQL null.
  static constexpr std::byte kNoBytes[1] = {};

  sqlite3* database_ = nullptr;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

inline void execute(sqlite3* database, const std::string& sql) { Statement(database, sql).run(); }

// A name, as SQL takes it.
inline std::string quoted(std::string_view name) {
  std::string text = "\"";
  for (const char letter : name) {
    if (letter == '"') text += '"';
    text += letter;
  }
  return text + '"';
}

}  // namespace qx_sqlite
