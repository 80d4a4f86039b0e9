#include "library/sql.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "library/schema.h"

namespace {

// The scan's schema on a guarded connection, record_objid_tbl holding 40 rows.
class SqlExecutor : public ::testing::Test {
 protected:
  static constexpr long long kSteps = 100000;
  void SetUp() override {
    ASSERT_EQ(sqlite3_open(":memory:", &db_ptr), SQLITE_OK);
    sql_guard_connection(kSteps);
    create_schema();
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(sql_exec("insert into record_objid_tbl values (\"r\",\"1\");"));
  }
  void TearDown() override {
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
    sqlite3_close(db_ptr);
    db_ptr = nullptr;
  }
  int count_rows() {
    Table t;
    EXPECT_TRUE(sql_table("select count(No) from music_tbl;", &t));
    return t.rows == 1 ? atoi(t.at(1, 0)) : -1;
  }
};

const char kNotRun[] = "a value closes its quotes and goes on as SQL; the statement was not run";
const char kTwo[] = "more than one statement in one text; none of it was run";
const char kInsert[] = "insert into music_tbl (No,Title) values (\"1\",\"%s\");";

struct Case {
  const char* fmt;
  const char* value;
  bool query;
  const char* error;  // null: runs (an INSERT adds its row)
  size_t pad = 0;     // bytes added to the value
};

// One value per text, run in this order: a success after a failure must find
// the error slot cleared.
const Case kCases[] = {
    {kInsert, "it's", false, nullptr},
    {kInsert, "a\"b", false, "near \"b\": syntax error"},
    {kInsert, "a\"||\"b", false, kNotRun},
    {kInsert, "k\"\"x", false, kNotRun},
    {kInsert, "x\"); insert into music_tbl (No) values (\"2", false, kTwo},
    {"insert into music_tbl (No) values (\"1\");%s", "", false, nullptr},
    {"insert into music_tbl (No) values (\"1\");;%s", "", false, kTwo},
    {"insert into music_tbl (No) values (\"1\"); -- trailing comment%s", "", false, kTwo},
    {"insert into music_tbl (No) values (\"1\");  \n%s", "", false, nullptr},
    {"select No from music_tbl where Title =='%s';", "x' or '1'='1", true, kNotRun},
    {"select %s from music_tbl;", "No", true, nullptr},
    {"select %s from music_tbl;", "No,Title", true, kNotRun},
    {"select COUNT(No) from music_tbl where UTF_Path like\"%s%%\" limit 0,1;", "/s/", true, nullptr},
    {"insert into music_tbl (No) values (zeroblob(\"%s\"));", "9", false, "not authorized to use function: zeroblob"},
    {"insert into music_tbl (No) values ((select type from record_objid_tbl where type == \"%s\"));", "r", false,
     "not authorized"},
    {"with recursive c(n) as (select 1 union all select n+1 from c) select n from c where n == \"%s\";", "1", true,
     "not authorized"},
    {"select sql from sqlite_master where name == \"%s\";", "music_tbl", true,
     "access to sqlite_master.sql is prohibited"},
    {"select fts3_tokenizer(\"%s\");", "simple", true, "not authorized to use function: fts3_tokenizer"},
    {"delete from music_tbl where No == \"%s\";", "1", false, "not authorized"},
    {"select No from music_tbl where No in (select No from music_tbl where Title == \"%s\");", "x", true,
     "not authorized"},
    {"PRAGMA locking_mode=%s;", "EXCLUSIVE", true, nullptr},  // the run's own settings
    {"PRAGMA journal_mode=%s;", "PERSIST", true, nullptr},
    {"PRAGMA writable_schema=%s;", "ON", false, "not authorized"},
    {"select a.type from record_objid_tbl a, record_objid_tbl b, record_objid_tbl c where a.type != \"%s\";", "x",
     true, "interrupted"},
    {kInsert, "x", false, "string or blob too big", kSqlValueLimit},
};

TEST_F(SqlExecutor, RunsOnlyWhatTheFormatComposes) {
  for (const Case& c : kCases) {
    const std::string value = c.value + std::string(c.pad, 'x');
    SCOPED_TRACE(std::string(c.fmt) + " <- " + value.substr(0, 80));
    std::vector<char> sql(value.size() + 1024);
    ASSERT_TRUE(sql_format(sql.data(), sql.size(), c.fmt, value.c_str()));
    const int before = count_rows();
    Table t;
    EXPECT_EQ(c.query ? sql_table(sql.data(), &t) : sql_exec(sql.data()), c.error == nullptr);
    EXPECT_STREQ(zErrMsg, c.error);
    EXPECT_EQ(count_rows(), before + (c.error == nullptr && !c.query));
  }
}

TEST_F(SqlExecutor, TableLaysOutRowsAsGetTable) {
  ASSERT_TRUE(sql_exec("insert into music_sortidx_tbl values (\"first\",0,0);"));
  ASSERT_TRUE(sql_exec("insert into music_sortidx_tbl values (NULL,0,0);"));
  Table t;
  ASSERT_TRUE(sql_table("select idx, 7 from music_sortidx_tbl;", &t));
  EXPECT_EQ(t.rows, 2);
  EXPECT_EQ(t.cols, 2);
  EXPECT_STREQ(t.at(0, 0), "idx");
  EXPECT_STREQ(t.at(1, 0), "first");
  EXPECT_STREQ(t.at(1, 1), "7");
  EXPECT_EQ(t.at(2, 0), nullptr);
}

TEST_F(SqlExecutor, TransactionStatementsFailAsSqliteDoes) {
  EXPECT_TRUE(sql_exec("BEGIN;"));
  EXPECT_FALSE(sql_exec("BEGIN;"));  // cannot start a transaction within a transaction
  EXPECT_TRUE(sql_exec("COMMIT;"));
  EXPECT_FALSE(sql_exec("COMMIT;"));  // no transaction is active
  EXPECT_NE(zErrMsg, nullptr);
}

TEST(SqlFormat, ReportsACut) {
  char buf[8];
  EXPECT_TRUE(sql_format(buf, sizeof buf, "%s", "1234567"));
  EXPECT_FALSE(sql_format(buf, sizeof buf, "%s", "12345678"));
  EXPECT_STREQ(buf, "1234567");
}

TEST(Schema, CreatesTheTablesInOrder) {
  ASSERT_EQ(sqlite3_open(":memory:", &db_ptr), SQLITE_OK);
  create_schema();
  Table t;
  ASSERT_TRUE(sql_table("select sql from sqlite_master order by rowid;", &t));
  ASSERT_EQ(t.rows, static_cast<int>(kSchemaStatementCount));
  for (int i = 0; i < t.rows; ++i) {
    // sqlite_master keeps the text without the closing semicolon.
    std::string expected = kSchemaStatements[i];
    expected.pop_back();
    EXPECT_EQ(t.at(i + 1, 0), expected);
  }
  sqlite3_close(db_ptr);
  db_ptr = nullptr;
}

}  // namespace
