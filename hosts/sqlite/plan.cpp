#include "plan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>

namespace qx_sqlite {
namespace {

using Test = Condition::Test;

constexpr std::int64_t kLargestK = std::numeric_limits<std::int32_t>::max() - 1;
constexpr int kRowid = -1;
constexpr int kIn = 0;  // in a plan's text; SQLite's own constraint is an equal one

const Test* test_of(int op) {
  // IS compares as = does, and with null, too.
  static const std::map<int, Test> tests = {
      {SQLITE_INDEX_CONSTRAINT_EQ, Test::kEqual},
      {SQLITE_INDEX_CONSTRAINT_NE, Test::kNotEqual},
      {SQLITE_INDEX_CONSTRAINT_LT, Test::kLess},
      {SQLITE_INDEX_CONSTRAINT_LE, Test::kLessOrEqual},
      {SQLITE_INDEX_CONSTRAINT_GT, Test::kGreater},
      {SQLITE_INDEX_CONSTRAINT_GE, Test::kGreaterOrEqual},
      {SQLITE_INDEX_CONSTRAINT_ISNULL, Test::kNull},
      {SQLITE_INDEX_CONSTRAINT_ISNOTNULL, Test::kNotNull},
      {SQLITE_INDEX_CONSTRAINT_IS, Test::kEqual},
      {kIn, Test::kIn},
  };
  const auto found = tests.find(op);
  return found == tests.end() ? nullptr : &found->second;
}

std::string name_of_column(const Declaration& declaration, int column) {
  return column == kRowid ? "rowid" : declaration.columns[static_cast<std::size_t>(column)].name;
}

bool is_number(const Declaration& declaration, int column) {
  if (column == kRowid) return true;
  if (column >= declaration.command_column()) return false;
  return declaration.columns[static_cast<std::size_t>(column)].is_number();
}

// Collects which constraints a search uses, and in which order it gets their values.
class Planner {
 public:
  Planner(const Declaration& declaration, const LiveRows& live, sqlite3_index_info* info)
      : declaration_(declaration), live_(live), info_(info) {}

  int find_match() const {
    for (int i = 0; i < info_->nConstraint; ++i) {
      if (info_->aConstraint[i].op == SQLITE_INDEX_CONSTRAINT_MATCH &&
          info_->aConstraint[i].iColumn == declaration_.vector_column) {
        return i;
      }
    }
    return -1;
  }

  int plan_search(int match) {
    const bool ordered = order_is_ours();
    if (!use(match)) return SQLITE_CONSTRAINT;
    bool limited = false;
    for (int i = 0; i < info_->nConstraint; ++i) {
      const auto& constraint = info_->aConstraint[i];
      if (i == match) continue;
      const bool is_limit = constraint.op == SQLITE_INDEX_CONSTRAINT_LIMIT;
      if (is_limit || constraint.op == SQLITE_INDEX_CONSTRAINT_OFFSET) {
        // SQLite itself leaves the first rows out.
        const bool used = (info_->nOrderBy == 0 || ordered) && use(i, false);
        limited |= used && is_limit;
      } else if (constraint.iColumn == declaration_.k_column() &&
                 constraint.op == SQLITE_INDEX_CONSTRAINT_EQ) {
        limited = true;
        if (!use(i)) return SQLITE_CONSTRAINT;
      } else if (constraint.iColumn > declaration_.command_column()) {
        continue;  // score and distance are known of the results alone
      } else if (!filter(i)) {
        return SQLITE_CONSTRAINT;
      }
    }
    info_->orderByConsumed = ordered;
    info_->idxNum = kSearch;
    // The text: for who reads it, then the column and the operator of each argument.
    const char* const path = name_of(live_.access_path(conditions_));
    info_->idxStr = sqlite3_mprintf("%s", joined(path, names_, " |", arguments_).c_str());
    if (info_->idxStr == nullptr) throw std::bad_alloc();
    info_->needToFreeIdxStr = 1;
    // SQLite may ask again without a limit: that plan is chosen only if there is no other, and
    // fails when it runs.
    info_->estimatedCost = limited ? 1000 : 1e12;
    info_->estimatedRows = 10;
    return SQLITE_OK;
  }

 private:
  bool order_is_ours() const {
    if (info_->nOrderBy != 1) return false;
    const auto& term = info_->aOrderBy[0];
    return (term.iColumn == declaration_.distance_column() && !term.desc) ||
           (term.iColumn == declaration_.score_column() && term.desc);
  }

  // False where the value is not known in this order of joins.
  bool use(int i, bool omit = true, bool in = false) {
    const auto& constraint = info_->aConstraint[i];
    if (!constraint.usable) return false;
    info_->aConstraintUsage[i].argvIndex = ++used_;
    info_->aConstraintUsage[i].omit = omit;
    arguments_ += joined(" ", constraint.iColumn, " ", in ? kIn : int{constraint.op});
    return true;
  }

  // Every condition must be met before the best are taken, so one that cannot be is an error.
  bool filter(int i) {
    const auto& constraint = info_->aConstraint[i];
    const Test* const test = test_of(constraint.op);
    const bool own = constraint.iColumn < declaration_.command_column();
    const std::string name = own ? name_of_column(declaration_, constraint.iColumn) : "";
    require(is_number(declaration_, constraint.iColumn) && test != nullptr,
            "a search cannot be filtered ", own ? "by the column " + name + " so" : "so",
            ": compare the rowid or a column of integers");
    const bool in = constraint.op == SQLITE_INDEX_CONSTRAINT_EQ && constraint.usable &&
                    sqlite3_vtab_in(info_, i, 1) != 0;
    if (!use(i, true, in)) return false;
    conditions_.push_back({constraint.iColumn, in ? Test::kIn : *test, {}});
    names_ += (names_.empty() ? " by " : ", ") + name;
    return true;
  }

  const Declaration& declaration_;
  const LiveRows& live_;
  sqlite3_index_info* info_;
  int used_ = 0;
  std::string arguments_;
  std::string names_;
  std::vector<Condition> conditions_;
};

// The number that a value is compared as, or none: null, a text that is no number, or a fraction.
std::optional<std::int64_t> whole_number(sqlite3_value* value, const std::string& column) {
  const int type = sqlite3_value_numeric_type(value);
  if (type == SQLITE_NULL) return std::nullopt;
  if (type == SQLITE_INTEGER) return sqlite3_value_int64(value);
  require(type == SQLITE_FLOAT, "the column ", column,
          " is compared with a value that is no number");
  const double number = sqlite3_value_double(value);
  require(number == std::floor(number) && std::fabs(number) < 0x1p63, "the column ", column,
          " is compared with a number that is not whole");
  return static_cast<std::int64_t>(number);
}

std::int64_t count_of(sqlite3_value* value, const char* what) {
  require(sqlite3_value_numeric_type(value) == SQLITE_INTEGER, what, " is no whole number");
  const std::int64_t count = sqlite3_value_int64(value);
  require(count >= 0 && count <= kLargestK, what, " is ", count, ", outside 0 to ", kLargestK);
  return count;
}

// The numbers of an IN, ascending and distinct.
std::vector<std::int64_t> members_of(sqlite3_value* value, const std::string& column) {
  std::vector<std::int64_t> numbers;
  sqlite3_value* member = nullptr;
  int result = sqlite3_vtab_in_first(value, &member);
  for (; result == SQLITE_OK && member != nullptr; result = sqlite3_vtab_in_next(value, &member)) {
    if (const auto number = whole_number(member, column)) numbers.push_back(*number);
  }
  if (result != SQLITE_OK && result != SQLITE_DONE) throw SqlError(result, "IN cannot be read");
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

Condition read_condition(const std::string& name, int column, int op, sqlite3_value* value,
                         bool* nothing_passes) {
  const Test test = *test_of(op);
  if (test == Test::kIn) return {column, test, members_of(value, name)};
  if (test == Test::kNull || test == Test::kNotNull) return {column, test, {}};
  const std::optional<std::int64_t> number = whole_number(value, name);
  if (number) return {column, test, {*number}};
  *nothing_passes |= op != SQLITE_INDEX_CONSTRAINT_IS;
  return {column, Test::kNull, {}};
}

}  // namespace

int choose_plan(const Declaration& declaration, const LiveRows& live, sqlite3_index_info* info) {
  Planner planner(declaration, live, info);
  const int match = planner.find_match();
  if (match >= 0) return planner.plan_search(match);
  info->idxNum = kScan;
  info->estimatedCost = 1e6;
  info->estimatedRows = 1'000'000;
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& constraint = info->aConstraint[i];
    if (constraint.usable && constraint.iColumn == kRowid &&
        constraint.op == SQLITE_INDEX_CONSTRAINT_EQ) {
      info->idxNum = kOneRow;
      info->aConstraintUsage[i].argvIndex = 1;
      info->estimatedCost = 10;
      info->estimatedRows = 1;
      info->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
      break;
    }
  }
  return SQLITE_OK;
}

Search read_search(const Declaration& declaration, const char* plan, int count,
                   sqlite3_value** arguments) {
  const char* const end = plan + std::strlen(plan);
  const char* at = std::find(plan, end, '|');
  const auto next = [&] {
    int number = 0;
    at = std::from_chars(std::find(at, end, ' ') + 1, end, number).ptr;
    return number;
  };
  Search search;
  std::optional<std::int64_t> k, limit;
  std::int64_t offset = 0;
  for (sqlite3_value* const value : std::span(arguments, static_cast<std::size_t>(count))) {
    const int column = next();
    const int op = next();
    if (op == SQLITE_INDEX_CONSTRAINT_MATCH) {
      search.query = vector_of(value, declaration.dim, name_of_column(declaration, column));
    } else if (op == SQLITE_INDEX_CONSTRAINT_LIMIT) {
      // A negative limit is none.
      limit = sqlite3_value_int64(value) < 0 ? kLargestK : count_of(value, "LIMIT");
    } else if (op == SQLITE_INDEX_CONSTRAINT_OFFSET) {
      offset = std::clamp<std::int64_t>(sqlite3_value_int64(value), 0, kLargestK);
    } else if (column == declaration.k_column()) {
      k = count_of(value, "k");
    } else {
      search.conditions.push_back(read_condition(name_of_column(declaration, column), column, op,
                                                 value, &search.nothing_passes));
    }
  }
  require(k || limit,
          "a search needs 'k = N', or from SQLite 3.41 on 'LIMIT N', as its number of rows");
  search.k = k.value_or(kLargestK);
  if (limit) search.k = std::min(search.k, std::min(*limit, kLargestK - offset) + offset);
  return search;
}

}  // namespace qx_sqlite
