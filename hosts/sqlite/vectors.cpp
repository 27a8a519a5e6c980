#include "vectors.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace qx_sqlite {
namespace {

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
      if (error == std::errc::result_out_of_range) {
        number = static_cast<float>(std::strtod(std::string(at, rest).c_str(), nullptr));
        require(std::isfinite(number), "element ", floats.size(),
                " of a vector is beyond the range of 32-bit floats");
      } else if (error != std::errc() || !std::isfinite(number)) {
        fail();
      }
      at = rest;
      floats.push_back(number);
    } while (take(','));
    if (!take(']')) fail();
  }
  skip_spaces();
  if (at != end) fail();
  return floats;
}

Floats floats_of_blob(std::span<const std::byte> bytes) {
  require(bytes.size() % sizeof(float) == 0, "a BLOB of ", bytes.size(),
          " bytes is no vector of 32-bit floats");
  Floats floats(bytes.size() / sizeof(float));
  if (!floats.empty()) std::memcpy(floats.data(), bytes.data(), bytes.size());
  turn_order(floats);
  require_finite(floats);
  return floats;
}

Floats floats_of_value(sqlite3_value* value) {
  const int type = sqlite3_value_type(value);
  require(type != SQLITE_NULL, "a vector is NULL");
  require(type == SQLITE_BLOB || type == SQLITE_TEXT,
          "a vector is a BLOB of 32-bit floats or a JSON array");
  return type == SQLITE_BLOB ? floats_of_blob(blob_of(value)) : floats_of_json(text_of(value));
}

// Of a 16-bit float: subnormal numbers are multiples of 2^-24.
float half(std::uint32_t bits) {
  const int exponent = static_cast<int>(bits >> 10 & 31);
  const auto fraction = static_cast<float>(bits & 1023);
  const float size = exponent == 31  ? std::numeric_limits<float>::infinity()
                     : exponent == 0 ? std::ldexp(fraction, -24)
                                     : std::ldexp(fraction + 1024, exponent - 25);
  return (bits & 0x8000) != 0 ? -size : size;
}

Floats floats_of_halves(sqlite3_value* value) {
  require(sqlite3_value_type(value) == SQLITE_BLOB, "16-bit floats are a BLOB");
  const auto bytes = blob_of(value);
  require(bytes.size() % 2 == 0, "a BLOB of ", bytes.size(),
          " bytes is no vector of 16-bit floats");
  Floats floats;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    floats.push_back(half(std::to_integer<std::uint32_t>(bytes[i]) |
                          std::to_integer<std::uint32_t>(bytes[i + 1]) << 8));
  }
  require_finite(floats);
  return floats;
}

Floats floats_of_int8(sqlite3_value* value) {
  require(sqlite3_value_type(value) == SQLITE_BLOB, "bytes with a sign are a BLOB");
  Floats floats;
  for (const std::byte byte : blob_of(value)) {
    floats.push_back(static_cast<float>(static_cast<std::int8_t>(byte)));
  }
  return floats;
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

// An SQL function: the floats that read(argument) gives, as a BLOB or as a JSON text.
template <Floats (*read)(sqlite3_value*), bool as_json>
void convert(sqlite3_context* context, int, sqlite3_value** arguments) {
  if (sqlite3_value_type(arguments[0]) == SQLITE_NULL) return;
  const auto give = [&] {
    Floats floats = read(arguments[0]);
    if constexpr (as_json) {
      const std::string text = json_of(floats);
      sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    } else {
      turn_order(floats);
      sqlite3_result_blob64(context, floats.empty() ? "" : static_cast<const void*>(floats.data()),
                            floats.size() * sizeof(float), SQLITE_TRANSIENT);
    }
  };
  const int code =
      guarded(give, [&](const char* text) { sqlite3_result_error(context, text, -1); });
  if (code == SQLITE_NOMEM) sqlite3_result_error_nomem(context);
}

}  // namespace

void turn_order(std::span<float> floats) {
  if constexpr (std::endian::native == std::endian::little) return;
  for (float& number : floats) {
    const auto bits = std::bit_cast<std::uint32_t>(number);
    number = std::bit_cast<float>(bits >> 24 | (bits >> 8 & 0xFF00) | (bits << 8 & 0xFF0000) |
                                  bits << 24);
  }
}

void require_finite(std::span<const float> floats) {
  for (std::size_t i = 0; i < floats.size(); ++i) {
    require(std::isfinite(floats[i]), "element ", i, " of a vector is not a finite number");
  }
}

Floats vector_of(sqlite3_value* value, std::int64_t dim, const std::string& name) {
  Floats floats = floats_of_value(value);
  require(std::ssize(floats) == dim, "a vector of ", floats.size(), " numbers for the column ",
          name, ", which has ", dim);
  return floats;
}

void register_vector_functions(sqlite3* database) {
  constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  const auto add = [&](const char* name, void (*function)(sqlite3_context*, int, sqlite3_value**)) {
    const int result = sqlite3_create_function_v2(database, name, 1, kFlags, nullptr, function,
                                                  nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) throw SqlError(result, sqlite3_errmsg(database));
  };
  add("qx_f32", convert<floats_of_value, false>);
  add("qx_json", convert<floats_of_value, true>);
  add("qx_f16", convert<floats_of_halves, false>);
  add("qx_int8", convert<floats_of_int8, false>);
}

}  // namespace qx_sqlite
