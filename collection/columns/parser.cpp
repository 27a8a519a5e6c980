// From the text of a filter to its tree, by recursive descent; predicate.h has the grammar.
#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>
#include <utility>

#include "columns/filter_tree.h"

namespace qx::collection {
namespace {

using Kind = FilterNode::Kind;
using Test = Condition::Test;

constexpr int kDeepest = 200;
constexpr std::size_t kLongestQuote = 40;

constexpr std::string_view kReserved[] = {"AND",  "OR",      "NOT",  "IN",   "IS",
                                          "NULL", "BETWEEN", "TRUE", "FALSE"};

// The range of an operator's values, by its ends, which are at the literal.
struct Operator {
  std::string_view name;
  bool negated;
  Side low, high;
};
constexpr Operator kOperators[] = {
    {"=", false, Side::kBefore, Side::kAfter}, {"<>", true, Side::kBefore, Side::kAfter},
    {"!=", true, Side::kBefore, Side::kAfter}, {"<", false, Side::kOpen, Side::kBefore},
    {"<=", false, Side::kOpen, Side::kAfter},  {">", false, Side::kAfter, Side::kOpen},
    {">=", false, Side::kBefore, Side::kOpen},
};

// What is to be compared with a column, by its type.
constexpr const char* kLiterals[] = {"a number of 64 bits", "a number of 64 bits", "TRUE or FALSE",
                                     "a text in single quotes"};

bool is_digit(char c) { return '0' <= c && c <= '9'; }
bool is_sign(char c) { return c == '+' || c == '-'; }
bool is_space(char c) { return c == ' ' || ('\t' <= c && c <= '\r'); }
char upper(char c) { return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
bool is_letter(char c) {
  return ('A' <= upper(c) && upper(c) <= 'Z') || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

struct Token {
  // kUnknown begins as a number, kUnclosed as quoted bytes.
  enum class Type { kEnd, kWord, kName, kText, kInteger, kReal, kSymbol, kUnknown, kUnclosed };
  Type type;
  std::size_t begin;
  std::string_view text;

  bool is(std::string_view word_or_symbol) const {
    return (type == Type::kWord || type == Type::kSymbol) &&
           std::ranges::equal(text, word_or_symbol, {}, upper);
  }
};
using Type = Token::Type;

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  Token next() {
    while (is_space(at(0))) ++at_;
    const std::size_t begin = at_;
    const Type type = scan();
    return {type, begin, text_.substr(begin, at_ - begin)};
  }

 private:
  char at(std::size_t ahead) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : 0; }

  Type scan() {
    if (at_ == text_.size()) return Type::kEnd;
    if (at(0) == '\'') return scan_quoted('\'') ? Type::kText : Type::kUnclosed;
    if (at(0) == '"') return scan_quoted('"') ? Type::kName : Type::kUnclosed;
    if (is_letter(at(0))) return scan_word(Type::kWord);
    const std::size_t sign = is_sign(at(0)) ? 1 : 0;
    if (is_digit(at(sign)) || (at(sign) == '.' && is_digit(at(sign + 1)))) return scan_number(sign);
    const std::string_view two = text_.substr(at_, 2);
    at_ += two == "<>" || two == "!=" || two == "<=" || two == ">=" ? 2 : 1;
    return Type::kSymbol;
  }

  // To the next mark that is not doubled.
  bool scan_quoted(char mark) {
    do {
      at_ = text_.find(mark, at_ + 1);
      if (at_ == text_.npos) {
        at_ = text_.size();
        return false;
      }
      ++at_;
    } while (at(0) == mark);
    return true;
  }

  Type scan_word(Type type) {
    while (is_letter(at(0)) || is_digit(at(0))) ++at_;
    return type;
  }

  void scan_digits() {
    while (is_digit(at(0))) ++at_;
  }

  Type scan_number(std::size_t sign) {
    Type type = Type::kInteger;
    at_ += sign;
    scan_digits();
    if (at(0) == '.') {
      type = Type::kReal;
      ++at_;
      scan_digits();
    }
    const std::size_t exponent = is_sign(at(1)) ? 2 : 1;
    if (upper(at(0)) == 'E' && is_digit(at(exponent))) {
      type = Type::kReal;
      at_ += exponent;
      scan_digits();
    }
    return is_letter(at(0)) ? scan_word(Type::kUnknown) : type;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

// The bytes between the marks, each doubled one once.
std::string unquoted(std::string_view text) {
  std::string bytes;
  for (std::size_t i = 1; i + 1 < text.size(); ++i) {
    bytes.push_back(text[i]);
    if (text[i] == text[0]) ++i;
  }
  return bytes;
}

// What an error says was found, cut before a byte that begins a character.
std::string quote(const Token& token) {
  if (token.type == Type::kEnd) return "the end";
  if (token.text.size() <= kLongestQuote) return std::string(token.text);
  std::size_t size = kLongestQuote;
  while (size > 0 && (static_cast<unsigned char>(token.text[size]) & 0xC0) == 0x80) --size;
  return std::string(token.text.substr(0, size)) + "...";
}

template <typename Number>
bool read_number(std::string_view text, Literal& literal) {
  Number number{};
  const char* begin = text.data() + (text[0] == '+' ? 1 : 0);
  const bool fits = std::from_chars(begin, text.data() + text.size(), number).ec == std::errc();
  literal = number;
  return fits;
}

class Parser {
 public:
  Parser(std::string_view text, const Schema& schema)
      : schema_(schema), lexer_(text), token_(lexer_.next()) {}

  FilterNode parse() {
    FilterNode filter = parse_filter(false);
    if (token_.type != Type::kEnd) refuse_token("AND, OR or the end");
    return filter;
  }

 private:
  [[noreturn]] void refuse_token(const std::string& expected) const {
    refuse("filter, byte " + std::to_string(token_.begin) + ": found " + quote(token_) +
           ", expected " + (token_.type == Type::kUnclosed ? "its closing quote" : expected));
  }

  void advance() { token_ = lexer_.next(); }

  bool accept(std::string_view word_or_symbol) {
    if (!token_.is(word_or_symbol)) return false;
    advance();
    return true;
  }

  void expect(std::string_view word_or_symbol, const char* expected) {
    if (!accept(word_or_symbol)) refuse_token(expected);
  }

  // One part, or several with the word between them.
  template <typename Part>
  FilterNode parse_chain(std::string_view word, Kind kind, Part part) {
    FilterNode first = part();
    if (!token_.is(word)) return first;
    FilterNode chain{kind, {}, {}};
    chain.children.push_back(std::move(first));
    while (accept(word)) chain.children.push_back(part());
    return chain;
  }

  FilterNode parse_filter(bool negated) {
    return parse_chain("OR", negated ? Kind::kAll : Kind::kAny,
                       [&] { return parse_conjunction(negated); });
  }

  FilterNode parse_conjunction(bool negated) {
    return parse_chain("AND", negated ? Kind::kAny : Kind::kAll,
                       [&] { return parse_condition(negated); });
  }

  FilterNode parse_condition(bool negated) {
    while (accept("NOT")) negated = !negated;
    if (token_.is("(")) return parse_parentheses(negated);
    if (accept("TRUE")) return {negated ? Kind::kAny : Kind::kAll, {}, {}};
    if (accept("FALSE")) return {negated ? Kind::kAll : Kind::kAny, {}, {}};
    const std::size_t column = parse_column();
    return {Kind::kCondition, {}, parse_test(column, negated)};
  }

  FilterNode parse_parentheses(bool negated) {
    if (depth_ == kDeepest) {
      refuse_token("no more than " + std::to_string(kDeepest) + " open parentheses");
    }
    ++depth_;
    advance();
    FilterNode filter = parse_filter(negated);
    expect(")", "AND, OR or ')'");
    --depth_;
    return filter;
  }

  std::size_t parse_column() {
    const auto is_token = [&](std::string_view word) { return token_.is(word); };
    const bool is_name = token_.type == Type::kName;
    if (!is_name && (token_.type != Type::kWord || std::ranges::any_of(kReserved, is_token))) {
      refuse_token("a column, NOT, TRUE, FALSE or '('");
    }
    const std::string name = is_name ? unquoted(token_.text) : std::string(token_.text);
    const auto column = std::ranges::find(schema_, name, &ColumnSchema::name);
    if (column == schema_.end()) refuse_token("the name of a column");
    advance();
    return static_cast<std::size_t>(column - schema_.begin());
  }

  Condition parse_test(std::size_t index, bool negated) {
    const ColumnSchema& column = schema_[index];
    const auto empty = [&](bool is_negated) {
      return Condition(static_cast<std::int32_t>(index), is_negated ? Test::kNotIn : Test::kIn);
    };
    if (accept("IS")) {
      const bool is_not = accept("NOT");
      expect("NULL", is_not ? "NULL" : "NULL or NOT NULL");
      return is_not == negated ? Condition(static_cast<std::int32_t>(index), Test::kNull)
                               : empty(true);
    }
    for (const Operator& op : kOperators) {
      if (accept(op.name)) return parse_comparison(column, op, empty(negated != op.negated));
    }
    const bool is_not = accept("NOT");
    if (accept("BETWEEN")) return parse_between(column, empty(negated != is_not));
    if (accept("IN")) return parse_list(column, empty(negated != is_not));
    if (is_not) refuse_token("IN or BETWEEN");
    if (column.type != ColumnType::kBoolean) refuse_token("a comparison of " + column.name);
    const Literal is_true = true;
    Condition condition = empty(negated);
    condition.add(column.type, {Side::kBefore, is_true}, {Side::kAfter, is_true});
    return condition;
  }

  Condition parse_comparison(const ColumnSchema& column, const Operator& op, Condition condition) {
    const Literal literal = parse_literal(column);
    condition.add(column.type, {op.low, literal}, {op.high, literal});
    return condition;
  }

  Condition parse_between(const ColumnSchema& column, Condition condition) {
    const Literal low = parse_literal(column);
    expect("AND", "AND");
    const Literal high = parse_literal(column);
    condition.add(column.type, {Side::kBefore, low}, {Side::kAfter, high});
    return condition;
  }

  Condition parse_list(const ColumnSchema& column, Condition condition) {
    expect("(", "'('");
    do {
      const Literal literal = parse_literal(column);
      condition.add(column.type, {Side::kBefore, literal}, {Side::kAfter, literal});
    } while (accept(","));
    expect(")", "',' or ')'");
    condition.sort();
    return condition;
  }

  Literal parse_literal(const ColumnSchema& column) {
    Literal literal;
    if (!read_literal(column.type, literal)) {
      refuse_token(std::string(kLiterals[static_cast<std::size_t>(column.type)]) +
                   " to compare with " + column.name +
                   (token_.is("NULL") ? "; write IS NULL" : ""));
    }
    advance();
    return literal;
  }

  // False if the token is no literal to compare with the type.
  bool read_literal(ColumnType type, Literal& literal) const {
    if (type == ColumnType::kText) {
      if (token_.type == Type::kText) literal = unquoted(token_.text);
      return token_.type == Type::kText;
    }
    if (type == ColumnType::kBoolean) {
      literal = token_.is("TRUE");
      return token_.is("TRUE") || token_.is("FALSE");
    }
    if (token_.type == Type::kInteger) return read_number<std::int64_t>(token_.text, literal);
    return token_.type == Type::kReal && read_number<double>(token_.text, literal);
  }

  const Schema& schema_;
  Lexer lexer_;
  Token token_;
  int depth_ = 0;
};

}  // namespace

FilterNode parse_filter(std::string_view text, const Schema& schema) {
  return Parser(text, schema).parse();
}

}  // namespace qx::collection
