#include "program.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace qx_sqlite {
namespace {

constexpr std::size_t kMostKnown = 64;
constexpr int kDeepest = 40;
// What a value depends on: cursors have their numbers; other sources have some beyond.
constexpr int kOuterRow = 1 << 24;   // of a trigger
constexpr int kElsewhere = 1 << 25;  // from here on: an instruction that is not understood
using Sources = std::set<int>;

struct Instruction {
  std::string name;
  int p1, p2, p3;
  std::string p4;
};

// Which register an instruction writes, and what it computes that from.
enum class From { kNothing, kCursor, kP1, kP1P2, kP3Arguments, kCopy, kRecord, kMembers, kOuter };
struct Meaning {
  const char* name;
  int output;  // 1 to 3: p1 to p3
  From from;
};
constexpr Meaning kMeanings[] = {
    {"Integer", 2, From::kNothing},
    {"Int64", 2, From::kNothing},
    {"Real", 2, From::kNothing},
    {"String8", 2, From::kNothing},
    {"String", 2, From::kNothing},
    {"Blob", 2, From::kNothing},
    {"Variable", 2, From::kNothing},
    {"Null", 2, From::kNothing},
    {"Rowid", 2, From::kCursor},
    {"IdxRowid", 2, From::kCursor},
    {"RowData", 2, From::kCursor},
    {"Column", 3, From::kCursor},
    {"VColumn", 3, From::kCursor},
    {"VInitIn", 2, From::kMembers},
    {"SCopy", 2, From::kP1},
    {"IntCopy", 2, From::kP1},
    {"Copy", 2, From::kCopy},
    {"Move", 2, From::kCopy},
    {"Not", 2, From::kP1},
    {"BitNot", 2, From::kP1},
    {"IsTrue", 2, From::kP1},
    {"Add", 3, From::kP1P2},
    {"Subtract", 3, From::kP1P2},
    {"Multiply", 3, From::kP1P2},
    {"Divide", 3, From::kP1P2},
    {"Remainder", 3, From::kP1P2},
    {"Concat", 3, From::kP1P2},
    {"BitAnd", 3, From::kP1P2},
    {"BitOr", 3, From::kP1P2},
    {"ShiftLeft", 3, From::kP1P2},
    {"ShiftRight", 3, From::kP1P2},
    {"And", 3, From::kP1P2},
    {"Or", 3, From::kP1P2},
    {"Function", 3, From::kP3Arguments},
    {"PureFunc", 3, From::kP3Arguments},
    {"MakeRecord", 3, From::kRecord},
    {"Param", 2, From::kOuter},
};

const Meaning* meaning_of(const Instruction& instruction) {
  const auto found = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                  [&](const Meaning& m) { return instruction.name == m.name; });
  return found == std::end(kMeanings) ? nullptr : found;
}

bool is_one_of(const std::string& name, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

constexpr std::initializer_list<const char*> kComparisons = {"Eq", "Ne", "Lt", "Le", "Gt", "Ge"};

// One program, or the one of a trigger, whose addresses begin anew.
class Program {
 public:
  std::vector<Instruction> code;
  Origins origins(int filter, int query) const {
    const Instruction& start = code[at(filter)];
    Origins result;
    result.known = true;
    const auto argument = [&](int i) { return sources(start.p3 + 2 + i, filter, 0); };
    const Sources of_query = argument(query);
    for (int i = 0; i < arguments(filter); ++i) {
      const Sources of_argument = argument(i);
      result.follows.push_back(
          std::includes(of_query.begin(), of_query.end(), of_argument.begin(), of_argument.end()));
      result.varies.push_back(result.follows.back() && !of_argument.empty());
    }
    find_tested(filter, of_query, &result.tested);
    return result;
  }

 private:
  static std::size_t at(int address) { return static_cast<std::size_t>(address); }
  int size() const { return static_cast<int>(code.size()); }

  // The number of arguments stands in the register after the plan's.
  int arguments(int filter) const {
    for (int i = filter; i-- > 0;) {
      if (code[at(i)].name == "Integer" && code[at(i)].p2 == code[at(filter)].p3 + 1) {
        return code[at(i)].p1;
      }
    }
    return 0;
  }

  static bool writes(const Instruction& i, int reg) {
    const Meaning* const meaning = meaning_of(i);
    if (meaning == nullptr) {
      return (i.name == "AggFinal" && i.p1 == reg) || (i.name == "AggValue" && i.p3 == reg);
    }
    const int first = meaning->output == 2 ? i.p2 : i.p3;
    int last = first;
    if (i.name == "Null") last = std::max(i.p3, first);
    if (i.name == "Copy") last = first + i.p3;
    if (i.name == "Move") last = first + std::max(i.p3, 1) - 1;
    return first <= reg && reg <= last;
  }

  // The innermost range of an instruction that jumps over code, with `address` in it and not
  // `other`; its own address, or -1.
  int range_around(const char* name, int address, int other) const {
    for (int i = address; i-- > 0;) {
      const Instruction& jump = code[at(i)];
      if (jump.name == name && jump.p2 > address && !(i < other && other < jump.p2)) return i;
    }
    return -1;
  }

  // What is computed once: a trigger runs once for each of its rows.
  Sources once_sources(int once) const {
    for (int i = once; i < code[at(once)].p2; ++i) {
      if (code[at(i)].name == "Param") return {kOuterRow};
    }
    return {};
  }

  Sources sources(int reg, int before, int depth) const {
    int address = before;
    while (address-- > 0 && !writes(code[at(address)], reg)) {
    }
    // Constants may be computed at the end, which runs first.
    for (int i = size(); address < 0 && i-- > before;) {
      if (writes(code[at(i)], reg)) address = i;
    }
    if (address < 0 || depth > kDeepest) return {kElsewhere + std::max(before, 0)};
    const int once = range_around("Once", address, before);
    if (once >= 0) return once_sources(once);
    const int coroutine = range_around("InitCoroutine", address, before);
    if (coroutine >= 0) return {kElsewhere + coroutine};
    return sources_of(address, reg, depth + 1);
  }

  Sources sources_of(int address, int reg, int depth) const {
    const Instruction& i = code[at(address)];
    const Meaning* const meaning = meaning_of(i);
    if (meaning == nullptr) return {kElsewhere + address};
    switch (meaning->from) {
      case From::kNothing:
        return {};
      case From::kCursor:
        return {row_of(i.p1)};
      case From::kOuter:
        return {kOuterRow};
      case From::kP1:
        return sources(i.p1, address, depth);
      case From::kCopy:
        return sources(i.p1 + reg - i.p2, address, depth);
      case From::kP1P2:
        return range(i.p1, 1, address, depth, range(i.p2, 1, address, depth, {}));
      case From::kP3Arguments:
        return range(i.p2, count_in(i.p4), address, depth, {});
      case From::kRecord:
        return range(i.p1, i.p2, address, depth, {});
      case From::kMembers:
        return members(i.p1, address, depth);
    }
    return {kElsewhere + address};
  }

  Sources range(int first, int count, int before, int depth, Sources all) const {
    for (int reg = first; reg < first + count; ++reg) all.merge(sources(reg, before, depth));
    return all;
  }

  // In "name(2)".
  static int count_in(const std::string& text) {
    const std::size_t bracket = text.find_last_of('(');
    int count = 0;
    if (bracket != std::string::npos) {
      std::from_chars(text.data() + bracket + 1, text.data() + text.size(), count);
    }
    return std::max(count, 0);
  }

  // An index and its table are at the same row.
  int row_of(int cursor) const {
    for (const Instruction& i : code) {
      if (i.name == "DeferredSeek" && i.p1 == cursor) return i.p3;
    }
    return cursor;
  }

  // What the members of an IN are computed from.
  Sources members(int cursor, int before, int depth) const {
    Sources all;
    for (int i = before; i-- > 0;) {
      const Instruction& opening = code[at(i)];
      if (is_one_of(opening.name, {"OpenRead", "OpenEphemeral"}) && opening.p1 == cursor) {
        const int once = range_around("Once", i, before);
        if (once >= 0) return once_sources(once);
        break;
      }
      if (opening.name == "IdxInsert" && opening.p1 == cursor) {
        all.merge(sources(opening.p2, i, depth));
      }
    }
    if (all.empty()) all.insert(kElsewhere + before);
    return all;
  }

  // ---- What SQLite tests by itself ----

  // Adds the columns of the search's cursor that a register is computed from, within the loop;
  // false if others come in that the query does not depend on.
  bool columns(int reg, int filter, int before, const Sources& of_query, int depth,
               std::set<int>* all) const {
    int address = before - 1;
    while (address > filter && !writes(code[at(address)], reg)) --address;
    if (address == filter) {
      const Sources outer = sources(reg, filter, depth);
      return std::includes(of_query.begin(), of_query.end(), outer.begin(), outer.end());
    }
    const Instruction& i = code[at(address)];
    const Meaning* const meaning = meaning_of(i);
    if (meaning == nullptr || depth > kDeepest) return false;
    if (meaning->from == From::kCursor) {
      if (i.p1 == code[at(filter)].p1) all->insert(i.name == "Rowid" ? -1 : i.p2);
      return i.p1 == code[at(filter)].p1;
    }
    std::vector<int> inputs;
    if (meaning->from == From::kP1) inputs = {i.p1};
    if (meaning->from == From::kCopy) inputs = {i.p1 + reg - i.p2};
    if (meaning->from == From::kP1P2) inputs = {i.p1, i.p2};
    for (int k = 0; meaning->from == From::kP3Arguments && k < count_in(i.p4); ++k) {
      inputs.push_back(i.p2 + k);
    }
    bool own = meaning->from != From::kOuter || of_query.contains(kOuterRow);
    for (const int input : inputs) {
      own = columns(input, filter, address, of_query, depth + 1, all) && own;
    }
    return meaning->from != From::kNothing ? own
                                           : own && chosen(filter, address, of_query, depth, all);
  }

  // A constant may be chosen by tests before it: CASE does so.
  bool chosen(int filter, int address, const Sources& of_query, int depth,
              std::set<int>* all) const {
    bool own = true;
    for (int i = address; --i > filter;) {
      const Instruction& test = code[at(i)];
      const bool is_test = is_one_of(test.name, kComparisons);
      if (!is_test || test.p2 < i || test.p2 > address + 1) continue;
      for (const int reg : {test.p1, test.p3}) {
        if (reg > 0) own = columns(reg, filter, i, of_query, depth + 1, all) && own;
      }
    }
    return own;
  }

  // Tests that go on to the next row of the search, without having read another table.
  void find_tested(int filter, const Sources& of_query, std::set<int>* tested) const {
    const int cursor = code[at(filter)].p1;
    int next = filter + 1;
    std::set<int> joined;
    while (next < size() && !(code[at(next)].name == "VNext" && code[at(next)].p1 == cursor))
      ++next;
    for (int address = filter + 1; address < next && next < size(); ++address) {
      const Instruction& i = code[at(address)];
      if (target(i.p2) != next) continue;
      std::vector<int> registers;
      if (is_one_of(i.name, kComparisons)) registers = {i.p1, i.p3};
      if (is_one_of(i.name, {"If", "IfNot"})) registers = {i.p1};
      if (is_one_of(i.name, {"Found", "NotFound"}) && !is_filled(i.p1, filter, next)) {
        registers = {i.p3};
      }
      std::set<int> all;
      bool own = true;
      if (is_one_of(i.name, {"Found", "NotFound"})) {
        const Sources listed = members(i.p1, address, 0);
        own = std::includes(of_query.begin(), of_query.end(), listed.begin(), listed.end());
      }
      for (const int reg : registers) own = columns(reg, filter, address, of_query, 0, &all) && own;
      (own ? *tested : joined).insert(all.begin(), all.end());
    }
    // A list may have columns of others and numbers.
    for (const int column : joined) tested->erase(column);
  }

  int target(int address) const {
    for (int steps = 0; steps < kDeepest && address < size() && code[at(address)].name == "Goto";
         ++steps) {
      address = code[at(address)].p2;
    }
    return address;
  }

  // Whether the loop itself adds to a table: DISTINCT does.
  bool is_filled(int cursor, int filter, int next) const {
    for (int i = filter; i < next; ++i) {
      if (code[at(i)].name == "IdxInsert" && code[at(i)].p1 == cursor &&
          range_around("Once", i, filter) < 0) {
        return true;
      }
    }
    return false;
  }
};

// The program of a statement, then those of its triggers.
std::vector<Program> read_programs(sqlite3* database, const std::string& sql) {
  std::vector<Program> programs;
  Statement(database, "EXPLAIN " + sql, 0).each([&](const Statement& row) {
    if (row.integer(0) == 0) programs.emplace_back();
    const auto number = [&](int column) { return static_cast<int>(row.integer(column)); };
    if (programs.empty()) return;
    programs.back().code.push_back(
        {std::string(row.text(1)), number(2), number(3), number(4), std::string(row.text(5))});
  });
  return programs;
}

std::vector<StatementText> texts_of(sqlite3* database, const char* sql, const std::string& table) {
  std::vector<StatementText> texts = {{sql, table}};
  if (texts[0].has_search()) return texts;
  std::vector<std::string> schemas;
  Statement(database, "PRAGMA database_list", 0).each([&](const Statement& row) {
    schemas.emplace_back(row.text(1));
  });
  for (const std::string& schema : schemas) {
    Statement(database,
              "SELECT sql FROM " + quoted(schema) +
                  ".sqlite_schema WHERE type IN ('view', "
                  "'trigger') AND sql LIKE '%match%'",
              0)
        .each([&](const Statement& row) { texts.emplace_back(row.text(0), table); });
  }
  // What is simple there may be searched by others.
  return texts;
}

// How the statement names the tables that are searched by a plan.
std::set<std::string> read_names(sqlite3* database, const std::string& sql,
                                 const std::string& plan) {
  std::set<std::string> names;
  Statement(database, "EXPLAIN QUERY PLAN " + sql, 0).each([&](const Statement& row) {
    const std::string_view text = row.text(3);  // SCAN name VIRTUAL TABLE INDEX 1:plan
    const std::size_t begin = text.find(' ') + 1, index = text.find(" VIRTUAL TABLE INDEX ");
    if (index == std::string_view::npos || text.find(plan, index) == std::string_view::npos) return;
    const std::size_t end = std::min(index, text.find(" EXISTS VIRTUAL"));
    std::string name(text.substr(begin, end - begin));
    for (char& letter : name) {
      if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    }
    names.insert(name);
  });
  return names;
}

// What holds of both.
void join(const Origins& found, Origins* all) {
  if (!all->known) {
    *all = found;
    return;
  }
  for (std::size_t i = 0; i < all->follows.size(); ++i) {
    all->follows[i] = i < found.follows.size() && all->follows[i] && found.follows[i];
    all->varies[i] = i < found.varies.size() && all->varies[i] && found.varies[i];
  }
  all->texts.insert(all->texts.end(), found.texts.begin(), found.texts.end());
  std::set<int> both;
  std::set_intersection(all->tested.begin(), all->tested.end(), found.tested.begin(),
                        found.tested.end(), std::inserter(both, both.begin()));
  all->tested = both;
  if (found.names.empty() || all->names.empty()) {
    all->names.clear();
  } else {
    all->names.insert(found.names.begin(), found.names.end());
  }
}

}  // namespace

StatementText::Written Origins::written(std::string_view column, StatementText::Test test,
                                        std::ptrdiff_t times) const {
  using Written = StatementText::Written;
  Written written = Written::kNo;
  for (const StatementText& text : texts) {
    if (text.is_simple()) return Written::kYes;
    const Written here = text.written(names, column, test, times);
    if (here == Written::kYes) return here;
    if (here == Written::kUnclear) written = here;
  }
  return written;
}

void Programs::forget() {
  if (!is_reading_) known_.clear();
}

// Whether a search of a statement may be that of a cursor, and is no other's.
bool Programs::has_left(sqlite3_stmt* statement, const std::string& plan, int searches,
                        const void* cursor) const {
  const std::pair wanted(statement, plan);
  const auto own = statements_.find(cursor);
  if (own != statements_.end()) return own->second == wanted;
  return std::count_if(statements_.begin(), statements_.end(),
                       [&](const auto& other) { return other.second == wanted; }) < searches;
}

Origins Programs::origins(sqlite3* database, const void* table, const std::string& table_name,
                          const std::string& plan, int query, const void* cursor) {
  Origins all;
  std::vector<sqlite3_stmt*> possible;
  char name[40];
  sqlite3_snprintf(sizeof name, name, "vtab:%p", table);
  const auto read = [&](const std::string& sql) {
    Origins of_statement;
    for (const Program& program : read_programs(database, sql)) {
      std::set<int> cursors;
      for (int i = 0; i < static_cast<int>(program.code.size()); ++i) {
        const Instruction& instruction = program.code[static_cast<std::size_t>(i)];
        if (instruction.name == "VOpen" && instruction.p4 == name) cursors.insert(instruction.p1);
        const bool is_it = instruction.name == "VFilter" && cursors.contains(instruction.p1) &&
                           instruction.p4 == plan;
        if (!is_it) continue;
        join(program.origins(i, query), &of_statement);
        ++of_statement.searches;
      }
    }
    if (of_statement.known) of_statement.names = read_names(database, sql, plan);
    return of_statement;
  };
  for (sqlite3_stmt* statement = sqlite3_next_stmt(database, nullptr); statement != nullptr;
       statement = sqlite3_next_stmt(database, statement)) {
    const char* const sql = sqlite3_sql(statement);
    if (sqlite3_stmt_busy(statement) == 0 || sql == nullptr) continue;
    const std::string key = joined(sql, "\n", plan);
    if (!known_.contains(key)) {
      if (known_.size() >= kMostKnown) known_.clear();
      is_reading_ = true;
      Origins found;
      guarded(
          [&] {
            found = read(sql);
            if (found.known) found.texts = texts_of(database, sql, table_name);
          },
          [](const char*) {});
      is_reading_ = false;
      known_[key] = found;
    }
    const Origins& found = known_[key];
    if (!found.known || !has_left(statement, plan, found.searches, cursor)) continue;
    join(found, &all);
    possible.push_back(statement);
  }
  if (possible.size() == 1) statements_.insert_or_assign(cursor, std::pair(possible[0], plan));
  return all;
}

}  // namespace qx_sqlite
