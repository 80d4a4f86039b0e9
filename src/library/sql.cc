#include "library/sql.h"

#include <ctype.h>
#include <sqlite3.h>
#include <stdarg.h>
#include <stdio.h>

#include "library/schema.h"

Table::~Table() { sqlite3_free_table(cells); }

bool sql_format(char* buf, size_t cap, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const int n = vsnprintf(buf, cap, fmt, ap);
  va_end(ap);
  return n >= 0 && static_cast<size_t>(n) < cap;
}

namespace {

void clear_error() {
  sqlite3_free(zErrMsg);
  zErrMsg = nullptr;
}

void set_error(const char* text) { zErrMsg = sqlite3_mprintf("%s", text); }

// Whitespace and nothing else: the end of one statement.
bool only_blanks(const char* p) {
  for (; p && *p; ++p)
    if (!isspace(static_cast<unsigned char>(*p))) return false;
  return true;
}

// Prepares the first statement of sql. Fails (with zErrMsg set) when it does
// not prepare or when anything but blanks follows it.
sqlite3_stmt* prepare_one(const char* sql) {
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(db_ptr, sql, -1, &stmt, &tail) != SQLITE_OK) {
    set_error(sqlite3_errmsg(db_ptr));
    sqlite3_finalize(stmt);
    return nullptr;
  }
  if (!only_blanks(tail)) {
    sqlite3_finalize(stmt);
    set_error("more than one statement in one text; none of it was run");
    return nullptr;
  }
  if (stmt == nullptr) set_error("no statement in the text");
  return stmt;
}

}  // namespace

bool sql_exec(const char* sql) {
  clear_error();
  if (db_ptr == nullptr) {
    set_error("no database open");
    return false;
  }
  sqlite3_stmt* stmt = prepare_one(sql);
  if (stmt == nullptr) return false;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
  }
  if (rc != SQLITE_DONE) set_error(sqlite3_errmsg(db_ptr));
  sqlite3_finalize(stmt);
  return zErrMsg == nullptr;
}

bool sql_table(const char* sql, Table* table) {
  clear_error();
  sqlite3_free_table(table->cells);
  table->cells = nullptr;
  table->rows = table->cols = 0;
  if (db_ptr == nullptr) {
    set_error("no database open");
    return false;
  }
  // The single-statement check parses the text once more than get_table
  // would; that is the price of never running a second statement.
  sqlite3_stmt* stmt = prepare_one(sql);
  if (stmt == nullptr) return false;
  sqlite3_finalize(stmt);
  char* err = nullptr;
  if (sqlite3_get_table(db_ptr, sql, &table->cells, &table->rows, &table->cols, &err) != SQLITE_OK ||
      err != nullptr) {
    zErrMsg = err ? err : sqlite3_mprintf("%s", sqlite3_errmsg(db_ptr));
    return false;
  }
  return true;
}
