#include "library/sql.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "library/schema.h"

namespace {

class SqlExecutor : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(sqlite3_open(":memory:", &db_ptr), SQLITE_OK);
    ASSERT_TRUE(sql_exec("create table t (a);"));
  }
  void TearDown() override {
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
    sqlite3_close(db_ptr);
    db_ptr = nullptr;
  }
  int count_rows() {
    Table t;
    EXPECT_TRUE(sql_table("select count(*) from t;", &t));
    return atoi(t.at(1, 0));
  }
};

TEST_F(SqlExecutor, OneStatementRunsAndClearsTheErrorSlot) {
  EXPECT_FALSE(sql_exec("insert into nowhere values (1);"));
  ASSERT_NE(zErrMsg, nullptr);
  EXPECT_TRUE(sql_exec("insert into t values (\"1\");"));
  EXPECT_EQ(zErrMsg, nullptr);
  EXPECT_EQ(count_rows(), 1);
}

// Texts as a file name or tag could make them: a quoted value closed early
// and a second statement appended. Nothing of such a text may run.
TEST_F(SqlExecutor, SecondStatementRunsNothing) {
  const char* texts[] = {
      "insert into t values (\"x\");drop table t;",
      "insert into t values (\"x\"); insert into t values (\"y\");",
      "insert into t values (\"x\");;",
      "insert into t values (\"x\"); -- trailing comment",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(sql_exec(text));
    ASSERT_NE(zErrMsg, nullptr);
    EXPECT_EQ(count_rows(), 0);
  }
  Table t;
  EXPECT_FALSE(sql_table("select a from t; delete from t;", &t));
  EXPECT_NE(zErrMsg, nullptr);
  EXPECT_EQ(t.cells, nullptr);
}

TEST_F(SqlExecutor, TrailingBlanksAreOneStatement) {
  EXPECT_TRUE(sql_exec("insert into t values (\"x\");  \n"));
  EXPECT_EQ(count_rows(), 1);
}

TEST_F(SqlExecutor, TableLaysOutRowsAsGetTable) {
  ASSERT_TRUE(sql_exec("insert into t values (\"first\");"));
  ASSERT_TRUE(sql_exec("insert into t values (NULL);"));
  Table t;
  ASSERT_TRUE(sql_table("select a, 7 from t;", &t));
  EXPECT_EQ(t.rows, 2);
  EXPECT_EQ(t.cols, 2);
  EXPECT_STREQ(t.at(0, 0), "a");
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
