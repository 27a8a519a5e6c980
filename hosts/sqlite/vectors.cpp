#include "vectors.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace qx_sqlite {
namespace {

std::uint32_t little_endian(std::uint32_t bits) {
  if constexpr (std::endian::native == std::endian::little) return bits;
  return bits >> 24 | (bits >> 8 & 0xFF00) | (bits << 8 & 0xFF0000) | bits << 24;
}

bool is_space(char letter) {
  return letter == ' ' || letter == '\t' || letter == '\n' || letter == '\r';
}

Floats floats_of_json(std::string_view text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  const auto skip_spaces = [&] {
    while (at != end && is_space(*at)) ++at;
  };
  const auto fail = [&] {
    require(false, "a vector is not a JSON array of numbers at character ",
            std::int64_t{at - text.data()});
  };
  const auto take = [&](char letter) {
    skip_spaces();
    if (at == end || *at != letter) return false;
    ++at;
    return true;
  };
  Floats floats;
  if (!take('[')) fail();
  if (!take(']')) {
    do {
      skip_spaces();
      float number = 0;
      const auto [rest, error] = std::from_chars(at, end, number);
      require(error != std::errc::result_out_of_range, "element ", floats.size(),
              " of a vector is beyond the range of 32-bit floats");
      if (error != std::errc() || !std::isfinite(number)) fail();
      at = rest;
      floats.push_back(number);
    } while (take(','));
    if (!take(']')) fail();
  }
  skip_spaces();
  if (at != end) fail();
  return floats;
}

Floats floats_of_value(sqlite3_value* value) {
  const int type = sqlite3_value_type(value);
  require(type == SQLITE_BLOB || type == SQLITE_TEXT,
          "a vector is a BLOB of 32-bit floats or a JSON array");
  return type == SQLITE_BLOB ? floats_of(blob_of(value)) : floats_of_json(text_of(value));
}

std::string json_of(const Floats& floats) {
  std::string text = "[";
  char digits[32];
  for (const float number : floats) {
    if (text.size() > 1) text += ',';
    text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
  }
  return text + ']';
}

// Calls give(floats) with the vector of an argument; an error becomes that of the SQL function.
template <typename Give>
void answer(sqlite3_context* context, sqlite3_value* argument, Give give) {
  if (sqlite3_value_type(argument) == SQLITE_NULL) return;
  const int code = guarded([&] { give(floats_of_value(argument)); },
                           [&](const char* text) { sqlite3_result_error(context, text, -1); });
  if (code == SQLITE_NOMEM) sqlite3_result_error_nomem(context);
}

void to_f32(sqlite3_context* context, int, sqlite3_value** arguments) {
  answer(context, arguments[0], [&](const Floats& floats) {
    const std::vector<std::byte> bytes = bytes_of(floats);
    sqlite3_result_blob64(context, bytes.empty() ? "" : static_cast<const void*>(bytes.data()),
                          bytes.size(), SQLITE_TRANSIENT);
  });
}

void to_json(sqlite3_context* context, int, sqlite3_value** arguments) {
  answer(context, arguments[0], [&](const Floats& floats) {
    const std::string text = json_of(floats);
    sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  });
}

}  // namespace

void append_floats(std::span<const std::byte> bytes, Floats* floats) {
  require(bytes.size() % sizeof(float) == 0, "a BLOB of ", bytes.size(),
          " bytes is no vector of 32-bit floats");
  const std::size_t before = floats->size();
  floats->resize(before + bytes.size() / sizeof(float));
  const std::span<float> added = std::span(*floats).subspan(before);
  for (std::size_t i = 0; i < added.size(); ++i) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, bytes.data() + i * sizeof bits, sizeof bits);
    added[i] = std::bit_cast<float>(little_endian(bits));
    require(std::isfinite(added[i]), "element ", i, " of a vector is not a finite number");
  }
}

Floats floats_of(std::span<const std::byte> bytes) {
  Floats floats;
  append_floats(bytes, &floats);
  return floats;
}

Floats vector_of(sqlite3_value* value, std::int64_t dim, const std::string& name) {
  Floats floats = floats_of_value(value);
  require(std::ssize(floats) == dim, "a vector of ", floats.size(), " numbers for the column ",
          name, ", which has ", dim);
  return floats;
}

std::vector<std::byte> bytes_of(std::span<const float> floats) {
  std::vector<std::byte> bytes(floats.size_bytes());
  for (std::size_t i = 0; i < floats.size(); ++i) {
    const std::uint32_t bits = little_endian(std::bit_cast<std::uint32_t>(floats[i]));
    std::memcpy(bytes.data() + i * sizeof bits, &bits, sizeof bits);
  }
  return bytes;
}

void register_vector_functions(sqlite3* database) {
  constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  const auto add = [&](const char* name, void (*function)(sqlite3_context*, int, sqlite3_value**)) {
    const int result = sqlite3_create_function_v2(database, name, 1, kFlags, nullptr, function,
                                                  nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) throw SqlError(result, sqlite3_errmsg(database));
  };
  add("qx_f32", to_f32);
  add("qx_json", to_json);
}

}  // namespace qx_sqlite
