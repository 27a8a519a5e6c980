#include "files/format.h"

#include <xxhash.h>

#include <limits>

namespace qx::collection {
namespace {

constexpr std::string_view kMagic("\x89QXC\r\n\x1A\n", 8);
constexpr std::uint64_t kVersion = 1;

// A header is numbers of eight bytes, and names.
void append_number(std::string& bytes, std::uint64_t number) {
  turn_order(&number, sizeof(number), sizeof(number));
  bytes.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

class Words {
 public:
  explicit Words(std::string_view bytes) : bytes_(bytes) {}

  std::string_view text(std::uint64_t size) {
    if (size > bytes_.size()) refuse_file("its header is too short");
    const std::string_view text = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return text;
  }
  std::uint64_t number(const char* what, std::uint64_t least, std::uint64_t most) {
    std::uint64_t number;
    text(sizeof(number)).copy(reinterpret_cast<char*>(&number), sizeof(number));
    turn_order(&number, sizeof(number), sizeof(number));
    if (number < least || number > most) {
      refuse_file(what + (" is " + std::to_string(number)) + ", expected " + std::to_string(least) +
                  " to " + std::to_string(most));
    }
    return number;
  }
  bool is_empty() const { return bytes_.empty(); }

 private:
  std::string_view bytes_;
};

ColumnHeader decode_column(Words& words, std::uint64_t rows, std::uint64_t file_bytes) {
  ColumnHeader column{};
  column.schema.type = static_cast<ColumnType>(words.number("the type of a column", 0, 3));
  column.known =
      static_cast<Known>(words.number("what is known of a column", 0, rows == 0 ? 0 : 2));
  const bool has_texts = column.schema.type == ColumnType::kText && column.known != Known::kNone;
  column.texts = words.number("the number of texts", has_texts ? 1 : 0, has_texts ? rows : 0);
  column.text_bytes = words.number("the size of texts", 0, has_texts ? file_bytes : 0);
  column.schema.name = words.text(words.number("the size of a name", 1, file_bytes));
  if (column.schema.name.find('\0') != std::string::npos) refuse_file("a name has a zero byte");
  return column;
}

// By the rules of make_schema().
void check_schema(const std::vector<ColumnHeader>& columns) {
  std::vector<QxColumn> schema;
  schema.reserve(columns.size());
  for (const auto& [column, known, texts, bytes] : columns) {
    schema.push_back({column.name.c_str(), static_cast<std::int32_t>(column.type)});
  }
  make_schema(schema.data(), static_cast<std::int32_t>(schema.size()));
}

}  // namespace

std::string encode(const Header& header) {
  std::string numbers;
  append_number(numbers, static_cast<std::uint64_t>(header.dim));
  append_number(numbers, header.has_texts ? 1 : 0);
  append_number(numbers, static_cast<std::uint64_t>(header.metric));
  append_number(numbers, static_cast<std::uint64_t>(header.rows));
  append_number(numbers, header.id_bytes);
  append_number(numbers, static_cast<std::uint64_t>(header.lists));
  append_number(numbers, header.columns.size());
  for (const ColumnHeader& column : header.columns) {
    append_number(numbers, static_cast<std::uint64_t>(column.schema.type));
    append_number(numbers, static_cast<std::uint64_t>(column.known));
    append_number(numbers, column.texts);
    append_number(numbers, column.text_bytes);
    append_number(numbers, column.schema.name.size());
    numbers += column.schema.name;
  }
  std::string encoded(kMagic);
  append_number(encoded, kVersion);
  append_number(encoded, kPrefixBytes + numbers.size() + kDigestBytes);
  encoded += numbers;
  append_number(encoded, digest_of(encoded.data(), encoded.size(), 0));
  return encoded;
}

std::size_t header_bytes_of(std::string_view prefix, std::uint64_t file_bytes) {
  if (prefix.substr(0, kMagic.size()) != kMagic) refuse_file("it is no file of a collection");
  if (prefix.size() < kPrefixBytes) refuse_file("it ends too soon");
  Words words(prefix.substr(kMagic.size()));
  words.number("its version of the format", kVersion, kVersion);
  const std::uint64_t bytes =
      words.number("the size of its header", kPrefixBytes + kDigestBytes, kMostHeaderBytes);
  if (bytes > file_bytes) refuse_file("it ends too soon");
  return bytes;
}

Header decode(std::string_view encoded, std::uint64_t file_bytes) {
  constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();
  const std::size_t end = encoded.size() - kDigestBytes;
  if (Words(encoded.substr(end)).number("", 0, kAny) != digest_of(encoded.data(), end, 0)) {
    refuse_file("its header is damaged");
  }
  Words words(encoded.substr(kPrefixBytes, end - kPrefixBytes));
  Header header{};
  header.dim = static_cast<std::int32_t>(words.number("dim", 1, 65536));
  header.has_texts = words.number("the kind of ids", 0, 1) == 1;
  header.metric = static_cast<Metric>(words.number("the metric", 0, 2));
  const std::uint64_t rows = words.number("the number of rows", 0, 0xFFFFFFFF);
  header.rows = static_cast<std::int64_t>(rows);
  const bool has_id_bytes = header.has_texts && rows > 0;
  header.id_bytes = words.number("the size of ids", 0, has_id_bytes ? file_bytes : 0);
  header.lists =
      static_cast<std::int64_t>(words.number("the number of lists", 0, rows == 0 ? 0 : 65536));
  for (std::uint64_t left = words.number("the number of columns", 0, 1000); left > 0; --left) {
    header.columns.push_back(decode_column(words, rows, file_bytes));
  }
  if (!words.is_empty()) refuse_file("its header is too long");
  check_schema(header.columns);
  return header;
}

std::uint64_t digest_of(const void* data, std::size_t bytes, std::uint64_t offset) {
  return XXH3_64bits_withSeed(data, bytes, offset);
}

}  // namespace qx::collection
