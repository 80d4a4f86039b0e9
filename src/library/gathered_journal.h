// Rollback-journal writes gathered into one.
//
// Once the first m3u playlist has committed the walk, every statement of the
// scan is its own transaction, and SQLite writes each one's journal as a
// header and then three writes per page (number, contents, checksum): with
// the page itself and the header cleared at the commit, six writes for one
// row. Here the journal's consecutive writes are gathered in memory and put
// into the file as one write, before anything else touches the journal,
// before any write to the database file, and at the end of every statement;
// the database and journal bytes, and the order in which they reach the file
// system, stay those SQLite writes, so a run killed at any point leaves what
// SQLite alone would have left: between statements, everything committed.
#ifndef MEDIAWALK_LIBRARY_GATHERED_JOURNAL_H_
#define MEDIAWALK_LIBRARY_GATHERED_JOURNAL_H_

// The name of a VFS over SQLite's default one that gathers the journal's
// writes, registered on the first call (not as the default), for
// sqlite3_open_v2; nullptr when it cannot be registered.
const char* gathered_journal_vfs();

// Puts what has been gathered into the journal file. Returns SQLITE_OK, or
// the error code of the write that failed (what was gathered is then
// dropped).
int journal_flush();

#endif  // MEDIAWALK_LIBRARY_GATHERED_JOURNAL_H_
