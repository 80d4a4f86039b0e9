// The library database: its location, its tables and the process-wide
// handle and error slot that every phase shares.
#ifndef MEDIAWALK_LIBRARY_SCHEMA_H_
#define MEDIAWALK_LIBRARY_SCHEMA_H_

#include <stddef.h>

struct sqlite3;

// The one open connection of the run, opened and closed by the driver.
extern sqlite3* db_ptr;
// SQLite's error text of the last statement, null when it succeeded.
extern char* zErrMsg;

// The CREATE statements, in the order they run right after "BEGIN;".
constexpr size_t kSchemaStatementCount = 22;
extern const char* const kSchemaStatements[kSchemaStatementCount];

// Runs every CREATE statement in order. Their errors are not examined: a
// failed CREATE shows later as failed INSERTs.
void create_schema();

#endif  // MEDIAWALK_LIBRARY_SCHEMA_H_
