#include "statement_text.h"

#include <algorithm>
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

// What may follow a table that has no other name.
bool is_word_after_table(const std::string& word) {
  static const std::set<std::string> words = {"join", "left",    "inner", "cross",    "natural",
                                              "full", "right",   "using", "union",    "except",
                                              "set",  "indexed", "not",   "intersect"};
  return words.contains(word);
}

Test comparison(const std::string& text) {
  static const std::map<std::string, Test> all = {
      {"=", Test::kEqual},    {"==", Test::kEqual},  {"<>", Test::kUnequal},
      {"!=", Test::kUnequal}, {"<", Test::kLess},    {"<=", Test::kLess},
      {">", Test::kMore},     {">=", Test::kMore},   {"between", Test::kBetween},
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

// Which SELECT each token is of, and whether it is in a FROM, or in a WHERE or ON.
void StatementText::place() {
  static const std::set<std::string> others = {"group", "having",    "order",  "limit",
                                               "set",   "returning", "values", "window"};
  static const std::set<std::string> before_row = {"and", "or", "not",  "where",  "on",
                                                   "is",  "(",  "when", "between"};
  struct Place {
    std::size_t select;
    bool filters, lists, on, row, pair;
  };
  std::vector<Place> open = {{}};
  searches_ = {false};
  for (std::size_t i = 0; i < tokens_.size(); ++i) {
    Token& token = tokens_[i];
    if (token.text == ")" && open.size() > 1) {
      lists_row_values_ |= open.back().pair && text(i + 1) == "in";
      open.pop_back();
    }
    if (token.text == "(" && i > 0) {
      open.push_back(open.back());
      open.back().on = open.back().pair = false;
      open.back().row = open.back().filters && (before_row.contains(text(i - 1)) ||
                                                comparison(text(i - 1)) != Test::kNone);
    }
    Place& place = open.back();
    const std::string& word = token.is_name ? token.text : text(tokens_.size());
    if (word == "select" || word == "update" || word == "delete") {
      place = {searches_.size(), false, word == "update", false, false, false};
      searches_.push_back(false);
    }
    const bool is_comma = token.text == ",";
    if (is_comma && place.row) {
      place.pair = true;
      row_values_.insert(place.select);
    }
    if (others.contains(word)) place = {place.select, false, false, false, false, false};
    const bool lists = word == "from" || word == "join" || (is_comma && place.on);
    if (lists) place = {place.select, false, true, false, false, false};
    if (word == "where" || word == "on") {
      place = {place.select, true, false, word == "on", place.row, false};
    }
    token.select = place.select;
    token.filters = place.filters;
    token.lists = place.lists;
    if (word == "match" && token.filters) has_search_ = searches_[token.select] = true;
  }
}

void StatementText::find_aliases(std::string_view table) {
  static const std::set<std::string> before = {"from", "join", ",", ".", "update", "("};
  for (std::size_t i = 1; i < tokens_.size(); ++i) {
    const Token& token = tokens_[i];
    const bool is_it = token.is_name && token.lists && token.text == table && text(i + 1) != ".";
    if (!is_it || !before.contains(text(i - 1))) continue;
    const std::size_t alias = i + (text(i + 1) == "as" ? 2 : 1);
    const bool named = alias < tokens_.size() && tokens_[alias].is_name && tokens_[alias].lists &&
                       !is_word_after_table(text(alias));
    sources_.emplace(token.select, text(named ? alias : i));
  }
}

// From joins and outer conditions.
bool StatementText::may_derive() const {
  for (std::size_t i = 0; i < tokens_.size(); ++i) {
    if (text(i) == "join" || text(i) == "having") return true;
    if (tokens_[i].lists && (text(i) == "," || text(i) == "(")) return true;
    if (text(i) == "from" && text(0) == "update") return true;
  }
  return false;
}

bool StatementText::is_simple() const {
  return has_search_ && searches_.size() == 2 && text(0) != "create" && text(0) != "with" &&
         !may_derive();
}

// A value, or an expression that begins with one.
bool StatementText::starts_value(std::size_t at) const {
  if (at >= tokens_.size()) return false;
  if (tokens_[at].is_value || text(at) == "cast") return true;
  if (text(at) == "-" || text(at) == "+" || text(at) == "~") return starts_value(at + 1);
  if (text(at) == "(") return text(at + 1) == "select" || starts_value(at + 1);
  return tokens_[at].is_name && text(at + 1) == "(";
}

// Of what follows IN.
bool StatementText::is_one_member(std::size_t at) const {
  int depth = 0;
  for (; at < tokens_.size(); ++at) {
    if (text(at) == "select" || text(at) == "values" || (text(at) == "," && depth == 1)) break;
    if (text(at) == "(") ++depth;
    if (text(at) == ")" && --depth == 0) return true;
  }
  return false;
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
  if (text(next) == "in") return is_not || is_one_member(next + 1) ? equal : Test::kIn;
  if (is) return starts_value(next + (text(next) == "distinct" ? 2 : 0)) ? equal : Test::kNone;
  const Test test = comparison(text(next));
  if (test != Test::kNone) return starts_value(next + 1) ? test : Test::kNone;
  const std::size_t before = at - (at > 1 && text(at - 1) == "." ? 2 : 0);
  const bool follows = before > 1 && (tokens_[before - 2].is_value || text(before - 2) == ")");
  const Test turned = follows ? comparison(text(before - 1)) : Test::kNone;
  return turned == Test::kLess ? Test::kMore : turned == Test::kMore ? Test::kLess : turned;
}

bool StatementText::is_condition(std::size_t i, const std::string& name, std::string_view column,
                                 Test test) const {
  const std::string& given = text(i);
  const bool is_rowid = column == "rowid" && (given == "oid" || given == "_rowid_");
  if (!tokens_[i].is_name || !tokens_[i].filters || (given != column && !is_rowid)) return false;
  if (i > 1 && text(i - 1) == "." && text(i - 2) != name) return false;
  const Test found = test_of(i);
  const bool is_bound = test == Test::kLess || test == Test::kMore;
  return found == test || (is_bound && found == Test::kBetween) ||
         (test == Test::kIn && found == Test::kEqual);
}

StatementText::Written StatementText::written(const std::set<std::string>& names,
                                              std::string_view column, Test test,
                                              std::ptrdiff_t times) const {
  const std::string wanted = lower(column);
  bool some = false, all = true;
  for (const auto& [select, name] : sources_) {
    if (!searches_[select] || (!names.empty() && !names.contains(name))) continue;
    std::ptrdiff_t here = 0;
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
      here += tokens_[i].select == select && is_condition(i, name, wanted, test) ? 1 : 0;
    }
    some |= here > 0;
    all &= here >= times;
  }
  return !some ? Written::kNo : all || !may_derive() ? Written::kYes : Written::kUnclear;
}

bool StatementText::has_row_value() const {
  return lists_row_values_ || std::any_of(row_values_.begin(), row_values_.end(),
                                          [&](std::size_t select) { return searches_[select]; });
}

}  // namespace qx_sqlite
