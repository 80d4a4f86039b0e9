// The library phases on an in-memory database, each behaviour one table under tests/data/cases/.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "../case_table.h"
#include "../platform/stub_program.h"
#include "../sparse_file.h"
#include "../temp_tree.h"
#include "driver/progress.h"
#include "library/flags.h"
#include "library/gathered_journal.h"
#include "library/media_types.h"
#include "library/objid.h"
#include "library/playlist.h"
#include "library/schema.h"
#include "library/sort.h"
#include "library/sql.h"
#include "library/walk.h"
#include "platform/holders.h"

namespace {

// A fresh library database with every table and the counters at their bases.
struct Db {
  explicit Db(long long guard_steps = 0) {
    sqlite3_open(":memory:", &db_ptr);
    if (guard_steps > 0) sql_guard_connection(guard_steps);
    create_schema();
    init_objid_counters();
    reset_walk_state();
    total_scan_cnt = total_file_cnt = 0;
  }
  ~Db() {
    sql_reuse_statements(false);
    reset_walk_state();
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
    sqlite3_close(db_ptr);
    db_ptr = nullptr;
  }
};

// The rows of a query: cells joined by "|", every row ended by "\n".
std::string dump(const std::string& sql) {
  Table t;
  if (!sql_table(sql.c_str(), &t)) return std::string("error: ") + (zErrMsg ? zErrMsg : "");
  std::string out;
  for (int r = 1; r <= t.rows; ++r)
    for (int c = 0; c < t.cols; ++c) out += std::string(t.at(r, c) ? t.at(r, c) : "NULL") + (c + 1 < t.cols ? "|" : "\n");
  return out;
}

std::string expand(std::string s, const std::string& root) {
  for (size_t at; (at = s.find("{r}")) != std::string::npos;) s.replace(at, 3, root);
  return s;
}

// Each text runs as composed and through a kept statement: the same outcome, the same row.
TABLE_TEST(SqlGuard, "sql_guard.tsv") {
  std::string stored[2];
  for (bool reuse : {false, true}) {
    Db db(100000);
    sql_reuse_statements(reuse);
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(sql_exec("insert into record_objid_tbl values (\"r\",\"1\");"));
    const std::string value = c.at(1) + std::string(c.num(4), 'x');
    std::string sql(value.size() + 1024, '\0');
    ASSERT_TRUE(sql_format(&sql[0], sql.size(), c.at(0).c_str(), value.c_str()));
    Table t;
    EXPECT_EQ(c.num(2) ? sql_table(sql.c_str(), &t) : sql_exec(sql.c_str()), c.at(3).empty()) << reuse;
    EXPECT_EQ(zErrMsg ? zErrMsg : "", c.at(3)) << reuse;
    const bool adds_song = c.at(0).rfind("insert into music_tbl", 0) == 0 && c.at(3).empty();
    EXPECT_EQ(dump("select count(*) from music_tbl;"), adds_song ? "1\n" : "0\n");
    sqlite3_set_authorizer(db_ptr, nullptr, nullptr);  // the guard refuses quote()
    stored[reuse] = dump("select quote(No), quote(Title), quote(Artist) from music_tbl;") +
                    dump("select quote(type) from record_objid_tbl where ROWID < 3;");
  }
  EXPECT_EQ(stored[0], stored[1]);
}

TEST(SqlFormat, TextThatFillsItsBufferIsCut) {
  char buf[8];
  EXPECT_FALSE(sql_format(buf, sizeof buf, "%s", "12345678"));
  EXPECT_TRUE(sql_format(buf, sizeof buf, "%s", "1234567"));
}

TABLE_TEST(MediaClass, "media_types.tsv") { EXPECT_EQ(media_class_of(c.at(0).c_str()), c.num(1)); }

// A share as "|"-separated entries: d:folder, f:file>content, r:file>count>line (the line
// repeated), c:fixture>file (from tests/data), l:target>link, p:fifo, s:file>size (grown by a hole).
void build(const TempTree& t, const std::string& desc) {
  std::istringstream in(desc);
  for (std::string e; std::getline(in, e, '|');) {
    const std::string arg = e.substr(2), a = arg.substr(0, arg.find('>'));
    const std::string b = arg.find('>') == std::string::npos ? "" : arg.substr(arg.find('>') + 1);
    if (e[0] == 'd') t.dir(a);
    if (e[0] == 'f') t.file(a, b);
    if (e[0] == 'l') { ASSERT_TRUE(t.link(a, b)); }
    if (e[0] == 'p') { ASSERT_EQ(mkfifo((t.root() + a).c_str(), 0600), 0); }
    if (e[0] == 's') std::ofstream(t.root() + a, std::ios::app).close();
    if (e[0] == 's') { ASSERT_EQ(truncate((t.root() + a).c_str(), atoll(b.c_str())), 0); }
    if (e[0] == 'c') std::filesystem::copy_file(MEDIAWALK_TEST_DATA "/" + a, t.root() + b);
    if (e[0] == 'r') {
      std::string text;
      for (long i = atol(b.c_str()); i > 0; --i) text += b.substr(b.find('>') + 1) + "\n";
      t.file(a, text);
    }
  }
}

// Walks a share as the driver does (root, then the queued folders), counts it, runs SQL and a
// later phase ("phase=0" when it must fail), and compares a query's rows; the phase's output
// must be exactly the one given, the walk's must hold the text given for it, and the phase must
// read fewer bytes than given.
TABLE_TEST(LibraryScan, "library_scan.tsv") {
  Db db;
  StubPath no_detector(false);  // tag texts are then read as UTF-8
  TempTree tree;
  build(tree, c.at(0));
  const std::string root = tree.root();
  ::testing::internal::CaptureStdout();
  ScanMusic(root.c_str(), 0);
  char folder[kFolderPathSize];
  for (int layer = 0; queue_has_folders();) {
    delqueue(folder, &layer);
    ScanMusic(folder, layer);
  }
  const std::string walked = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(walked.find(expand(c.at(6), root)), std::string::npos) << walked;
  if (!c.at(7).empty()) { EXPECT_EQ(total_scan_cnt.load(), c.num(7)); }
  ::testing::internal::CaptureStdout();
  UniqueDir d(opendir(root.c_str()));
  const int32_t counted = Cnt_total_file(root.c_str(), d.get());
  ::testing::internal::GetCapturedStdout();
  if (!c.at(8).empty()) { EXPECT_EQ(counted, c.num(8)); }
  EXPECT_EQ(total_file_cnt.load(), counted);
  if (!c.at(1).empty()) { ASSERT_TRUE(sql_exec(c.at(1).c_str())) << zErrMsg; }
  const std::string phase = c.at(2).substr(0, c.at(2).find('='));  // "phase=result"
  const long long read_before = bytes_read_so_far();
  ::testing::internal::CaptureStdout();
  const int rc = phase == "playlist" ? parser_playlist() : phase == "sort" ? sort_dbtable()
                 : phase == "flags"  ? Assign_pathtbl_media() : 1;
  const std::string out = ::testing::internal::GetCapturedStdout();
  if (!phase.empty()) { EXPECT_EQ(out, expand(c.at(5), root)); }
  if (!c.at(9).empty()) { EXPECT_LT(bytes_read_so_far() - read_before, c.num(9)); }  // holes are stepped over
  EXPECT_EQ(rc, c.at(2).find("=0") == std::string::npos ? 1 : 0) << out;
  EXPECT_EQ(dump(expand(c.at(3), root)), expand(c.at(4), root));
}

// The tables and indexes, and the identifier record, exactly as stored.
TABLE_TEST(SchemaAndRecord, "schema.tsv") {
  Db db;
  take_objid(&init_objid.photo_file_objid);
  record_objid_tbl();
  EXPECT_EQ(dump(c.at(0)), c.at(1));
  uint64_t counter = 0xFFFFFFFFULL;  // identifiers carry into the high word
  EXPECT_EQ(take_objid(&counter), 0xFFFFFFFFULL);
  EXPECT_EQ(counter, 0x100000000ULL);
}

}  // namespace

// What a run killed at some point leaves: the database and journal files as they stand, opened
// afresh (a hot journal is rolled back then). After a statement returns, its row is kept. A
// statement killed while its commit writes the database (the file size limit stops it at the first
// page added behind the pages it changed) leaves the state before it.
TEST(GatheredJournal, KilledRunLeavesWhatSqliteWould) {
  TempTree tree;
  ASSERT_TRUE(tree.ok());
  const std::string db_file = tree.root() + "run.db", copy = tree.root() + "copy.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open_v2(db_file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, gathered_journal_vfs()),
            SQLITE_OK);
  const auto run = [&](const std::string& sql) { return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr); };
  const auto rows_after_kill = [&] {
    for (const char* suffix : {"", "-journal"})
      std::filesystem::copy_file(db_file + suffix, copy + suffix, std::filesystem::copy_options::overwrite_existing);
    sqlite3* fresh = nullptr;
    sqlite3_open(copy.c_str(), &fresh);
    std::string rows = "error";
    sqlite3_exec(
        fresh, "select count(*) from t where (select * from pragma_integrity_check) = 'ok';",
        [](void* out, int, char** v, char**) { return *static_cast<std::string*>(out) = v[0], 0; }, &rows, nullptr);
    sqlite3_close(fresh);
    return rows;
  };
  ASSERT_EQ(run("PRAGMA synchronous=OFF; PRAGMA journal_mode=PERSIST; PRAGMA locking_mode=EXCLUSIVE;"
                "create table t (v); insert into t values (1);"),
            SQLITE_OK);
  ASSERT_EQ(run("insert into t values (2);"), SQLITE_OK);
  EXPECT_EQ(journal_flush(), SQLITE_OK);  // as every statement of the scan ends
  EXPECT_EQ(rows_after_kill(), "2");
  const pid_t child = fork();
  if (child == 0) {
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(std::filesystem::file_size(db_file));
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(run("insert into t values (randomblob(20000));"));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
  EXPECT_EQ(rows_after_kill(), "2");
  sqlite3_close(db);
}
