#include "plan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>

namespace qx_sqlite {
namespace {

constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();
constexpr int kRowid = -1;
constexpr int kIn = 0;  // in a plan's text; SQLite's own constraint is an equal one

// What a plan's text says of an argument, beside its column and operator.
constexpr int kLiteral = 1;     // it stands in the statement
constexpr int kOtherOrder = 2;  // texts are to be compared by another order than that of bytes

// Operators as the collection's filters have them. IS compares as = does, and with null, too.
const char* operator_of(int op) {
  static const std::map<int, const char*> operators = {
      {SQLITE_INDEX_CONSTRAINT_EQ, "="},
      {SQLITE_INDEX_CONSTRAINT_NE, "<>"},
      {SQLITE_INDEX_CONSTRAINT_LT, "<"},
      {SQLITE_INDEX_CONSTRAINT_LE, "<="},
      {SQLITE_INDEX_CONSTRAINT_GT, ">"},
      {SQLITE_INDEX_CONSTRAINT_GE, ">="},
      {SQLITE_INDEX_CONSTRAINT_ISNULL, "IS"},
      {SQLITE_INDEX_CONSTRAINT_IS, "IS"},
      {SQLITE_INDEX_CONSTRAINT_ISNOTNULL, "IS NOT"},
      {SQLITE_INDEX_CONSTRAINT_ISNOT, "IS NOT"},
      {kIn, "IN"}};
  const auto found = operators.find(op);
  return found == operators.end() ? nullptr : found->second;
}
StatementText::Test written_as(int op) {
  using Test = StatementText::Test;
  switch (op) {
    case kIn:
      return Test::kIn;
    case SQLITE_INDEX_CONSTRAINT_EQ:
    case SQLITE_INDEX_CONSTRAINT_IS:
      return Test::kEqual;
    case SQLITE_INDEX_CONSTRAINT_NE:
    case SQLITE_INDEX_CONSTRAINT_ISNOT:
      return Test::kUnequal;
    case SQLITE_INDEX_CONSTRAINT_ISNULL:
    case SQLITE_INDEX_CONSTRAINT_ISNOTNULL:
      return Test::kNull;
    case SQLITE_INDEX_CONSTRAINT_LT:
    case SQLITE_INDEX_CONSTRAINT_LE:
      return Test::kLess;
    case SQLITE_INDEX_CONSTRAINT_GT:
    case SQLITE_INDEX_CONSTRAINT_GE:
      return Test::kMore;
    default:
      return Test::kLike;
  }
}

bool is_test_for_null(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_ISNULL || op == SQLITE_INDEX_CONSTRAINT_ISNOTNULL;
}

std::string name_of_column(const Declaration& declaration, int column) {
  if (column == kRowid) return "rowid";
  if (column == declaration.score_column()) return "score";
  if (column == declaration.distance_column()) return "distance";
  return declaration.columns[static_cast<std::size_t>(column)].name;
}
bool orders(int op) {
  return written_as(op) == StatementText::Test::kLess ||
         written_as(op) == StatementText::Test::kMore;
}
bool compares_scores(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_EQ || op == SQLITE_INDEX_CONSTRAINT_NE || orders(op);
}
bool can_filter(const Declaration& declaration, int column) {
  return column == kRowid || declaration.columns[static_cast<std::size_t>(column)].is_filter();
}

// ---- Planning ----

// Collects which constraints a search gets, and in which order.
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

  int plan_search(int match) {
    const bool ordered = order_is_ours();
    if (!use(match, true)) return SQLITE_CONSTRAINT;
    bool limited = false;
    for (int i = 0; i < info_->nConstraint; ++i) {
      const auto& constraint = info_->aConstraint[i];
      const int op = constraint.op;
      if (i == match || op == SQLITE_INDEX_CONSTRAINT_MATCH) continue;
      if (op == SQLITE_INDEX_CONSTRAINT_LIMIT || op == SQLITE_INDEX_CONSTRAINT_OFFSET) {
        // SQLite itself leaves the first rows out.
        const bool used = (info_->nOrderBy == 0 || ordered) && use(i, false);
        limited |= used && op == SQLITE_INDEX_CONSTRAINT_LIMIT;
      } else if (constraint.iColumn == declaration_.k_column() ||
                 constraint.iColumn == declaration_.filter_column()) {
        if (op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
        limited |= constraint.iColumn == declaration_.k_column();
        if (!use(i, true)) return SQLITE_CONSTRAINT;
      } else if (constraint.iColumn == declaration_.score_column() ||
                 constraint.iColumn == declaration_.distance_column()) {
        limited |= compares_scores(op) && sqlite3_vtab_in(info_, i, -1) == 0 && use(i, false);
      } else if (constraint.iColumn < declaration_.command_column() &&
                 constraint.iColumn != declaration_.vector_column) {
        condition(i);
      }
    }
    info_->orderByConsumed = ordered;
    finish(limited);
    return SQLITE_OK;
  }

  // Whether it compares what only a search has, without MATCH.
  bool is_part_of_search() const {
    bool is_part = false;
    for (int i = 0; i < info_->nConstraint; ++i) {
      const auto& constraint = info_->aConstraint[i];
      if (constraint.op == SQLITE_INDEX_CONSTRAINT_MATCH) return false;
      is_part |= constraint.iColumn > declaration_.command_column() &&
                 constraint.op != SQLITE_INDEX_CONSTRAINT_ISNULL;
    }
    return is_part;
  }

  // SQLite takes this plan where there is no other: for an OR of a join it tries a part of a
  // search.
  void refuse() {
    info_->idxNum = kRefused;
    info_->estimatedCost = 1e99;
  }

  void plan_scan() {
    std::string where, order;
    double cost = 1e6;
    for (int i = 0; i < info_->nConstraint; ++i) {
      const auto& constraint = info_->aConstraint[i];
      const bool equal = constraint.op == SQLITE_INDEX_CONSTRAINT_EQ;
      const bool limits = equal || orders(constraint.op);
      if (!constraint.usable || constraint.iColumn != kRowid || !limits) continue;
      info_->aConstraintUsage[i].argvIndex = ++used_;
      where += joined(where.empty() ? "WHERE" : " AND", " rowid ", operator_of(constraint.op), " ?",
                      used_);
      if (equal) info_->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
      cost = std::min(cost, equal ? 10 : 1e5);
    }
    if (info_->nOrderBy == 1 && info_->aOrderBy[0].iColumn == kRowid) {
      order = info_->aOrderBy[0].desc ? " ORDER BY rowid DESC" : " ORDER BY rowid";
      info_->orderByConsumed = 1;
    }
    // The last bit is that of all columns from there on.
    const int columns = std::min(declaration_.command_column(), 63);
    const auto declared =
        (sqlite3_uint64{1} << columns) - 1 + (columns == 63 ? sqlite3_uint64{1} << 63 : 0);
    info_->idxNum = (info_->colUsed & declared) == 0 ? kRowids : kScan;
    info_->estimatedCost = cost;
    info_->estimatedRows = std::max(static_cast<sqlite3_int64>(cost / 10), sqlite3_int64{1});
    set_text(where + order);
  }

 private:
  bool order_is_ours() const {
    if (info_->nOrderBy != 1) return false;
    const auto& term = info_->aOrderBy[0];
    return (term.iColumn == declaration_.distance_column() && !term.desc) ||
           (term.iColumn == declaration_.score_column() && term.desc);
  }

  // False where the value is not known in this order of joins.
  bool use(int i, bool omit, int flags = 0, bool in = false) {
    const auto& constraint = info_->aConstraint[i];
    if (!constraint.usable) return false;
    info_->aConstraintUsage[i].argvIndex = ++used_;
    info_->aConstraintUsage[i].omit = omit;
    arguments_ += joined(" ", constraint.iColumn, " ", in ? kIn : int{constraint.op}, " ", flags);
    return true;
  }

  // Whether it is met before the best are taken is decided when the search runs; SQLite tests it in
  // any case.
  void condition(int i) {
    const auto& constraint = info_->aConstraint[i];
    if (!constraint.usable) return;
    const bool in =
        constraint.op == SQLITE_INDEX_CONSTRAINT_EQ && sqlite3_vtab_in(info_, i, 1) != 0;
    sqlite3_value* value = nullptr;
    const bool literal = is_test_for_null(constraint.op) ||
                         (!in && sqlite3_vtab_rhs_value(info_, i, &value) == SQLITE_OK);
    const bool is_text = constraint.iColumn >= 0 &&
                         declaration_.columns[static_cast<std::size_t>(constraint.iColumn)].kind ==
                             ColumnKind::kText;
    const bool by_bytes =
        !is_text || sqlite3_stricmp(sqlite3_vtab_collation(info_, i), "BINARY") == 0;
    use(i, false, (literal ? kLiteral : 0) | (by_bytes ? 0 : kOtherOrder), in);
    names_ += joined(names_.empty() ? "filtered by " : ", ",
                     name_of_column(declaration_, constraint.iColumn));
  }

  // The text: for who reads it, then the column, the operator and the flags of each argument.
  void finish(bool limited) {
    info_->idxNum = kSearch;
    set_text(joined(names_.empty() ? "exact" : names_, " |", arguments_));
    // Less than a row by its rowid, or SQLite takes conditions with OR apart, and scans for each.
    // It may ask again without a limit: that plan is chosen only if there is no other, and fails
    // when it runs.
    info_->estimatedCost = limited ? 1 : 1e12;
    info_->estimatedRows = 10;
  }

  void set_text(const std::string& text) {
    info_->idxStr = sqlite3_mprintf("%s", text.c_str());
    if (info_->idxStr == nullptr) throw std::bad_alloc();
    info_->needToFreeIdxStr = 1;
  }

  const Declaration& declaration_;
  sqlite3_index_info* info_;
  int used_ = 0;
  std::string arguments_;
  std::string names_;
};

// ---- Reading the arguments of a run ----

// An integer where a number is one, or none.
std::optional<std::int64_t> whole(double number) {
  const double beyond = std::ldexp(1, 63);
  if (number != std::floor(number) || number < -beyond || number >= beyond) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::int64_t count_of(sqlite3_value* value, const char* what) {
  require(sqlite3_value_type(value) != SQLITE_NULL, what, " is NULL, no whole number");
  const int type = sqlite3_value_numeric_type(value);
  const bool is_number = type == SQLITE_INTEGER || type == SQLITE_FLOAT;
  const auto count = type == SQLITE_INTEGER
                         ? std::optional(std::int64_t{sqlite3_value_int64(value)})
                         : whole(is_number ? sqlite3_value_double(value) : 0.5);
  require(count.has_value(), what, " is no whole number");
  require(*count >= 0, what, " is ", *count, ", below 0");
  return *count;
}

// A number as a filter has it.
std::string number_text(sqlite3_value* value, const std::string& column) {
  const int type = sqlite3_value_numeric_type(value);
  if (type == SQLITE_INTEGER) return std::to_string(sqlite3_value_int64(value));
  require(type == SQLITE_FLOAT, "the column ", column,
          " is compared with a value that is no number");
  const double number = sqlite3_value_double(value);
  require(std::isfinite(number), "the column ", column, " is compared with an infinite number");
  char digits[40];
  std::string text(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
  return text.find_first_of(".e") == std::string::npos ? text + ".0" : text;
}

std::string literal_text(const Column& column, sqlite3_value* value) {
  if (column.kind != ColumnKind::kText) return number_text(value, column.name);
  require(sqlite3_value_type(value) != SQLITE_BLOB, "the column ", column.name,
          " is compared with a BLOB");
  std::string text = "'";
  for (const char letter : text_of(value)) {
    require(letter != 0, "the column ", column.name, " is compared with a text that has a NUL");
    if (letter == '\'') text += '\'';
    text += letter;
  }
  return text + '\'';
}

// Calls take(member) for those of an IN that are not null.
template <typename Take>
void each_member(sqlite3_value* value, Take take) {
  sqlite3_value* member = nullptr;
  int result = sqlite3_vtab_in_first(value, &member);
  for (; result == SQLITE_OK && member != nullptr; result = sqlite3_vtab_in_next(value, &member)) {
    if (sqlite3_value_type(member) != SQLITE_NULL) take(member);
  }
  if (result != SQLITE_OK && result != SQLITE_DONE) throw SqlError(result, "IN cannot be read");
}

struct Argument {
  int column, op, flags;
  sqlite3_value* value;
};

class SearchReader {
 public:
  explicit SearchReader(const Declaration& declaration) : declaration_(declaration) {}

  Search read(std::span<const Argument> arguments, const std::function<Origins(int)>& origins) {
    int query = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      if (arguments[i].op == SQLITE_INDEX_CONSTRAINT_MATCH) query = static_cast<int>(i);
    }
    const Origins from = origins(query);
    require(
        std::none_of(from.texts.begin(), from.texts.end(),
                     [](const StatementText& text) { return text.has_row_value(); }),
        "beside a search no row values are compared: compare their columns one by one, or search "
        "in a WITH ... AS MATERIALIZED");
    bool late = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      const Argument& argument = arguments[i];
      if (takes_as_setting(argument)) continue;
      const bool first = leaves_farthest_out(argument) || is_first(from, arguments, i);
      late |= !first;
      if (first) add_condition(argument);
    }
    refuse_tested(from, arguments);
    set_k(late);
    return std::move(search_);
  }

 private:
  static bool is_constant(const Argument& argument) {
    return (argument.flags & kLiteral) != 0 ||
           (argument.op != kIn && sqlite3_value_frombind(argument.value) != 0);
  }

  // With how many values the column of argument i is so compared. Unequal ones that all must be
  // met leave nothing, whoever has written them.
  std::ptrdiff_t comparisons(const Origins& from, std::span<const Argument> arguments,
                             std::size_t i) const {
    const StatementText::Test test = written_as(arguments[i].op);
    std::vector<const Argument*> different;
    for (std::size_t j = 0; j < arguments.size(); ++j) {
      const Argument& other = arguments[j];
      const bool counts = other.column == arguments[i].column && written_as(other.op) == test &&
                          (is_constant(other) || from.follows[j]);
      if (!counts) continue;
      const auto same = [&](const Argument* one) {
        return one->op == other.op && other.op != kIn && equal(one->value, other.value);
      };
      if (std::none_of(different.begin(), different.end(), same)) different.push_back(&other);
    }
    return test == StatementText::Test::kEqual ? 1 : std::ssize(different);
  }

  static bool equal(sqlite3_value* one, sqlite3_value* other) {
    const int type = sqlite3_value_type(one);
    if (type != sqlite3_value_type(other) || type == SQLITE_BLOB) return false;
    return type == SQLITE_TEXT ? text_of(one) == text_of(other)
                               : sqlite3_value_int64(one) == sqlite3_value_int64(other) &&
                                     sqlite3_value_double(one) == sqlite3_value_double(other);
  }

  // Whether a condition is met before the best are taken.
  bool is_first(const Origins& from, std::span<const Argument> arguments, std::size_t i) const {
    const bool constant = is_constant(arguments[i]);
    if (!from.known || i >= from.follows.size()) return constant;
    if (from.varies[i]) return true;
    if (!constant && !from.follows[i]) return false;
    using Written = StatementText::Written;
    const std::string name = name_of_column(declaration_, arguments[i].column);
    const Written written =
        from.written(name, written_as(arguments[i].op), comparisons(from, arguments, i));
    require(written != Written::kUnclear, "it is not clear which search is filtered by ", name,
            ", and which condition is one of an outer SELECT or a join: search in a WITH ... AS "
            "MATERIALIZED");
    return written == Written::kYes;
  }

  // The query, k, limits and the text of a filter are no conditions on rows.
  bool takes_as_setting(const Argument& argument) {
    sqlite3_value* const value = argument.value;
    if (argument.op == SQLITE_INDEX_CONSTRAINT_MATCH) {
      if (sqlite3_value_type(value) == SQLITE_NULL)
        search_.nothing_passes = true;
      else
        search_.query =
            vector_of(value, declaration_.dim, name_of_column(declaration_, argument.column));
    } else if (argument.op == SQLITE_INDEX_CONSTRAINT_LIMIT) {
      // A negative limit is none.
      limit_ = sqlite3_value_int64(value) < 0 ? kNoLimit : count_of(value, "LIMIT");
    } else if (argument.op == SQLITE_INDEX_CONSTRAINT_OFFSET) {
      offset_ = std::max<std::int64_t>(sqlite3_value_int64(value), 0);
    } else if (argument.column == declaration_.k_column()) {
      k_ = count_of(value, "k");
    } else if (argument.column == declaration_.filter_column()) {
      require(sqlite3_value_type(value) == SQLITE_TEXT, "filter is no text");
      add_filter(joined("(", text_of(value), ")"));
    } else {
      return false;
    }
    return true;
  }

  bool is_of_score(const Argument& argument) const {
    return argument.column == declaration_.score_column() ||
           argument.column == declaration_.distance_column();
  }
  // Whether it is met before or after the best are taken makes no difference.
  bool leaves_farthest_out(const Argument& argument) const {
    const bool less = written_as(argument.op) == StatementText::Test::kLess;
    return is_of_score(argument) && orders(argument.op) &&
           less == (argument.column == declaration_.distance_column());
  }

  void add_score_test(const Argument& argument) {
    const bool of_score = argument.column == declaration_.score_column();
    const int type = sqlite3_value_numeric_type(argument.value);
    has_threshold_ |= leaves_farthest_out(argument);
    search_.nothing_passes |= type == SQLITE_NULL;
    if (type == SQLITE_NULL) return;
    require(type == SQLITE_INTEGER || type == SQLITE_FLOAT, "the ",
            name_of_column(declaration_, argument.column),
            " is compared with a value that is no number");
    const double number = sqlite3_value_double(argument.value);
    search_.tests.push_back({of_score, argument.op, number});
    if (!leaves_farthest_out(argument)) return;
    const double one = declaration_.metric == Metric::kCosine ? 1 : 0;
    search_.farthest = std::min(search_.farthest, of_score ? one - number : number);
  }

  void add_filter(const std::string& text) {
    search_.filter += joined(search_.filter.empty() ? "" : " AND ", text);
  }

  void add_condition(const Argument& argument) {
    if (is_of_score(argument)) return add_score_test(argument);
    const char* const op = operator_of(argument.op);
    const std::string name = name_of_column(declaration_, argument.column);
    require(op != nullptr && (argument.flags & kOtherOrder) == 0 &&
                can_filter(declaration_, argument.column),
            how_to_write(name));
    if (argument.column == kRowid) return add_rowid(argument);
    const Column& column = declaration_.columns[static_cast<std::size_t>(argument.column)];
    const std::string quoted_name = quoted(name);
    if (argument.op == kIn) {
      std::string members;
      each_member(argument.value, [&](sqlite3_value* member) {
        members += joined(members.empty() ? "" : ", ", literal_text(column, member));
      });
      search_.nothing_passes |= members.empty();
      if (!members.empty()) add_filter(joined(quoted_name, " IN (", members, ")"));
      return;
    }
    const bool is = op[0] == 'I';
    if (is_test_for_null(argument.op) || sqlite3_value_type(argument.value) == SQLITE_NULL) {
      search_.nothing_passes |= !is;
      if (is) add_filter(joined(quoted_name, " ", op, " NULL"));
      return;
    }
    const std::string value = literal_text(column, argument.value);
    if (!is) return add_filter(joined(quoted_name, " ", op, " ", value));
    if (op[2] == 0) return add_filter(joined(quoted_name, " = ", value));
    add_filter(joined("(", quoted_name, " <> ", value, " OR ", quoted_name, " IS NULL)"));
  }

  // ---- Rowids ----

  void add_rowid(const Argument& argument) {
    if (argument.op == kIn) {
      std::vector<std::int64_t> rowids;
      each_member(argument.value, [&](sqlite3_value* member) {
        if (const auto rowid = rowid_of(member)) rowids.push_back(*rowid);
      });
      return add_among(std::move(rowids));
    }
    const bool is_null =
        is_test_for_null(argument.op) || sqlite3_value_type(argument.value) == SQLITE_NULL;
    const bool differs = argument.op == SQLITE_INDEX_CONSTRAINT_ISNOT ||
                         argument.op == SQLITE_INDEX_CONSTRAINT_ISNOTNULL;
    if (is_null) {
      search_.nothing_passes |= !differs;
      return;
    }
    const auto rowid = rowid_of(argument.value);
    switch (argument.op) {
      case SQLITE_INDEX_CONSTRAINT_EQ:
      case SQLITE_INDEX_CONSTRAINT_IS:
        return add_among(rowid ? std::vector{*rowid} : std::vector<std::int64_t>());
      case SQLITE_INDEX_CONSTRAINT_NE:
      case SQLITE_INDEX_CONSTRAINT_ISNOT:
        if (rowid) search_.without.push_back(*rowid);
        return;
      default:
        add_range(argument);
    }
  }

  // None where no rowid equals the number.
  std::optional<std::int64_t> rowid_of(sqlite3_value* value) const {
    const int type = sqlite3_value_numeric_type(value);
    if (type == SQLITE_INTEGER) return sqlite3_value_int64(value);
    require(type == SQLITE_FLOAT, "the rowid is compared with a value that is no number");
    return whole(sqlite3_value_double(value));
  }

  void add_among(std::vector<std::int64_t> rowids) {
    std::sort(rowids.begin(), rowids.end());
    rowids.erase(std::unique(rowids.begin(), rowids.end()), rowids.end());
    if (search_.among) {
      std::vector<std::int64_t> both;
      std::set_intersection(rowids.begin(), rowids.end(), search_.among->begin(),
                            search_.among->end(), std::back_inserter(both));
      rowids = both;
    }
    search_.among = std::move(rowids);
  }

  void add_range(const Argument& argument) {
    constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
    constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
    const bool above =
        argument.op == SQLITE_INDEX_CONSTRAINT_GT || argument.op == SQLITE_INDEX_CONSTRAINT_GE;
    bool open =
        argument.op == SQLITE_INDEX_CONSTRAINT_GT || argument.op == SQLITE_INDEX_CONSTRAINT_LT;
    auto bound = rowid_of(argument.value);
    if (!bound) {
      const double number = sqlite3_value_double(argument.value);
      bound = whole(above ? std::ceil(number) : std::floor(number));
      open = false;
      if (!bound) {  // beyond all rowids
        search_.nothing_passes |= (number > 0) == above;
        return;
      }
    }
    search_.nothing_passes |= open && *bound == (above ? kMost : kLeast);
    if (search_.nothing_passes) return;
    if (above)
      search_.first = std::max(search_.first, *bound + (open ? 1 : 0));
    else
      search_.last = std::min(search_.last, *bound - (open ? 1 : 0));
  }

  // ---- The end ----

  static std::string how_to_write(const std::string& name) {
    return joined(
        "a search cannot be filtered by ", name,
        " so before the best rows are taken: compare the rowid or a column of numbers or "
        "texts by =, <>, <, <=, >, >=, IN or IS; or write filter = '...', or rowid IN "
        "(SELECT ...); to choose among the best rows, search in a WITH ... AS MATERIALIZED");
  }

  void refuse_tested(const Origins& from, std::span<const Argument> arguments) const {
    for (const int column : from.tested) {
      const bool ours = std::any_of(arguments.begin(), arguments.end(),
                                    [&](const Argument& a) { return a.column == column; });
      if (ours || column >= declaration_.command_column() || column == declaration_.vector_column) {
        continue;
      }
      require(false, how_to_write(name_of_column(declaration_, column)));
    }
  }

  void set_k(bool late) {
    require(k_ || limit_ || has_threshold_,
            "a search needs 'k = N' as its number of rows, or a threshold as 'score > 0.7'; LIMIT "
            "will do from SQLite 3.41 on, where it stands in the same SELECT with conditions that "
            "the search itself can meet");
    require(k_ || has_threshold_ || !late,
            "a search that is joined needs 'k = N' as its number of rows; LIMIT counts rows of the "
            "join");
    search_.k = k_.value_or(kNoLimit);
    // LIMIT does not count rows that are left out.
    if (!limit_ || late) return;
    search_.k = std::min(search_.k, *limit_ > kNoLimit - offset_ ? kNoLimit : *limit_ + offset_);
  }

  const Declaration& declaration_;
  Search search_;
  std::optional<std::int64_t> k_, limit_;
  std::int64_t offset_ = 0;
  bool has_threshold_ = false;
};

}  // namespace

bool ScoreTest::passes(double score, double distance) const {
  const double found = of_score ? score : distance;
  switch (op) {
    case SQLITE_INDEX_CONSTRAINT_EQ:
      return found == number;
    case SQLITE_INDEX_CONSTRAINT_NE:
      return found != number;
    case SQLITE_INDEX_CONSTRAINT_LT:
      return found < number;
    case SQLITE_INDEX_CONSTRAINT_LE:
      return found <= number;
    case SQLITE_INDEX_CONSTRAINT_GT:
      return found > number;
    default:
      return found >= number;
  }
}

int choose_plan(const Declaration& declaration, sqlite3_index_info* info) {
  Planner planner(declaration, info);
  const int match = planner.find_match();
  if (match >= 0) return planner.plan_search(match);
  planner.is_part_of_search() ? planner.refuse() : planner.plan_scan();
  return SQLITE_OK;
}

Search read_search(const Declaration& declaration, const char* plan, int count,
                   sqlite3_value** arguments, const std::function<Origins(int query)>& origins) {
  const char* const end = plan + std::strlen(plan);
  const char* at = std::find(plan, end, '|');
  const auto next = [&] {
    int number = 0;
    at = std::from_chars(std::find(at, end, ' ') + 1, end, number).ptr;
    return number;
  };
  std::vector<Argument> given;
  for (sqlite3_value* const value : std::span(arguments, static_cast<std::size_t>(count))) {
    const int column = next();
    const int op = next();
    given.push_back({column, op, next(), value});
  }
  return SearchReader(declaration).read(given, origins);
}

}  // namespace qx_sqlite
