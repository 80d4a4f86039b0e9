#include "library/flags.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "library_db.h"

namespace {

using libtest::LibraryDb;

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;
using Rows = std::vector<std::vector<std::string>>;

class FolderFlags : public LibraryDb {
 protected:
  void SetUp() override {
    LibraryDb::SetUp();
    // Records which folder rows get an UPDATE, in order.
    exec("CREATE TABLE updated (path);");
    exec("CREATE TRIGGER log_update AFTER UPDATE ON path_objid_tbl BEGIN INSERT INTO updated VALUES (NEW.path); END;");
  }
  std::string run(int expect_result) {
    CaptureStdout();
    const int result = Assign_pathtbl_media();
    std::string out = GetCapturedStdout();
    EXPECT_EQ(result, expect_result);
    return out;
  }
};

TEST_F(FolderFlags, FolderCountsEverythingBelowIt) {
  const std::string& s = dir_;
  folder(s, 0);
  folder(s + "a/", 1);
  folder(s + "a/b/", 2);
  folder(s + "a/b/c/", 3);
  folder(s + "subs/", 1);
  folder(s + "empty/", 1);
  folder(s + "x_y/", 1);  // "_" matches any one byte: xzy's music counts here too
  folder(s + "xzy/", 1);
  folder(s + "Case/", 1);  // A-Z match either case: case's playlist counts here too
  folder(s + "case/", 1);
  photo(1, s + "a/b/c/", "p.jpg");
  untagged("video_tbl", 1, s + "subs/", "film.srt", "srt");
  music(1, s + "xzy/", "m.mp3", "m");
  untagged("music_tbl", 2, s + "case/", "l.m3u", "m3u");

  EXPECT_EQ(run(1), "");
  EXPECT_EQ(rows("select path,have_video,have_music,have_photo,typeof(have_music) from path_objid_tbl "
                 "order by ROWID;"),
            (Rows{{s, "1", "1", "1", "text"},
                  {s + "a/", "0", "0", "1", "text"},
                  {s + "a/b/", "0", "0", "1", "text"},
                  {s + "a/b/c/", "0", "0", "1", "text"},
                  {s + "subs/", "1", "0", "0", "text"},
                  {s + "empty/", "0", "0", "0", "text"},
                  {s + "x_y/", "0", "1", "0", "text"},
                  {s + "xzy/", "0", "1", "0", "text"},
                  {s + "Case/", "0", "1", "0", "text"},
                  {s + "case/", "0", "1", "0", "text"}}));
  // The folder with nothing below it is never updated.
  EXPECT_EQ(column("select path from updated order by ROWID;"),
            (std::vector<std::string>{s, s + "a/", s + "a/b/", s + "a/b/c/", s + "subs/", s + "x_y/", s + "xzy/",
                                      s + "Case/", s + "case/"}));
}

TEST_F(FolderFlags, EmptyFolderTableRunsNoOtherStatement) {
  exec("DROP TABLE music_tbl;");  // any count statement would fail on it
  EXPECT_EQ(run(1), "");
}

// The flags come from an index of the media paths rather than three LIKE
// counts per folder; they must be exactly what the counts say, also where
// SQLite's reading of a path is not byte-wise: A-Z folded but not other
// letters, invalid UTF-8 read as other characters, wildcards in names, and
// wildcards in the share folder's own name, which every path begins with.
class FolderFlagsLike : public FolderFlags, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(ShareNames, FolderFlagsLike, ::testing::Values("", "Media_1/", "a_b%/", "x%y_/z/"));

TEST_P(FolderFlagsLike, IndexAgreesWithTheLikeCounts) {
  const std::string s = dir_ + GetParam();
  const std::vector<std::string> names = {
      "Mixed/",     "mixed/",      "MIXED/x/",  "\xc3\x89t\xc3\xa9/", "\xc3\xa9t\xc3\xa9/",
      "\x80/",       "\xc2\x80/",    "\xc0\x80/", "\xc1\x81/",         "\xef\xbf\xbd/",
      "a%b/",       "a_b/",        "axb/",      "it's/",             "deep/er/",
      "deep/",      "\xed\xa0\x80/", "\xf0\x9f\x8e\xb5/", "\xc3/", "\xc3\xa9/",
      "x_/",        "x_/%/",       "xy/",       "xy/z/",             "A_%/",
  };
  folder(s, 0);
  int layer = 1;
  for (const std::string& n : names) folder(s + n, layer);
  // Media in some of them only, so that both answers occur.
  music(1, s + "mixed/", "a.mp3", "a");
  photo(1, s + "\xc2\x80/", "p.jpg");
  photo(2, s + "\xc1\x81/", "q.jpg");
  video(1, s + "a%b/", "v.mpg");
  untagged("music_tbl", 2, s + "it's/", "l.pls", "pls");
  music(3, s + "deep/er/", "d.mp3", "d");
  photo(3, s + "\xef\xbf\xbd/", "r.jpg");
  music(4, s + "\xc3\xa9/", "e.mp3", "e");
  video(2, s + "\xf0\x9f\x8e\xb5/", "w.mpg");
  music(5, s + "xy/z/", "z.mp3", "z");
  photo(4, s + "x_/%/", "x.jpg");
  EXPECT_EQ(run(1), "");

  for (const auto& row : rows("select path,have_video,have_music,have_photo from path_objid_tbl;")) {
    SCOPED_TRACE(row[0]);
    std::string expected[3];
    const char* tables[3] = {"video_tbl", "music_tbl", "photo_tbl"};
    for (int i = 0; i < 3; ++i) {
      char sql[1024];
      snprintf(sql, sizeof sql, "select COUNT(No) from %s where UTF_Path like\"%s%%\" limit 0,1;", tables[i],
               row[0].c_str());
      expected[i] = value(sql) >= "1" ? "1" : "0";
    }
    EXPECT_EQ(row[1], expected[0]);
    EXPECT_EQ(row[2], expected[1]);
    EXPECT_EQ(row[3], expected[2]);
  }
}

struct FailCase {
  const char* name;
  const char* setup;
  const char* output;  // {dir} stands for the share root's path
};
void PrintTo(const FailCase& c, std::ostream* os) { *os << c.name; }

class FolderFlagsFailure : public FolderFlags, public ::testing::WithParamInterface<FailCase> {};

TEST_P(FolderFlagsFailure, EndsThePhaseWithItsMessage) {
  const FailCase& c = GetParam();
  folder(dir_, 0);
  folder(dir_ + "more/", 1);
  music(1, dir_, "m.mp3", "m");
  video(1, dir_, "v.mpg");
  photo(1, dir_, "p.jpg");
  exec(c.setup);
  std::string expected = c.output;
  for (size_t at; (at = expected.find("{dir}")) != std::string::npos;) expected.replace(at, 5, dir_);
  EXPECT_EQ(run(0), expected);
  EXPECT_EQ(value("select count(*) from updated;"), "0");
}

const FailCase kFailCases[] = {
    {"folders", "DROP TABLE path_objid_tbl;",
     "1Assign_pathtbl_media():sql query[select path,ROWID from path_objid_tbl end;] error[no such table: "
     "path_objid_tbl]\n"},
    {"music", "DROP TABLE music_tbl;",
     "2Assign_pathtbl_media():sql query[select COUNT(No) from music_tbl where UTF_Path like\"{dir}%\" limit "
     "0,1;] error[no such table: music_tbl]\n"},
    {"video", "DROP TABLE video_tbl;",
     "3Assign_pathtbl_media():sql query[select COUNT(No) from video_tbl where UTF_Path like\"{dir}%\" limit "
     "0,1;] error[no such table: video_tbl]\n"},
    {"photo", "DROP TABLE photo_tbl;",
     "4Assign_pathtbl_media():sql query[select COUNT(No) from photo_tbl where UTF_Path like\"{dir}%\" limit "
     "0,1;] error[no such table: photo_tbl]\n"},
    {"update", "CREATE TRIGGER ro BEFORE UPDATE ON path_objid_tbl BEGIN SELECT RAISE(ABORT,'read only'); END;",
     "6Assign_pathtbl_media():sql query[update path_objid_tbl set have_video = \"1\", have_music = \"1\", "
     "have_photo = \"1\" where ROWID =='1';] error[read only]\n"},
};

INSTANTIATE_TEST_SUITE_P(Cases, FolderFlagsFailure, ::testing::ValuesIn(kFailCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
