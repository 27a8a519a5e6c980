#include "plan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace qx_sqlite {
namespace {

using Test = Condition::Test;

constexpr std::int64_t kLargestK = std::numeric_limits<std::int32_t>::max() - 1;
constexpr int kRowid = -1;

// A test as the plan's text has it. kIs compares as = does, and with null, too.
struct Sign {
  unsigned char op;
  char sign;
  Test test;
};
constexpr Sign kSigns[] = {
    {SQLITE_INDEX_CONSTRAINT_EQ, '=', Test::kEqual},
    {SQLITE_INDEX_CONSTRAINT_NE, '!', Test::kNotEqual},
    {SQLITE_INDEX_CONSTRAINT_LT, '<', Test::kLess},
    {SQLITE_INDEX_CONSTRAINT_LE, '[', Test::kLessOrEqual},
    {SQLITE_INDEX_CONSTRAINT_GT, '>', Test::kGreater},
    {SQLITE_INDEX_CONSTRAINT_GE, ']', Test::kGreaterOrEqual},
    {SQLITE_INDEX_CONSTRAINT_ISNULL, 'z', Test::kNull},
    {SQLITE_INDEX_CONSTRAINT_ISNOTNULL, 'n', Test::kNotNull},
    {SQLITE_INDEX_CONSTRAINT_IS, 's', Test::kEqual},
};
constexpr char kIn = 'i';

const Sign* sign_of(unsigned char op) {
  const auto* const found =
      std::find_if(std::begin(kSigns), std::end(kSigns), [&](const Sign& s) { return s.op == op; });
  return found == std::end(kSigns) ? nullptr : found;
}

std::string name_of_column(const Declaration& declaration, int column) {
  return column == kRowid ? "rowid" : declaration.columns[static_cast<std::size_t>(column)].name;
}

bool is_number(const Declaration& declaration, int column) {
  if (column == kRowid) return true;
  if (column >= declaration.command_column()) return false;
  const ColumnKind kind = declaration.columns[static_cast<std::size_t>(column)].kind;
  return kind == ColumnKind::kNumber || kind == ColumnKind::kPartition;
}

// Collects which constraints a search uses, and in which order it gets their values.
class Planner {
 public:
  Planner(const Declaration& declaration, sqlite3_index_info* info)
      : declaration_(declaration), info_(info) {}

  int find_match() const {
    for (int i = 0; i < info_->nConstraint; ++i) {
      if (info_->aConstraint[i].op == SQLITE_INDEX_CONSTRAINT_MATCH &&
          info_->aConstraint[i].iColumn == declaration_.vector_column) {
        return i;
      }
    }
    return -1;
  }

  int plan_search(int match,
                  const std::function<std::string(const std::vector<Condition>&)>& access_path_of) {
    const bool ordered = order_is_ours();
    if (!use(match, "m")) return SQLITE_CONSTRAINT;
    bool limited = false;
    for (int i = 0; i < info_->nConstraint; ++i) {
      const auto& constraint = info_->aConstraint[i];
      if (i == match) continue;
      if (constraint.op == SQLITE_INDEX_CONSTRAINT_LIMIT ||
          constraint.op == SQLITE_INDEX_CONSTRAINT_OFFSET) {
        // SQLite itself leaves the first rows out.
        if (constraint.usable && (info_->nOrderBy == 0 || ordered)) {
          const bool is_limit = constraint.op == SQLITE_INDEX_CONSTRAINT_LIMIT;
          limited |= is_limit;
          use(i, is_limit ? "l" : "o", false);
        }
      } else if (constraint.iColumn == declaration_.k_column() &&
                 constraint.op == SQLITE_INDEX_CONSTRAINT_EQ) {
        limited = true;
        if (!use(i, "k")) return SQLITE_CONSTRAINT;
      } else if (constraint.iColumn > declaration_.command_column()) {
        continue;  // score and distance are known of the results alone
      } else if (!filter(i)) {
        return SQLITE_CONSTRAINT;
      }
    }
    info_->orderByConsumed = ordered;
    finish(access_path_of(conditions_));
    // SQLite may ask again without a limit: that plan is chosen only if there is no other, and
    // fails when it runs.
    if (!limited) info_->estimatedCost = 1e12;
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
  bool use(int constraint, const std::string& token, bool omit = true) {
    if (!info_->aConstraint[constraint].usable) return false;
    info_->aConstraintUsage[constraint].argvIndex = ++used_;
    info_->aConstraintUsage[constraint].omit = omit;
    tokens_ += (tokens_.empty() ? "" : ",") + token;
    return true;
  }

  // Every condition must be met before the best are taken, so one that cannot be is an error.
  bool filter(int i) {
    const auto& constraint = info_->aConstraint[i];
    const Sign* const sign = sign_of(constraint.op);
    if (!is_number(declaration_, constraint.iColumn) || sign == nullptr) {
      const std::string column =
          constraint.iColumn < declaration_.command_column()
              ? "by the column " + name_of_column(declaration_, constraint.iColumn) + " so"
              : "so";
      throw SqlError("a search cannot be filtered " + column +
                     ": compare the rowid or a column of integers");
    }
    const bool in = sign->test == Test::kEqual && sign->sign == '=' && constraint.usable &&
                    sqlite3_vtab_in(info_, i, 1) != 0;
    if (!use(i, std::to_string(constraint.iColumn) + (in ? kIn : sign->sign))) return false;
    conditions_.push_back({constraint.iColumn, in ? Test::kIn : sign->test, {}});
    if (!names_.empty()) names_ += ", ";
    names_ += name_of_column(declaration_, constraint.iColumn);
    return true;
  }

  void finish(const std::string& access_path) {
    std::string text = access_path;
    if (!names_.empty()) text += " by " + names_;
    text += " | " + tokens_;
    info_->idxNum = kSearch;
    info_->idxStr = sqlite3_mprintf("%s", text.c_str());
    if (info_->idxStr == nullptr) throw std::bad_alloc();
    info_->needToFreeIdxStr = 1;
    info_->estimatedCost = 1000;
    info_->estimatedRows = 10;
  }

  const Declaration& declaration_;
  sqlite3_index_info* info_;
  int used_ = 0;
  std::string tokens_;
  std::string names_;
  std::vector<Condition> conditions_;
};

// The number that a value is compared as, or none: null, a text that is no number, or a fraction.
std::optional<std::int64_t> whole_number(sqlite3_value* value, const std::string& column) {
  switch (sqlite3_value_numeric_type(value)) {
    case SQLITE_INTEGER:
      return sqlite3_value_int64(value);
    case SQLITE_FLOAT: {
      const double number = sqlite3_value_double(value);
      if (number != std::floor(number) || std::fabs(number) >= 0x1p63) {
        throw SqlError("the column " + column + " is compared with a number that is not whole");
      }
      return static_cast<std::int64_t>(number);
    }
    case SQLITE_NULL:
      return std::nullopt;
    default:
      throw SqlError("the column " + column + " is compared with a value that is no number");
  }
}

std::int64_t count_of(sqlite3_value* value, const char* what) {
  if (sqlite3_value_numeric_type(value) != SQLITE_INTEGER) {
    throw SqlError(std::string(what) + " is no whole number");
  }
  const std::int64_t count = sqlite3_value_int64(value);
  if (count < 0 || count > kLargestK) {
    throw SqlError(std::string(what) + " is " + std::to_string(count) + ", outside 0 to " +
                   std::to_string(kLargestK));
  }
  return count;
}

Condition read_condition(const std::string& name, int column, char sign, sqlite3_value* value,
                         Search* search) {
  if (sign == kIn) {
    Condition condition{column, Test::kIn, {}};
    sqlite3_value* member = nullptr;
    int result = sqlite3_vtab_in_first(value, &member);
    for (; result == SQLITE_OK && member != nullptr;
         result = sqlite3_vtab_in_next(value, &member)) {
      if (const auto number = whole_number(member, name)) condition.numbers.push_back(*number);
    }
    if (result != SQLITE_OK && result != SQLITE_DONE) throw SqlError(result, "IN cannot be read");
    std::sort(condition.numbers.begin(), condition.numbers.end());
    condition.numbers.erase(std::unique(condition.numbers.begin(), condition.numbers.end()),
                            condition.numbers.end());
    return condition;
  }
  const auto* const known = std::find_if(std::begin(kSigns), std::end(kSigns),
                                         [&](const Sign& s) { return s.sign == sign; });
  if (known == std::end(kSigns)) throw SqlError("the plan of the search is damaged");
  if (known->test == Test::kNull || known->test == Test::kNotNull) return {column, known->test, {}};
  const std::optional<std::int64_t> number = whole_number(value, name);
  if (number) return {column, known->test, {*number}};
  if (known->op == SQLITE_INDEX_CONSTRAINT_IS) return {column, Test::kNull, {}};
  search->nothing_passes = true;
  return {column, Test::kNull, {}};
}

}  // namespace

int choose_plan(const Declaration& declaration, sqlite3_index_info* info,
                const std::function<std::string(const std::vector<Condition>&)>& access_path_of) {
  Planner planner(declaration, info);
  const int match = planner.find_match();
  if (match >= 0) return planner.plan_search(match, access_path_of);
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
  std::string_view tokens = plan == nullptr ? "" : plan;
  tokens.remove_prefix(std::min(tokens.find(" | "), tokens.size() - 3) + 3);
  Search search;
  std::optional<std::int64_t> k, limit;
  std::int64_t offset = 0;
  for (int i = 0; i < count; ++i) {
    const std::size_t end = std::min(tokens.find(','), tokens.size());
    const std::string_view token = tokens.substr(0, end);
    tokens.remove_prefix(std::min(end + 1, tokens.size()));
    if (token == "m") {
      search.query =
          vector_of(arguments[i], declaration.dim,
                    declaration.columns[static_cast<std::size_t>(declaration.vector_column)].name);
    } else if (token == "k") {
      k = count_of(arguments[i], "k");
    } else if (token == "l") {
      // A negative limit is none.
      limit = sqlite3_value_int64(arguments[i]) < 0 ? kLargestK : count_of(arguments[i], "LIMIT");
    } else if (token == "o") {
      offset = std::clamp<std::int64_t>(sqlite3_value_int64(arguments[i]), 0, kLargestK);
    } else {
      int column = 0;
      const auto [sign, error] = std::from_chars(token.data(), token.data() + token.size(), column);
      if (error != std::errc() || sign + 1 != token.data() + token.size()) {
        throw SqlError("the plan of the search is damaged");
      }
      search.conditions.push_back(read_condition(name_of_column(declaration, column), column, *sign,
                                                 arguments[i], &search));
    }
  }
  if (!k && !limit) {
    throw SqlError(
        "a search needs 'k = N', or from SQLite 3.41 on 'LIMIT N', as its number of rows");
  }
  search.k = k.value_or(kLargestK);
  if (limit) search.k = std::min(search.k, std::min(*limit, kLargestK - offset) + offset);
  return search;
}

}  // namespace qx_sqlite
