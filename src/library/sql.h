// The one place that runs composed SQL on db_ptr.
//
// Every statement of the scan is composed with printf-style formats and run
// through here. Names, tags and playlist lines go into quoted literals as they
// are, so a value may close its literal early. Such a text never runs: when a
// value holds the quote of the literal it went into, or the text holds more
// than one statement, the statement is only prepared, and fails with SQLite's
// error text when it does not parse, or with an error text of ours when it
// does. Either way the caller's usual failure path follows.
#ifndef MEDIAWALK_LIBRARY_SQL_H_
#define MEDIAWALK_LIBRARY_SQL_H_

#include <stddef.h>

#include <string>
#include <vector>

#include "platform/holders.h"

// A query result laid out as sqlite3_get_table lays it out: row 0 holds the
// column names, rows 1..rows the values; no rows, no columns.
struct Table : NoCopy {
  int rows = 0;
  int cols = 0;
  // Value of result row `row` (1-based, as the table is laid out) and column
  // `col`; may be nullptr for an SQL NULL.
  const char* at(int row, int col) const { return cells[size_t(row) * size_t(cols) + size_t(col)]; }

  // Filled by sql_table: every cell's text, each ended by a zero byte, and
  // where each cell starts in it.
  std::string text;
  std::vector<const char*> cells;
};

// Formats one statement into buf[cap] with vsnprintf. Returns false if it was
// cut; what a cut statement means is the caller's decision. Notes whether a
// value went into a quoted literal of fmt holding that literal's quote (or,
// outside any literal, holding more than a name's characters); sql_exec and
// sql_table look this up for the same buffer with the same text.
bool sql_format(char* buf, size_t cap, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Formats `insert into <table> values ("v0","v1",...);` into buf[cap]: every
// value in double quotes, separated by commas, as sql_format would from the
// matching format, and noted the same way (a value holding '"' breaks out).
// Returns false if it was cut.
bool sql_format_row(char* buf, size_t cap, const char* table, const char* const* values, size_t count);

// Runs exactly one statement on db_ptr, like sqlite3_exec with no callback,
// unless its values break out of their literals (see above).
// zErrMsg is released first and left null on success; on failure it holds the
// error text (sqlite3_mprintf memory) until the next statement. The first
// statement that fails because the volume is full, and the first that fails
// for want of memory, also print a line saying the library is incomplete.
// Returns true when zErrMsg is null afterwards.
bool sql_exec(const char* sql);

// While on, an INSERT or UPDATE whose quoted literals hold only their text
// (and, in an UPDATE, name no column in double quotes) runs as a statement
// prepared once and kept, with the literals' texts bound in their places: the
// same row, without parsing the text again. Turning it off (before db_ptr is
// closed) releases the kept statements.
void sql_reuse_statements(bool on);

// Runs exactly one query on db_ptr, like sqlite3_get_table, into *table
// (released first). Error handling as sql_exec.
bool sql_table(const char* sql, Table* table);

// Bytes of one string, blob or statement (SQLite's length limit). A statement
// of the scan holds under 4 KiB; a value this long still costs the appliance
// little memory, where one of hundreds of MiB would exhaust it.
constexpr int kSqlValueLimit = 1000000;

// VM steps one statement may take. The heaviest statements of a scan are the
// sorted tables' SELECTs, which visit every row of a media table and sort
// them: on a table of 1,000,000 music rows they take 1.7e7 to 2.1e7 steps, the
// folder flags' LIKE count 6e6 and a parent look-up among 100,000 folders
// 3e5. The bound is some 50 times the heaviest; a statement that reaches it
// (a runaway query) fails with SQLite's "interrupted".
constexpr long long kSqlStepBound = 1000000000LL;

// Sets up db_ptr, once it is open, so that no text runs more than the scan's
// own statements need: defensive mode, no FTS3 tokenizer, no attached
// databases, values and texts of at most kSqlValueLimit bytes, at most
// max_steps VM steps per statement, and an authorizer that allows only the
// statement kinds, tables and functions the scan uses (no sub-select in an
// INSERT or UPDATE, no second SELECT, no recursive query). A statement beyond
// those fails with SQLite's error text.
void sql_guard_connection(long long max_steps = kSqlStepBound);

#endif  // MEDIAWALK_LIBRARY_SQL_H_
