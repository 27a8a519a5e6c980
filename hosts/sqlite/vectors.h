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

// Between the order of bytes of this machine and that of a file, little-endian.
void turn_order(std::span<float> floats);

// Throws where a number is not finite.
void require_finite(std::span<const float> floats);

// The floats of a BLOB or of a JSON text. Throws where they are not `dim`, or not finite numbers.
Floats vector_of(sqlite3_value* value, std::int64_t dim, const std::string& name);

// qx_f32(vector) gives the BLOB of a vector, qx_json(vector) its JSON text; qx_f16(blob) and
// qx_int8(blob) give the BLOB of 32-bit floats of one of 16-bit floats, or of bytes with a sign.
void register_vector_functions(sqlite3* database);

}  // namespace qx_sqlite
