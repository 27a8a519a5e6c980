// Vectors as SQL has them: little-endian 32-bit floats in a BLOB, or a JSON array of numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "database.h"

namespace qx_sqlite {

using Floats = std::vector<float>;

// The floats of a BLOB. Throws where its length is not a multiple of 4, or a number is not finite.
Floats floats_of(std::span<const std::byte> bytes);
// Adds them to others. What is thrown may leave some of them there.
void append_floats(std::span<const std::byte> bytes, Floats* floats);

// The floats of a BLOB or of a JSON text. Throws where they are not `dim`, or not finite numbers.
Floats vector_of(sqlite3_value* value, std::int64_t dim, const std::string& name);

std::vector<std::byte> bytes_of(std::span<const float> floats);

// qx_f32(vector) gives the BLOB of a vector, qx_json(vector) its JSON text.
void register_vector_functions(sqlite3* database);

}  // namespace qx_sqlite
