// The one place that runs composed SQL on db_ptr.
//
// Every statement of the scan is composed with printf-style formats and run
// through here. A text that holds more than one statement (a file name, tag or
// playlist line that closed a quoted value and appended ";...") runs nothing
// and fails with an error text, so the caller takes its usual failure path.
#ifndef MEDIAWALK_LIBRARY_SQL_H_
#define MEDIAWALK_LIBRARY_SQL_H_

#include <stddef.h>

#include "platform/holders.h"

// A query result laid out as sqlite3_get_table lays it out: row 0 holds the
// column names, rows 1..rows the values. Freed with sqlite3_free_table.
struct Table : NoCopy {
  char** cells = nullptr;
  int rows = 0;
  int cols = 0;
  ~Table();
  // Value of result row `row` (1-based, as the table is laid out) and column
  // `col`; may be nullptr for an SQL NULL.
  const char* at(int row, int col) const { return cells[row * cols + col]; }
};

// Formats one statement into buf[cap] with vsnprintf. Returns false if it was
// cut; what a cut statement means is the caller's decision.
bool sql_format(char* buf, size_t cap, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Runs exactly one statement on db_ptr, like sqlite3_exec with no callback.
// zErrMsg is released first and left null on success; on failure it holds the
// error text (sqlite3_mprintf memory) until the next statement.
// Returns true when zErrMsg is null afterwards.
bool sql_exec(const char* sql);

// Runs exactly one query on db_ptr, like sqlite3_get_table, into *table
// (released first). Error handling as sql_exec.
bool sql_table(const char* sql, Table* table);

#endif  // MEDIAWALK_LIBRARY_SQL_H_
