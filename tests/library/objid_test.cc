#include "library/objid.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>

#include "library/schema.h"
#include "library/sql.h"

namespace {

TEST(ObjId, TakeCarriesIntoTheHighWord) {
  uint64_t counter = 0xFFFFFFFFULL;
  EXPECT_EQ(take_objid(&counter), 0xFFFFFFFFULL);
  EXPECT_EQ(counter, 0x100000000ULL);
  char text[32];
  snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(counter));
  EXPECT_STREQ(text, "4294967296");
}

TEST(ObjId, RecordHoldsNineRowsInOrder) {
  ASSERT_EQ(sqlite3_open(":memory:", &db_ptr), SQLITE_OK);
  create_schema();
  init_objid_counters();
  take_objid(&init_objid.photo_file_objid);
  init_objid.media_path_parid = 0;
  EXPECT_TRUE(record_objid_tbl());
  Table t;
  ASSERT_TRUE(sql_table("select type, ObjID, typeof(ObjID) from record_objid_tbl order by rowid;", &t));
  const char* expected[][2] = {
      {"media_path_objid", "4000000000001"},     {"media_path_parid", "0"},
      {"photo_file_objid", "1000000000002"},     {"video_file_objid", "2000000000001"},
      {"music_file_objid", "3000000000001"},     {"music_file_pls_parid", "3030000000001"},
      {"music_file_gen_objid", "3040000000001"}, {"music_file_art_objid", "3050000000001"},
      {"music_file_alb_objid", "3060000000001"},
  };
  ASSERT_EQ(t.rows, 9);
  for (int i = 0; i < 9; ++i) {
    EXPECT_STREQ(t.at(i + 1, 0), expected[i][0]);
    EXPECT_STREQ(t.at(i + 1, 1), expected[i][1]);
    EXPECT_STREQ(t.at(i + 1, 2), "text");
  }
  EXPECT_EQ(init_objid.spare1 | init_objid.spare2 | init_objid.spare3, 0u);
  sqlite3_close(db_ptr);
  db_ptr = nullptr;
}

}  // namespace
