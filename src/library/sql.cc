#include "library/sql.h"

#include <ctype.h>
#include <sqlite3.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <new>
#include <string>
#include <vector>

#include "library/gathered_journal.h"
#include "library/schema.h"

namespace {

// ---------------------------------------------------------------------------
// Where the values of a composed text went.

// Whether `len` bytes of value v may stand where the format put them: inside a
// literal quoted with `quote`, anything but that quote; outside any literal
// (quote 0), only a name's characters.
bool value_fits(const char* v, size_t len, char quote) {
  if (quote != 0) return memchr(v, quote, len) == nullptr;
  for (size_t i = 0; i < len; ++i)
    if (!isalnum(static_cast<unsigned char>(v[i])) && v[i] != '_') return false;
  return true;
}

// Walks fmt as vsnprintf does, taking each argument in turn, and tells whether
// some value does not fit where the format put it. The format's own quotes
// open and close its literals; a doubled quote closes and reopens one, which
// is what it means to SQL too. A conversion it does not know (such as %n)
// counts as not fitting.
bool some_value_breaks_out(const char* fmt, va_list ap) {
  char quote = 0;
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (*p != '%') {
      if (quote == 0 && (*p == '"' || *p == '\''))
        quote = *p;
      else if (*p == quote)
        quote = 0;
      continue;
    }
    ++p;
    if (*p == '%') continue;
    while (*p != '\0' && strchr("-+ #0'", *p) != nullptr) ++p;
    if (*p == '*') {
      (void)va_arg(ap, int);
      ++p;
    }
    while (isdigit(static_cast<unsigned char>(*p))) ++p;
    int precision = -1;
    if (*p == '.') {
      ++p;
      precision = 0;
      if (*p == '*') {
        precision = va_arg(ap, int);
        ++p;
      }
      for (; isdigit(static_cast<unsigned char>(*p)); ++p) precision = precision * 10 + (*p - '0');
    }
    // Length: only the argument's size matters here.
    char len = 0;
    if (*p == 'h' || *p == 'l') {
      len = *p++;
      if (*p == len) {
        len = len == 'l' ? 'q' : 'h';
        ++p;
      }
    } else if (*p != '\0' && strchr("jztL", *p) != nullptr) {
      len = *p++;
    }
    switch (*p) {
      case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
        if (len == 'l') (void)va_arg(ap, long);
        else if (len == 'q') (void)va_arg(ap, long long);
        else if (len == 'j') (void)va_arg(ap, intmax_t);
        else if (len == 'z') (void)va_arg(ap, size_t);
        else if (len == 't') (void)va_arg(ap, ptrdiff_t);
        else (void)va_arg(ap, int);
        break;
      case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        if (len == 'L') (void)va_arg(ap, long double);
        else (void)va_arg(ap, double);
        break;
      case 'p':
        (void)va_arg(ap, void*);
        break;
      case 'c': {
        const char c = static_cast<char>(va_arg(ap, int));
        if (!value_fits(&c, 1, quote)) return true;
        break;
      }
      case 's': {
        const char* v = va_arg(ap, const char*);
        if (v == nullptr) v = "(null)";
        const size_t n = precision >= 0 ? strnlen(v, static_cast<size_t>(precision)) : strlen(v);
        if (!value_fits(v, n, quote)) return true;
        break;
      }
      default:
        return true;
    }
    if (*p == '\0') break;
  }
  return false;
}

// The last few texts sql_format composed, by buffer: a statement is composed
// and run right away, so a handful covers every caller. Only the main thread
// composes and runs SQL.
struct Composed {
  const char* buf = nullptr;
  std::string text;
  bool breaks_out = false;
};
constexpr int kComposedSlots = 4;
Composed composed[kComposedSlots];
int next_slot = 0;

void note_composed(const char* buf, bool breaks_out) {
  Composed* slot = nullptr;
  for (Composed& c : composed)
    if (c.buf == buf) slot = &c;
  if (slot == nullptr) {
    slot = &composed[next_slot];
    next_slot = (next_slot + 1) % kComposedSlots;
  }
  slot->buf = buf;
  slot->text = buf;
  slot->breaks_out = breaks_out;
}

// Whether sql is a text sql_format composed with a value out of its place.
// Texts it did not compose are the program's own fixed statements.
bool breaks_out(const char* sql) {
  for (const Composed& c : composed)
    if (c.buf == sql && c.text == sql) return c.breaks_out;
  return false;
}

}  // namespace

bool sql_format(char* buf, size_t cap, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list values;
  va_copy(values, ap);
  const int n = vsnprintf(buf, cap, fmt, ap);
  va_end(ap);
  if (cap > 0) note_composed(buf, some_value_breaks_out(fmt, values));
  va_end(values);
  return n >= 0 && static_cast<size_t>(n) < cap;
}

bool sql_format_row(char* buf, size_t cap, const char* table, const char* const* values, size_t count) {
  std::string text = "insert into ";
  text += table;
  text += " values (";
  bool out_of_place = !value_fits(table, strlen(table), 0);
  for (size_t i = 0; i < count; ++i) {
    if (i > 0) text += ',';
    text += '"';
    text += values[i];
    text += '"';
    out_of_place = out_of_place || strchr(values[i], '"') != nullptr;
  }
  text += ");";
  if (cap == 0) return false;
  const size_t n = text.size() < cap ? text.size() : cap - 1;
  memcpy(buf, text.data(), n);
  buf[n] = '\0';
  note_composed(buf, out_of_place);
  return text.size() < cap;
}

namespace {

// ---------------------------------------------------------------------------
// The connection's limits.

// What one statement did, as the authorizer has seen it while preparing.
struct Seen {
  int selects = 0;
  bool writes = false;
  bool creates = false;
};
Seen seen;

// VM steps of the statement now running, and their bound.
constexpr int kStepsPerCall = 10000;
long long steps = 0;
long long step_bound = kSqlStepBound;

void start_statement() {
  seen = Seen();
  steps = 0;
}

int count_steps(void*) {
  steps += kStepsPerCall;
  return steps > step_bound ? 1 : 0;
}

// A table the scan creates (the names of kSchemaStatements' CREATE TABLEs).
bool own_table(const char* name) {
  if (name == nullptr) return false;
  static const char kCreate[] = "CREATE TABLE ";
  const size_t n = strlen(name);
  for (const char* statement : kSchemaStatements) {
    if (strncmp(statement, kCreate, sizeof kCreate - 1) != 0) continue;
    const char* table = statement + sizeof kCreate - 1;
    if (strncmp(table, name, n) == 0 && table[n] == ' ') return true;
  }
  return false;
}

bool one_of(const char* text, const char* const* names) {
  for (; text != nullptr && *names != nullptr; ++names)
    if (strcasecmp(text, *names) == 0) return true;
  return false;
}

bool schema_table(const char* name) { return name != nullptr && strcmp(name, "sqlite_master") == 0; }

// Allows what the scan's statements do and denies everything else: CREATE of
// its tables and their indexes (which write and read the schema table),
// INSERT and UPDATE of its tables without any SELECT in them, one SELECT of
// its tables, the functions its SELECTs call, transactions and the run's three pragmas.
int authorize(void*, int action, const char* a, const char* b, const char*, const char*) {
  static const char* const kFunctions[] = {"count", "upper", "lower", "substr", "like", nullptr};
  static const char* const kPragmas[] = {"synchronous", "journal_mode", "locking_mode", nullptr};
  bool ok = false;
  switch (action) {
    case SQLITE_CREATE_TABLE:
    case SQLITE_CREATE_INDEX:
      ok = seen.creates = own_table(action == SQLITE_CREATE_TABLE ? a : b);
      break;
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
      // A CREATE inserts its row into the schema table before it names what
      // it creates; SQLite itself refuses any other write of that table.
      if (schema_table(a)) {
        ok = action == SQLITE_INSERT || seen.creates;
        break;
      }
      seen.writes = true;
      ok = seen.selects == 0 && own_table(a);
      break;
    case SQLITE_SELECT:
      ok = ++seen.selects == 1 && !seen.writes;
      break;
    case SQLITE_READ:
      ok = own_table(a) || (schema_table(a) && seen.creates);
      break;
    case SQLITE_REINDEX:
      ok = seen.creates;
      break;
    case SQLITE_FUNCTION:
      ok = one_of(b, kFunctions);
      break;
    case SQLITE_TRANSACTION:
      ok = true;
      break;
    case SQLITE_PRAGMA:
      ok = one_of(a, kPragmas);
      break;
    default:
      break;
  }
  return ok ? SQLITE_OK : SQLITE_DENY;
}

// ---------------------------------------------------------------------------
// Running one statement.

void clear_error() {
  sqlite3_free(zErrMsg);
  zErrMsg = nullptr;
}

void set_error(const char* text) { zErrMsg = sqlite3_mprintf("%s", text); }

// A full volume or a failed allocation makes SQLite roll back the open
// transaction, and the statements after it fail one by one with their own
// messages. One line per cause says what happened to the library.
void report_lost_writes(int rc) {
  static bool full_seen = false;
  static bool nomem_seen = false;
  bool* seen_cause = nullptr;
  if ((rc & 0xff) == SQLITE_FULL) seen_cause = &full_seen;
  if ((rc & 0xff) == SQLITE_NOMEM) seen_cause = &nomem_seen;
  if (seen_cause == nullptr || *seen_cause) return;
  *seen_cause = true;
  const char* file = sqlite3_db_filename(db_ptr, "main");
  printf("mediawalk(): %s: the library [%s] is incomplete\n", sqlite3_errstr(rc & 0xff), file ? file : "");
}

// Sets zErrMsg from the connection after a failed call with result rc.
void set_sqlite_error(int rc) {
  report_lost_writes(rc);
  set_error(sqlite3_errmsg(db_ptr));
}

// Whitespace and nothing else: the end of one statement.
bool only_blanks(const char* p) {
  for (; p && *p; ++p)
    if (!isspace(static_cast<unsigned char>(*p))) return false;
  return true;
}

// Prepares the first statement of sql. Fails (with zErrMsg set) when it does
// not prepare, when anything but blanks follows it, or when a value of it
// left its literal: such a text is never run.
sqlite3_stmt* prepare_one(const char* sql) {
  const bool value_out = breaks_out(sql);
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  start_statement();
  const int rc = sqlite3_prepare_v2(db_ptr, sql, -1, &stmt, &tail);
  if (rc != SQLITE_OK) {
    set_sqlite_error(rc);
    sqlite3_finalize(stmt);
    return nullptr;
  }
  if (!only_blanks(tail)) {
    sqlite3_finalize(stmt);
    set_error("more than one statement in one text; none of it was run");
    return nullptr;
  }
  if (value_out) {
    sqlite3_finalize(stmt);
    set_error("a value closes its quotes and goes on as SQL; the statement was not run");
    return nullptr;
  }
  if (stmt == nullptr) set_error("no statement in the text");
  return stmt;
}

// ---------------------------------------------------------------------------
// Rows written again and again: the same INSERT with other values.

// An INSERT of the scan is composed anew for every song, photo, folder and
// sorted row, and an UPDATE for every folder's media flags and every playlist,
// and parsing one cost more than writing its row. Once reuse is on, such a
// statement whose quoted literals hold nothing but their own text is run as a
// statement prepared once, with each literal's text bound in its place.
// Inside VALUES a quoted literal, in single or double quotes, is that text.
// In an UPDATE a single-quoted one is too, and a double-quoted one is unless
// it names a column, which it then stands for: such a text is never bound.
// Anything else, or a template that does not prepare, goes the way of every
// other statement.
struct Reused {
  std::string tmpl;
  sqlite3_stmt* stmt = nullptr;
};
constexpr size_t kReusedMax = 32;
// Only texts of the scan's own size are split: one near SQLite's length limit
// runs as composed, so the limit meets it exactly as it would.
constexpr size_t kReusedText = 64u << 10;
std::vector<Reused> reused;
bool reuse_on = false;

// The columns of the scan's tables (from kSchemaStatements' CREATE TABLEs),
// and the names of a row's own number.
const std::vector<std::string>& column_names() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> out = {"rowid", "oid", "_rowid_"};
    for (const char* statement : kSchemaStatements) {
      if (strncmp(statement, "CREATE TABLE ", 13) != 0) continue;
      const char* open = strchr(statement, '(');
      const char* close = strrchr(statement, ')');
      for (const char* p = open; p != nullptr && p < close;) {
        ++p;
        p += strspn(p, " ");
        const size_t len = strcspn(p, " ,)");
        if (len > 0) out.emplace_back(p, len);
        // On to the next column: past this one's type, whose parentheses hold no comma.
        p = strchr(p, ',');
        if (p == nullptr || p > close) break;
      }
    }
    return out;
  }();
  return names;
}

bool names_a_column(const char* text, size_t len) {
  for (const std::string& column : column_names())
    if (column.size() == len && strncasecmp(column.data(), text, len) == 0) return true;
  return false;
}

// Splits an INSERT or UPDATE into its template (each literal a "?") and the
// literals' texts. False for anything else, for an unterminated literal, for a
// doubled quote and for a double-quoted column name in an UPDATE.
bool split_statement(const char* sql, std::string* tmpl, std::vector<std::string>* texts) {
  const bool update = strncmp(sql, "update ", 7) == 0;
  if (!update && strncmp(sql, "insert into ", 12) != 0) return false;
  tmpl->clear();
  texts->clear();
  for (const char* p = sql; *p != '\0'; ++p) {
    if (*p != '"' && *p != '\'') {
      *tmpl += *p;
      continue;
    }
    const char* end = strchr(p + 1, *p);
    if (end == nullptr || end[1] == *p) return false;
    if (update && *p == '"' && names_a_column(p + 1, size_t(end - p - 1))) return false;
    texts->emplace_back(p + 1, end);
    *tmpl += '?';
    p = end;
  }
  return true;
}

// The prepared statement for tmpl, reset, or nullptr when it cannot be had.
sqlite3_stmt* reusable(const std::string& tmpl) {
  for (Reused& r : reused)
    if (r.tmpl == tmpl) return r.stmt;
  if (reused.size() >= kReusedMax) return nullptr;
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  start_statement();
  if (sqlite3_prepare_v3(db_ptr, tmpl.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt, &tail) != SQLITE_OK ||
      stmt == nullptr || !only_blanks(tail) || sqlite3_bind_parameter_count(stmt) <= 0) {
    sqlite3_finalize(stmt);
    return nullptr;
  }
  reused.push_back(Reused{tmpl, stmt});
  return stmt;
}

// Runs sql through a reused statement. False when it cannot; then nothing ran.
bool exec_reused(const char* sql) {
  static std::string tmpl;
  static std::vector<std::string> texts;
  if (!reuse_on || strnlen(sql, kReusedText) == kReusedText || breaks_out(sql) || !split_statement(sql, &tmpl, &texts))
    return false;
  sqlite3_stmt* stmt = reusable(tmpl);
  if (stmt == nullptr || sqlite3_bind_parameter_count(stmt) != static_cast<int>(texts.size())) return false;
  for (size_t i = 0; i < texts.size(); ++i) {
    if (sqlite3_bind_text(stmt, static_cast<int>(i + 1), texts[i].data(), static_cast<int>(texts[i].size()),
                          SQLITE_STATIC) != SQLITE_OK) {
      (void)sqlite3_clear_bindings(stmt);
      return false;
    }
  }
  start_statement();
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
  }
  if (rc != SQLITE_DONE) set_sqlite_error(rc);
  (void)sqlite3_reset(stmt);
  (void)sqlite3_clear_bindings(stmt);
  return true;
}

// A statement's journal writes are in the file before it counts as run, so a
// run killed after it keeps what it committed. A failed write fails it.
bool statement_done() {
  const int rc = journal_flush();
  if (rc != SQLITE_OK && zErrMsg == nullptr) {
    report_lost_writes(rc);
    set_error(sqlite3_errstr(rc));
  }
  return zErrMsg == nullptr;
}

}  // namespace

void sql_guard_connection(long long max_steps) {
  if (db_ptr == nullptr) return;
  step_bound = max_steps;
  (void)sqlite3_db_config(db_ptr, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  (void)sqlite3_db_config(db_ptr, SQLITE_DBCONFIG_ENABLE_FTS3_TOKENIZER, 0, nullptr);
  (void)sqlite3_db_config(db_ptr, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  (void)sqlite3_limit(db_ptr, SQLITE_LIMIT_LENGTH, kSqlValueLimit);
  (void)sqlite3_limit(db_ptr, SQLITE_LIMIT_ATTACHED, 0);
  (void)sqlite3_set_authorizer(db_ptr, authorize, nullptr);
  sqlite3_progress_handler(db_ptr, kStepsPerCall, count_steps, nullptr);
}

bool sql_exec(const char* sql) {
  clear_error();
  if (db_ptr == nullptr) {
    set_error("no database open");
    return false;
  }
  if (exec_reused(sql)) return statement_done();
  sqlite3_stmt* stmt = prepare_one(sql);
  if (stmt == nullptr) return false;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
  }
  if (rc != SQLITE_DONE) set_sqlite_error(rc);
  sqlite3_finalize(stmt);
  return statement_done();
}

void sql_reuse_statements(bool on) {
  for (Reused& r : reused) sqlite3_finalize(r.stmt);
  reused.clear();
  reuse_on = on;
}

bool sql_table(const char* sql, Table* table) {
  clear_error();
  table->rows = table->cols = 0;
  table->text.clear();
  table->cells.clear();
  if (db_ptr == nullptr) {
    set_error("no database open");
    return false;
  }
  // The statement the single-statement check prepared is the one stepped, as
  // sqlite3_get_table would step its own: column names with the first row,
  // then each row's values as text.
  sqlite3_stmt* stmt = prepare_one(sql);
  if (stmt == nullptr) return false;
  static const size_t kNull = SIZE_MAX;
  std::vector<size_t> starts;
  const auto keep = [&](const char* text) {
    starts.push_back(text == nullptr ? kNull : table->text.size());
    if (text != nullptr) table->text.append(text, strlen(text) + 1);
  };
  int rc;
  try {
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      const int cols = sqlite3_column_count(stmt);
      if (table->rows == 0) {
        table->cols = cols;
        for (int i = 0; i < cols; ++i) keep(sqlite3_column_name(stmt, i));
      }
      for (int i = 0; i < cols; ++i) {
        const char* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
        if (text == nullptr && sqlite3_column_type(stmt, i) != SQLITE_NULL) rc = SQLITE_NOMEM;
        keep(text);
      }
      if (rc == SQLITE_NOMEM) break;
      ++table->rows;
    }
    if (rc == SQLITE_DONE) {
      table->cells.reserve(starts.size());
      for (const size_t at : starts) table->cells.push_back(at == kNull ? nullptr : table->text.data() + at);
    }
  } catch (const std::bad_alloc&) {
    rc = SQLITE_NOMEM;
  }
  if (rc == SQLITE_NOMEM) {
    report_lost_writes(rc);
    set_error(sqlite3_errstr(rc));
  } else if (rc != SQLITE_DONE) {
    set_sqlite_error(rc);
  }
  sqlite3_finalize(stmt);
  if (rc == SQLITE_DONE) return true;
  table->rows = table->cols = 0;
  table->text.clear();
  table->cells.clear();
  return false;
}
