#include "statement_text.h"

#include <map>

namespace qx_sqlite {
namespace {

bool is_digit(char letter) { return letter >= '0' && letter <= '9'; }
bool in_name(char letter) {
  return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') || letter == '_' ||
         letter == '$' || is_digit(letter) || static_cast<unsigned char>(letter) >= 0x80;
}
std::string lower(std::string_view text) {
  std::string result(text);
  for (char& letter : result) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return result;
}

using Test = StatementText::Test;

Test comparison(const std::string& text) {
  static const std::map<std::string, Test> all = {
      {"=", Test::kEqual},    {"==", Test::kEqual},  {"<>", Test::kUnequal},
      {"!=", Test::kUnequal}, {"<", Test::kRange},   {"<=", Test::kRange},
      {">", Test::kRange},    {">=", Test::kRange},  {"between", Test::kRange},
      {"like", Test::kLike},  {"glob", Test::kLike}, {"regexp", Test::kLike}};
  const auto found = all.find(text);
  return found == all.end() ? Test::kNone : found->second;
}

}  // namespace

StatementText::StatementText(std::string_view sql, std::string_view table) {
  read(sql);
  place();
  find_aliases(lower(table));
}

void StatementText::read(std::string_view sql) {
  const auto at = [&](std::size_t i) { return i < sql.size() ? sql[i] : '\0'; };
  const auto until = [&](std::string_view mark, std::size_t from) {
    const std::size_t found = sql.find(mark, from);
    return found == std::string_view::npos ? sql.size() : found + mark.size();
  };
  for (std::size_t i = 0; i < sql.size();) {
    const char letter = sql[i];
    std::size_t end = i + 1;
    if (letter == '-' && at(i + 1) == '-') {
      end = until("\n", i);
    } else if (letter == '/' && at(i + 1) == '*') {
      end = until("*/", i + 2);
    } else if (letter == '\'' || letter == '"' || letter == '`' || letter == '[') {
      const char close = letter == '[' ? ']' : letter;
      do {
        end = until({&close, 1}, end);
      } while (close != ']' && at(end) == close && ++end != 0);
      const bool is_name = letter != '\'';
      tokens_.push_back({lower(sql.substr(i + 1, end - i - 2)), is_name, !is_name});
    } else if (is_digit(letter) || letter == '?' || letter == ':' || letter == '@' ||
               letter == '$' || (letter == '.' && is_digit(at(i + 1)))) {
      while (in_name(at(end)) || at(end) == '.') ++end;
      tokens_.push_back({std::string(sql.substr(i, end - i)), false, true});
    } else if (in_name(letter)) {
      while (in_name(at(end))) ++end;
      const std::string name = lower(sql.substr(i, end - i));
      const bool is_value = name == "null" || name == "true" || name == "false";
      tokens_.push_back({name, !is_value, is_value});
    } else if (letter > ' ') {
      const bool two = std::string_view("=<>!|").find(letter) != std::string_view::npos &&
                       std::string_view("=<>|").find(at(i + 1)) != std::string_view::npos;
      end = i + (two ? 2 : 1);
      tokens_.push_back({std::string(sql.substr(i, end - i)), false, false});
    }
    i = end;
  }
}

const std::string& StatementText::text(std::size_t at) const {
  static const std::string none;
  return at < tokens_.size() ? tokens_[at].text : none;
}

// Which SELECT each token is of, and whether it is in a WHERE or ON.
void StatementText::place() {
  static const std::set<std::string> others = {"from",  "join", "group",  "having",    "order",
                                               "limit", "set",  "window", "returning", "values"};
  struct Place {
    std::size_t select;
    bool filters;
  };
  std::vector<Place> open = {{0, false}};
  searches_ = {false};
  for (std::size_t i = 0; i < tokens_.size(); ++i) {
    Token& token = tokens_[i];
    if (token.text == ")" && open.size() > 1) open.pop_back();
    if (token.text == "(") open.push_back(open.back());
    if (token.is_name &&
        (token.text == "select" || token.text == "update" || token.text == "delete")) {
      open.back() = {searches_.size(), false};
      searches_.push_back(false);
    }
    if (token.is_name && others.contains(token.text)) open.back().filters = false;
    if (token.text == "where" || token.text == "on") open.back().filters = true;
    token.select = open.back().select;
    token.filters = open.back().filters;
    if (token.text == "match" && token.filters) has_search_ = searches_[token.select] = true;
  }
}

void StatementText::find_aliases(std::string_view table) {
  for (std::size_t i = 0; i < tokens_.size(); ++i) {
    if (text(i) != table) continue;
    const std::size_t alias = i + (text(i + 1) == "as" ? 2 : 1);
    aliases_.insert(text(i));
    if (alias < tokens_.size() && tokens_[alias].is_name) aliases_.insert(text(alias));
  }
}

bool StatementText::is_simple() const {
  if (text(0) == "create") return false;
  std::size_t selects = 0, commas = 0;
  bool is_from = false;
  for (const Token& token : tokens_) {
    selects += token.text == "select" || token.text == "update" || token.text == "delete";
    if (token.text == "join" || token.text == "having" || token.text == "with") return false;
    if (is_from && token.text == ",") ++commas;
    if (token.text == "from") is_from = true;
    if (token.text == "where") is_from = false;
    if (token.text == "from" && text(0) == "update") return false;
  }
  return has_search_ && selects == 1 && commas == 0;
}

// A value, or an expression that begins with one.
bool StatementText::starts_value(std::size_t at) const {
  if (at >= tokens_.size()) return false;
  if (tokens_[at].is_value || text(at) == "cast") return true;
  if (text(at) == "-" || text(at) == "+" || text(at) == "~") return starts_value(at + 1);
  if (text(at) == "(") return text(at + 1) == "select" || starts_value(at + 1);
  return tokens_[at].is_name && text(at + 1) == "(";
}

// Of a column, how it is compared; kNone if it is not, or with a column.
Test StatementText::test_of(std::size_t at) const {
  std::size_t next = at + 1;
  if (text(next) == "collate") next += 2;
  if (text(next) == "isnull" || text(next) == "notnull") return Test::kNull;
  const bool is = text(next) == "is";
  if (is) ++next;
  const bool is_not = text(next) == "not";
  if (is_not) ++next;
  if (text(next) == "null") return Test::kNull;
  const Test equal = is_not ? Test::kUnequal : Test::kEqual;
  if (text(next) == "in") return equal;
  if (is) return starts_value(next + (text(next) == "distinct" ? 2 : 0)) ? equal : Test::kNone;
  const Test test = comparison(text(next));
  if (test != Test::kNone) return starts_value(next + 1) ? test : Test::kNone;
  const std::size_t before = at - (at > 1 && text(at - 1) == "." ? 2 : 0);
  const bool follows = before > 1 && (tokens_[before - 2].is_value || text(before - 2) == ")");
  return follows ? comparison(text(before - 1)) : Test::kNone;
}

bool StatementText::has_condition(std::string_view column, Test test) const {
  const std::string name = lower(column);
  const auto is_it = [&](const std::string& given) {
    return given == name || (name == "rowid" && (given == "oid" || given == "_rowid_"));
  };
  for (std::size_t i = 0; i < tokens_.size(); ++i) {
    const Token& token = tokens_[i];
    if (!token.is_name || !token.filters || !searches_[token.select] || !is_it(token.text))
      continue;
    const bool is_qualified = i > 1 && text(i - 1) == ".";
    if (is_qualified && !aliases_.contains(text(i - 2))) continue;
    if (test_of(i) == test) return true;
  }
  return false;
}

}  // namespace qx_sqlite
