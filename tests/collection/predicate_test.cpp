// Filters pass the rows that a naive evaluation in the logic of three values passes: of random
// trees, printed as texts, and of long lists.
#include "columns/predicate.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <set>
#include <string>

#include "support/random.h"

namespace qx_test {
namespace {

using namespace qx::collection;
using Limits = std::numeric_limits<double>;
using Truth = std::optional<bool>;  // without a value: unknown

// A row's values own their texts here.
using Owned = std::variant<std::monostate, std::int64_t, double, bool, std::string>;

constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;

const Schema kSchema = {{"i", ColumnType::kInteger}, {"r", ColumnType::kReal},
                        {"b", ColumnType::kBoolean}, {"t", ColumnType::kText},
                        {"a\"b", ColumnType::kText}, {"not", ColumnType::kBoolean},
                        {"j", ColumnType::kInteger}, {"é_2", ColumnType::kReal}};

const std::vector<Owned> kChoices[] = {
    {INT64_MIN, INT64_MIN + 1, std::int64_t{-2}, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1},
     std::int64_t{2}, std::int64_t{3}, std::int64_t{5}, kTwoTo53, kTwoTo53 + 1, kTwoTo53 + 2,
     -kTwoTo53 - 1, INT64_MAX - 1, INT64_MAX},
    {-Limits::infinity(),
     Limits::lowest(),
     -0x1p63,
     -9007199254740994.0,
     -1.5,
     -1.0,
     -Limits::denorm_min(),
     -0.0,
     0.0,
     Limits::denorm_min(),
     0.5,
     1.0,
     2.5,
     9007199254740992.0,
     9007199254740994.0,
     std::nextafter(0x1p63, 0),
     0x1p63,
     1e300,
     Limits::infinity(),
     Limits::quiet_NaN(),
     -Limits::quiet_NaN()},
    {true, false},
    {std::string(), std::string("a"), std::string("a\0", 2), std::string("ab"), std::string("it's"),
     std::string("\"q\""), std::string("ä"), std::string("\xff"), std::string(50, 'a'),
     std::string("b")}};

Value value_of(const Owned& owned) {
  return std::visit([](const auto& value) { return Value(value); }, owned);
}

// ---- The naive evaluation --------------------------------------------------------------------

struct Tree {
  std::string word;  // AND, OR, NOT, TRUE, FALSE, IS NULL, BETWEEN, IN, an operator, or none
  std::size_t column = 0;
  std::vector<Owned> literals;
  std::vector<Tree> children;
  bool negated = false;  // IS NOT NULL, NOT BETWEEN, NOT IN
};

// A long double has every bit of either kind of number.
static_assert(std::numeric_limits<long double>::digits >= 64);
long double number_of(const Owned& owned) {
  if (const auto* integer = std::get_if<std::int64_t>(&owned)) return *integer;
  if (const auto* boolean = std::get_if<bool>(&owned)) return *boolean;
  return std::get<double>(owned);
}

Truth compare(const Owned& value, const std::string& op, const Owned& literal) {
  if (std::holds_alternative<std::monostate>(value)) return {};
  const auto decide = [&](const auto& a, const auto& b) {
    if (op == "=") return a == b;
    if (op == "<") return a < b;
    if (op == "<=") return a <= b;
    if (op == ">") return a > b;
    if (op == ">=") return a >= b;
    return a != b;
  };
  const auto* text = std::get_if<std::string>(&value);
  return text != nullptr ? decide(*text, std::get<std::string>(literal))
                         : decide(number_of(value), number_of(literal));
}

Truth negate(Truth truth) { return truth ? Truth(!*truth) : truth; }

// All of some truths; any of them by De Morgan's law.
Truth all_of(const std::vector<Truth>& truths) {
  Truth all = true;
  for (const Truth& truth : truths) {
    if (truth == Truth(false)) return false;
    if (!truth) all.reset();
  }
  return all;
}

Truth any_of(std::vector<Truth> truths) {
  for (Truth& truth : truths) truth = negate(truth);
  return negate(all_of(truths));
}

Truth truth_of(const Tree& tree, const std::vector<Owned>& row) {
  const Owned& value = row[tree.column];
  std::vector<Truth> parts;
  for (const Tree& child : tree.children) parts.push_back(truth_of(child, row));
  if (tree.word == "AND") return all_of(parts);
  if (tree.word == "OR") return any_of(parts);
  if (tree.word == "NOT") return negate(parts[0]);
  if (tree.word == "TRUE" || tree.word == "FALSE") return tree.word == "TRUE";
  Truth truth;
  if (tree.word == "IS NULL") {
    truth = std::holds_alternative<std::monostate>(value);
  } else if (tree.word == "BETWEEN") {
    truth =
        all_of({compare(value, ">=", tree.literals[0]), compare(value, "<=", tree.literals[1])});
  } else if (tree.word == "IN") {
    for (const Owned& literal : tree.literals) parts.push_back(compare(value, "=", literal));
    truth = any_of(parts);
  } else {
    truth =
        tree.word.empty() ? compare(value, "=", true) : compare(value, tree.word, tree.literals[0]);
  }
  return tree.negated ? negate(truth) : truth;
}

// ---- Random trees and their texts ------------------------------------------------------------

Owned draw_literal(Random& random, ColumnType type) {
  auto choice = static_cast<std::size_t>(type);
  if (choice < 2) choice = static_cast<std::size_t>(random.between(0, 1));
  for (;;) {
    Owned literal = random.any_of(kChoices[choice]);
    if (choice != 1 || std::isfinite(std::get<double>(literal))) return literal;
  }
}

Tree draw_test(Random& random) {
  static const std::vector<std::string> words = {"IS NULL", "BETWEEN", "IN", "=", "<>",
                                                 "!=",      "<",       "<=", ">", ">="};
  Tree tree;
  tree.column = static_cast<std::size_t>(random.between(0, std::ssize(kSchema) - 1));
  const ColumnType type = kSchema[tree.column].type;
  if (type == ColumnType::kBoolean && random.percent(30)) return tree;
  tree.word = random.any_of(words);
  tree.negated = tree.word.front() >= 'A' && random.percent(40);
  std::int64_t literals = tree.word == "IS NULL" ? 0 : tree.word == "BETWEEN" ? 2 : 1;
  if (tree.word == "IN") literals = random.between(1, 14);
  while (literals-- > 0) tree.literals.push_back(draw_literal(random, type));
  return tree;
}

Tree draw_tree(Random& random, int depth) {
  static const std::vector<std::string> words = {"AND", "OR", "NOT"};
  if (random.percent(4)) return {random.percent(50) ? "TRUE" : "FALSE", 0, {}, {}};
  if (depth == 0 || random.percent(20)) return draw_test(random);
  Tree tree;
  tree.word = random.any_of(words);
  const std::int64_t children = tree.word == "NOT" ? 1 : random.between(2, 4);
  for (std::int64_t i = 0; i < children; ++i) tree.children.push_back(draw_tree(random, depth - 1));
  return tree;
}

std::string doubled(const std::string& bytes, char mark) {
  std::string quoted(1, mark);
  for (const char c : bytes) quoted.append(c == mark ? 2 : 1, c);
  return quoted + mark;
}

std::string text_of(const Owned& literal) {
  if (const auto* text = std::get_if<std::string>(&literal)) return doubled(*text, '\'');
  if (const auto* boolean = std::get_if<bool>(&literal)) return *boolean ? "TRUE" : "false";
  if (const auto* integer = std::get_if<std::int64_t>(&literal)) return std::to_string(*integer);
  char digits[40];
  const std::string text(digits,
                         std::to_chars(digits, std::end(digits), std::get<double>(literal)).ptr);
  return text.find_first_of(".e") == std::string::npos ? text + '.' : text;
}

// A word in any case, between any space.
std::string spaced(Random& random, std::string word) {
  for (char& c : word) {
    if (c == ' ') c = random.any_of<char>({' ', '\n'});
    if ('A' <= c && c <= 'Z' && random.percent(20)) c = static_cast<char>(c - 'A' + 'a');
  }
  return random.any_of<std::string>({" ", "\t", "\r\n "}) + word + ' ';
}

std::string text_of(Random& random, const Tree& tree);

std::string text_of_test(Random& random, const Tree& tree) {
  const std::string& name = kSchema[tree.column].name;
  const bool bare = name.size() == 1 || name == "é_2";
  std::string text = bare && random.percent(80) ? name : doubled(name, '"');
  if (tree.word.empty()) return text;
  if (tree.word == "IS NULL")
    return text + spaced(random, tree.negated ? "IS NOT NULL" : "IS NULL");
  if (tree.negated) text += spaced(random, "NOT");
  text += tree.word.front() >= 'A' || random.percent(50) ? spaced(random, tree.word) : tree.word;
  if (tree.word == "BETWEEN") {
    return text + text_of(tree.literals[0]) + spaced(random, "AND") + text_of(tree.literals[1]);
  }
  if (tree.word != "IN") return text + text_of(tree.literals[0]);
  for (std::size_t i = 0; i < tree.literals.size(); ++i) {
    text += (i == 0 ? "(" : ", ") + text_of(tree.literals[i]);
  }
  return text + ')';
}

// In parentheses where the tree needs them, and sometimes where it does not.
std::string text_of(Random& random, const Tree& tree) {
  if (tree.word == "TRUE" || tree.word == "FALSE") return spaced(random, tree.word);
  if (tree.children.empty()) return text_of_test(random, tree);
  std::string text = tree.word == "NOT" ? spaced(random, "NOT") : "";
  for (const Tree& child : tree.children) {
    if (&child != tree.children.data()) text += spaced(random, tree.word);
    const bool bare =
        child.children.empty() || child.word == "NOT" || (tree.word == "OR" && child.word == "AND");
    const std::string part = text_of(random, child);
    text += bare && random.percent(90) ? part : '(' + part + ')';
  }
  return text;
}

// ---- Rows ------------------------------------------------------------------------------------

struct Rows {
  std::vector<std::vector<Owned>> values;
  std::vector<Column> columns;

  Rows(Random& random, std::int64_t rows) : values(static_cast<std::size_t>(rows)) {
    for (const ColumnSchema& column : kSchema) {
      const int nulls = random.any_of<int>({0, 10, 50, 100});
      for (std::vector<Owned>& row : values) {
        row.push_back(random.percent(nulls)
                          ? Owned()
                          : random.any_of(kChoices[static_cast<std::size_t>(column.type)]));
      }
    }
    for (std::size_t i = 0; i < kSchema.size(); ++i) {
      columns.push_back(Column::of(kSchema[i].type, rows, [&](std::int64_t row) {
        return value_of(values[static_cast<std::size_t>(row)][i]);
      }));
    }
  }

  std::vector<Value> row(std::int64_t row) const {
    std::vector<Value> result;
    for (const Owned& owned : values[static_cast<std::size_t>(row)])
      result.push_back(value_of(owned));
    return result;
  }
};

// Checks that evaluate() writes just the words of the range.
std::vector<std::uint64_t> evaluated(const Predicate& predicate, const std::vector<Column>& columns,
                                     std::int64_t first, std::int64_t count) {
  std::vector<std::uint64_t> words(static_cast<std::size_t>((count + 63) / 64) + 1, 0x5EED);
  predicate.evaluate(columns, first, count, words.data());
  EXPECT_EQ(words.back(), 0x5EEDu);
  words.pop_back();
  if (count % 64 != 0) {
    EXPECT_EQ(words.back() >> (count % 64), 0u);
  }
  return words;
}

bool is_set(const std::vector<std::uint64_t>& words, std::int64_t i) {
  return words[static_cast<std::size_t>(i / 64)] >> (i % 64) & 1;
}

TEST(Predicate, AgreesWithANaiveEvaluationOfRandomTrees) {
  Random random(20);
  std::int64_t passing = 0, failing = 0;
  for (int round = 0; round < 3000; ++round) {
    const Rows rows(random, random.between(1, 300));
    const Tree tree = draw_tree(random, random.between32(0, 4));
    const std::string text = text_of(random, tree);
    const Predicate predicate = Predicate::parse(text, kSchema);
    const std::int64_t first = random.between(0, std::ssize(rows.values) / 64) * 64;
    const std::int64_t count = random.between(0, std::ssize(rows.values) - first);
    const auto words = evaluated(predicate, rows.columns, first, count);
    for (std::int64_t i = 0; i < count; ++i) {
      const auto& values = rows.values[static_cast<std::size_t>(first + i)];
      const bool expected = truth_of(tree, values) == Truth(true);
      ASSERT_EQ(is_set(words, i), expected) << text << ", row " << first + i;
      ASSERT_EQ(predicate.is_true_of(rows.row(first + i)), expected) << text;
      (expected ? passing : failing) += 1;
    }
  }
  EXPECT_GT(passing, 30000);
  EXPECT_GT(failing, 30000);
}

// ---- Long lists and long texts ---------------------------------------------------------------

// Of a column of these values, by `IN` or `NOT IN` a list, the rows of which a set says so.
template <typename T>
void expect_in(ColumnType type, const std::vector<T>& values, const std::vector<T>& list) {
  std::string items;
  for (const T& item : list) items.append(items.empty() ? "" : ",").append(text_of(Owned(item)));
  const Schema schema = {{"x", type}, {"n", ColumnType::kInteger}};
  const auto rows = std::ssize(values);
  std::vector<Column> columns;
  columns.push_back(Column::of(
      type, rows, [&](std::int64_t row) { return Value(values[static_cast<std::size_t>(row)]); }));
  columns.push_back(Column::of(ColumnType::kInteger, rows, [](std::int64_t row) { return row; }));
  const std::set<T> set(list.begin(), list.end());
  for (const bool in : {true, false}) {
    // With the second condition, fewer rows remain than there are texts.
    for (const std::int64_t from : {std::int64_t{0}, rows - 5}) {
      const std::string text =
          "n >= " + std::to_string(from) + " AND x" + (in ? "" : " NOT") + " IN (" + items + ')';
      const auto words = evaluated(Predicate::parse(text, schema), columns, 0, rows);
      for (std::int64_t row = 0; row < rows; ++row) {
        const bool expected =
            row >= from && set.contains(values[static_cast<std::size_t>(row)]) == in;
        ASSERT_EQ(is_set(words, row), expected) << "row " << row;
      }
    }
  }
}

TEST(Predicate, FindsValuesInLongLists) {
  Random random(21);
  for (const auto& [rows, range, items] : {std::array{3000, 1000000, 100000},
                                           {3000, 50, 20},
                                           {3000, 50, 1000},
                                           {20, 100, 60},
                                           {3000, 3000, 700}}) {
    std::vector<std::int64_t> values, list;
    std::vector<std::string> texts, text_list;
    for (int i = 0; i < rows; ++i) values.push_back(random.between(0, range));
    for (int i = 0; i < items; ++i) list.push_back(random.between(0, range));
    list.push_back(values[1]);
    for (const std::int64_t value : values) texts.push_back(std::to_string(value));
    for (const std::int64_t item : list) text_list.push_back(std::to_string(item));
    expect_in(ColumnType::kInteger, values, list);
    expect_in(ColumnType::kText, texts, text_list);
  }
}

TEST(Predicate, TakesLongTextsAndAsManyParenthesesAsItSays) {
  std::string chain = "i = 3", nots;
  for (int i = 0; i < 100000; ++i) chain += i % 2 == 0 ? " OR i = 4" : " AND i = 4";
  for (int i = 0; i < 100001; ++i) nots += "NOT ";
  const std::string nested = std::string(200, '(') + "i = 5" + std::string(200, ')');
  const Predicate predicate =
      Predicate::parse(chain + " OR " + nested + " OR " + nots + "i < 7", kSchema);
  std::vector<Value> row(kSchema.size());
  for (const auto& [i, expected] :
       {std::pair{3, true}, {4, true}, {5, true}, {6, false}, {7, true}}) {
    row[0] = std::int64_t{i};
    EXPECT_EQ(predicate.is_true_of(row), expected) << i;
  }
}

TEST(Predicate, MayBeMoved) {
  Predicate predicate = Predicate::parse("b", kSchema);
  predicate = Predicate::parse("NOT b", kSchema);
  const Predicate moved = std::move(predicate);
  std::vector<Value> row(kSchema.size());
  EXPECT_FALSE(moved.is_true_of(row));
  row[2] = false;
  EXPECT_TRUE(moved.is_true_of(row));
}

}  // namespace
}  // namespace qx_test
