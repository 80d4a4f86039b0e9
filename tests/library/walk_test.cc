#include "library/walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../platform/stub_program.h"
#include "../temp_tree.h"
#include "driver/progress.h"
#include "library/objid.h"
#include "library/schema.h"
#include "library/sql.h"
#include "platform/holders.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

constexpr unsigned long long kFolderBase = 4000000000001ULL;

class Walk : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tree.ok());
    ASSERT_EQ(sqlite3_open(":memory:", &db_ptr), SQLITE_OK);
    create_schema();
    init_objid_counters();
    reset_walk_state();
    total_scan_cnt = 0;
    total_file_cnt = 0;
  }
  void TearDown() override {
    reset_walk_state();
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
    sqlite3_close(db_ptr);
    db_ptr = nullptr;
  }

  // Runs the walk the way the driver does: the root at layer 0, then every
  // queued folder in turn. Returns what it printed.
  std::string walk_all(const std::string& root) {
    ::testing::internal::CaptureStdout();
    if (ScanMusic(root.c_str(), 0) == 0) puts("1scan file fail");
    char folder[kFolderPathSize];
    int layer = 0;
    while (queue_has_folders()) {
      delqueue(folder, &layer);
      if (ScanMusic(folder, layer) == 0) puts("2scan file fail");
    }
    return ::testing::internal::GetCapturedStdout();
  }

  // One call of ScanMusic with its output captured.
  int scan_one(const std::string& folder, int layer, std::string* out) {
    ::testing::internal::CaptureStdout();
    const int rc = ScanMusic(folder.c_str(), layer);
    *out = ::testing::internal::GetCapturedStdout();
    return rc;
  }

  Rows query(const std::string& sql) {
    Table t;
    EXPECT_TRUE(sql_table(sql.c_str(), &t)) << sql << ": " << (zErrMsg ? zErrMsg : "");
    Rows rows;
    for (int r = 1; r <= t.rows; ++r) {
      std::vector<std::string> row;
      for (int c = 0; c < t.cols; ++c) row.push_back(t.at(r, c) ? t.at(r, c) : "NULL");
      rows.push_back(row);
    }
    return rows;
  }

  int32_t count_files(const std::string& root) {
    UniqueDir d(opendir(root.c_str()));
    EXPECT_TRUE(d != nullptr);
    ::testing::internal::CaptureStdout();
    const int32_t n = Cnt_total_file(root.c_str(), d.get());
    ::testing::internal::GetCapturedStdout();
    return n;
  }

  TempTree tree;
};

std::string id(unsigned long long base, int offset) { return std::to_string(base + offset); }

bool contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

void set_mtime(const std::string& path, time_t t) {
  struct timespec times[2] = {{t, 0}, {t, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

// --- The folder queue ------------------------------------------------------

TEST_F(Walk, QueueIsFirstInFirstOutWithLayers) {
  EXPECT_FALSE(queue_has_folders());
  addqueuex("/s/a/", 1);
  addqueuex("/s/b/", 1);
  addqueuex("/s/a/x/", 2);
  EXPECT_TRUE(queue_has_folders());
  char dest[kFolderPathSize];
  int layer = -1;
  const struct {
    const char* path;
    int layer;
  } expected[] = {{"/s/a/", 1}, {"/s/b/", 1}, {"/s/a/x/", 2}};
  for (const auto& e : expected) {
    ASSERT_EQ(delqueue(dest, &layer), 1);
    EXPECT_STREQ(dest, e.path);
    EXPECT_EQ(layer, e.layer);
  }
  EXPECT_FALSE(queue_has_folders());
  // Emptied and refilled: the tail must have been reset with the head.
  addqueuex("/s/c/", 3);
  ASSERT_EQ(delqueue(dest, &layer), 1);
  EXPECT_STREQ(dest, "/s/c/");
}

TEST_F(Walk, EmptyQueueSaysSoAndLeavesTheDestination) {
  char dest[kFolderPathSize] = "/untouched/";
  int layer = 7;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(delqueue(dest, &layer), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "delqueue::nothing in queue\n");
  EXPECT_STREQ(dest, "/untouched/");
  EXPECT_EQ(layer, 7);
}

TEST_F(Walk, QueueRefusesAPathItCannotHandBackWhole) {
  const std::string fits = "/" + std::string(kFolderPathSize - 3, 'a') + "/";  // 511 bytes
  const std::string too_long = "/" + std::string(kFolderPathSize - 2, 'a') + "/";
  ::testing::internal::CaptureStdout();
  addqueuex(too_long.c_str(), 1);
  addqueuex(fits.c_str(), 1);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(contains(out, "addqueuex::path too long")) << out;
  char dest[kFolderPathSize];
  int layer = 0;
  ASSERT_EQ(delqueue(dest, &layer), 1);
  EXPECT_EQ(std::string(dest), fits);
  EXPECT_FALSE(queue_has_folders());
}

// --- Small text helpers ----------------------------------------------------

TEST(CheckSpecialSymbol, QuotesBecomeSingleAndTheTextIsCutTo49) {
  const struct {
    std::string in;
    std::string out;
    bool changed;
  } cases[] = {
      {"plain title", "plain title", false},
      {std::string(300, 'n'), std::string(300, 'n'), false},  // no quote: never cut
      {"", "", false},
      {"say \"hello\" twice", "say 'hello' twice", true},
      {"\"", "'", true},
      {std::string(30, 'q') + "\"" + std::string(29, 'q'),  // 60 bytes
       std::string(30, 'q') + "'" + std::string(18, 'q'), true},
      {std::string(55, 'z') + "\"", std::string(49, 'z'), true},  // the quote lies past the cut
      {std::string(49, 'y') + "\"", std::string(49, 'y'), true},
      {std::string(48, 'y') + "\"", std::string(48, 'y') + "'", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    std::vector<char> buf(c.in.begin(), c.in.end());
    buf.push_back('\0');
    char* result = check_special_symbol(buf.data());
    EXPECT_EQ(std::string(buf.data()), c.out);
    EXPECT_EQ(result, c.changed ? buf.data() : nullptr);
  }
}

// --- Parent lookup -----------------------------------------------------------

TEST_F(Walk, ParentIsFoundByThePathWithItsSlash) {
  ASSERT_TRUE(sql_exec("insert into path_objid_tbl values (\"/s/\",\"4000000000001\",\"0\",\"0\",\"0\",\"0\",\"0\");"));
  ASSERT_TRUE(sql_exec("insert into path_objid_tbl values (\"/s/a b/\",\"4000000000002\",\"4000000000001\",\"1\",\"0\",\"0\",\"0\");"));
  EXPECT_EQ(get_parid("/s/a b/"), 4000000000001ULL);
  EXPECT_EQ(get_parid("/s/a b/x/"), 4000000000002ULL);
  EXPECT_EQ(get_parid("/s/"), 0u);             // "/" has no row
  EXPECT_EQ(get_parid("/elsewhere/z/"), 0u);   // no row: 0
  EXPECT_EQ(get_parid(""), 0u);
}

TEST_F(Walk, FailedParentLookupPrintsItsStatement) {
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(get_parid("/s/it's/x/"), 0u);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "get_parid():1Exe SQL query Error[select ObjID from path_objid_tbl where path =='/s/it's/';]\n");
}

// --- Scanning folders ----------------------------------------------------------

TEST_F(Walk, EmptyShareGetsTheRootRowAndAScanCountOfOne) {
  std::string out;
  EXPECT_EQ(scan_one(tree.root(), 0, &out), 1);
  EXPECT_EQ(query("select * from path_objid_tbl;"),
            (Rows{{tree.root(), id(kFolderBase, 0), "0", "0", "0", "0", "0"}}));
  EXPECT_EQ(init_objid.media_path_objid, kFolderBase + 1);
  EXPECT_EQ(init_objid.media_path_parid, 0u);
  EXPECT_EQ(total_scan_cnt.load(), 1);
}

TEST_F(Walk, UnlistableFolderGetsNoRowButStillReturnsOne) {
  std::string out;
  total_scan_cnt = 0;
  EXPECT_EQ(scan_one(tree.root() + "missing/", 2, &out), 1);
  EXPECT_EQ(out, "");
  EXPECT_TRUE(query("select * from path_objid_tbl;").empty());
  EXPECT_EQ(init_objid.media_path_objid, kFolderBase);
  EXPECT_EQ(total_scan_cnt.load(), 1);
}

TEST_F(Walk, FoldersAreNumberedBreadthFirstWithTheirParents) {
  tree.dir("a/x");
  tree.dir("b/x");
  tree.file("a/x/deep.mp3");
  const std::string root = tree.root();
  const std::string out = walk_all(root);
  EXPECT_FALSE(contains(out, "scan file fail")) << out;
  EXPECT_EQ(query("select path, ObjID, Dir_ParentID, layer from path_objid_tbl order by rowid;"),
            (Rows{{root, id(kFolderBase, 0), "0", "0"},
                  {root + "a/", id(kFolderBase, 1), id(kFolderBase, 0), "1"},
                  {root + "b/", id(kFolderBase, 2), id(kFolderBase, 0), "1"},
                  {root + "a/x/", id(kFolderBase, 3), id(kFolderBase, 1), "2"},
                  {root + "b/x/", id(kFolderBase, 4), id(kFolderBase, 2), "2"}}));
  EXPECT_EQ(query("select Real_Path, layer, Dir_ParentID from music_tbl;"),
            (Rows{{root + "a/x/", "2", id(kFolderBase, 3)}}));
  EXPECT_EQ(init_objid.media_path_objid, kFolderBase + 5);
}

// One folder holding every kind of entry the walk must tell apart.
TEST_F(Walk, EntriesAreAdmittedByTypeNameAndExtension) {
  const std::vector<std::string> admitted = {"L.PLS", "Song.MP3", "clip.mpeg2", "list.m3u", "m.TS",
                                             "p.JPG", "s.Srt", "t.aif", "v.Dat", "x.Wma"};
  for (const std::string& name : admitted) tree.file(name);
  for (const char* name : {"movie.mpeg21", "README", "archive.tar.gz", "a.mp3.bak", "notes.txt",
                           ".hidden.mp3", "noext.", "tune.flac"})
    tree.file(name);
  tree.dir(".hid");
  tree.file(".hid/inside.mp3");
  tree.dir("sub");
  ASSERT_TRUE(tree.link("Song.MP3", "ln.mp3"));
  ASSERT_TRUE(tree.link("sub", "lnk"));
  ASSERT_EQ(mkfifo((tree.root() + "pipe.mp3").c_str(), 0600), 0);

  const std::string root = tree.root();
  const std::string out = walk_all(root);
  EXPECT_TRUE(contains(out, "Link File: [" + root + "ln.mp3]\n")) << out;
  EXPECT_TRUE(contains(out, "Link File: [" + root + "lnk]\n")) << out;
  EXPECT_FALSE(contains(out, "scan file fail")) << out;
  // Only sub is walked: not the hidden folder, not the link to sub.
  EXPECT_EQ(query("select path from path_objid_tbl order by rowid;"), (Rows{{root}, {root + "sub/"}}));

  const std::string f = id(kFolderBase, 0);
  EXPECT_EQ(query("select No, Real_fname, EXT_fname, ObjID, Dir_ParentID, layer from music_tbl order by rowid;"),
            (Rows{{"1", "L.PLS", "pls", "3000000000001", f, "0"},
                  {"2", "Song.MP3", "mp3", "3000000000002", f, "0"},
                  {"3", "list.m3u", "m3u", "3000000000003", f, "0"},
                  {"4", "t.aif", "aif", "3000000000004", f, "0"},
                  {"5", "x.Wma", "wma", "3000000000005", f, "0"}}));
  EXPECT_EQ(query("select No, Real_fname, EXT_fname, ObjID, Dir_ParentID, layer from video_tbl order by rowid;"),
            (Rows{{"1", "clip.mpeg2", "mpeg2", "2000000000001", f, "0"},
                  {"2", "m.TS", "ts", "2000000000002", f, "0"},
                  {"3", "s.Srt", "srt", "2000000000003", f, "0"},
                  {"4", "v.Dat", "dat", "2000000000004", f, "0"}}));
  // The photo is counted whether or not it can be measured.
  EXPECT_EQ(total_scan_cnt.load(), static_cast<int32_t>(admitted.size()));
  EXPECT_EQ(count_files(root), static_cast<int32_t>(admitted.size()));
}

TEST_F(Walk, RowsOfFilesWithoutMetadataHoldEveryColumn) {
  tree.file("x.Wma", "abc");
  tree.file("L.pls", "12");
  tree.file("s.srt", "1");
  tree.file("v.vob", "");
  for (const char* name : {"x.Wma", "L.pls", "s.srt", "v.vob"}) set_mtime(tree.root() + name, 1700000000);
  const char* old_tz = getenv("TZ");
  const std::string saved = old_tz ? old_tz : "";
  setenv("TZ", "JST-9", 1);
  tzset();
  const std::string root = tree.root();
  const std::string out = walk_all(root);
  if (old_tz) setenv("TZ", saved.c_str(), 1); else unsetenv("TZ");
  tzset();

  const std::string t = "2023-11-15T07:13:20";  // 1700000000 at UTC+9
  const std::string f = id(kFolderBase, 0);
  EXPECT_EQ(query("select * from music_tbl order by rowid;"),
            (Rows{{"1", root, "L.pls", root, "L.pls", "pls", t, "2", "0", "0", "0", "0", "0", "0", "0", "0",
                   "0", "0", "3000000000001", f, "0", "0", "0"},
                  {"2", root, "x.Wma", root, "x.Wma", "wma", t, "3", "Others", "Others", "Others", "x.Wma", "0",
                   "0", "0", "0", "0", "0", "3000000000002", f, "0", "0", "0"}}));
  EXPECT_EQ(query("select * from video_tbl order by rowid;"),
            (Rows{{"1", root, "s.srt", root, "s.srt", "srt", t, "1", "0", "0", "0", "0", "0", "0", "0", "0",
                   "0", "2000000000001", f, "0", "0", "0"},
                  {"2", root, "v.vob", root, "v.vob", "vob", t, "0", "0", "0", "0", "0", "0", "0", "0", "0",
                   "0", "2000000000002", f, "0", "0", "0"}}));
  // A music file that is no MP3 is never analysed, and says so.
  EXPECT_TRUE(contains(out, "scan_get_mp3fileinfo():Get mp3 file info failure!!!\n  filename [" + root +
                                "x.Wma]\n"))
      << out;
  // Every value is text, numbers included.
  EXPECT_EQ(query("select distinct typeof(No) || typeof(Filesize) || typeof(ObjID) from music_tbl;"),
            (Rows{{"texttexttext"}}));
}

// Photos carry the reader's width, height and depth; one that cannot be
// measured gets no row and spends no identifier. A video's Format_type is its
// television system (PAL 1), not its MPEG version (2).
TEST_F(Walk, PhotoAndVideoRowsCarryWhatTheReadersFound) {
  const std::string data = MEDIAWALK_TEST_DATA "/pictures/";
  std::filesystem::copy_file(data + "grey8.png", tree.root() + "P.PNG");
  std::filesystem::copy_file(data + "baseline.jpg", tree.root() + "b.jpg");
  std::filesystem::copy_file(data + "mpeg2_pal.mpg", tree.root() + "clip.mpg");
  tree.file("1bad.gif", "not a picture");
  for (const char* name : {"P.PNG", "b.jpg", "clip.mpg", "1bad.gif"}) set_mtime(tree.root() + name, 0);
  const std::string root = tree.root();
  walk_all(root);
  const std::string f = id(kFolderBase, 0);
  const std::string png_size = std::to_string(std::filesystem::file_size(root + "P.PNG"));
  const std::string jpg_size = std::to_string(std::filesystem::file_size(root + "b.jpg"));
  struct tm tm_local;
  const time_t epoch = 0;
  char t[64];
  ASSERT_NE(localtime_r(&epoch, &tm_local), nullptr);
  strftime(t, sizeof t, "%Y-%m-%dT%H:%M:%S", &tm_local);
  EXPECT_EQ(query("select * from photo_tbl order by rowid;"),
            (Rows{{"1", root, "P.PNG", root, "P.PNG", "png", t, png_size, "37", "23", "8", "0", "0", "0", "0",
                   "1000000000001", f, "0", "0", "0"},
                  {"2", root, "b.jpg", root, "b.jpg", "jpg", t, jpg_size, "37", "23", "24", "0", "0", "0", "0",
                   "1000000000002", f, "0", "0", "0"}}));
  EXPECT_EQ(query("select Real_fname, Width, Height, Format_type, ObjID from video_tbl;"),
            (Rows{{"clip.mpg", "720", "576", "1", "2000000000001"}}));
  EXPECT_EQ(total_scan_cnt.load(), 4);
}

// Tag texts fill the four columns; only the title is escaped (and so cut to
// 49 bytes), a quote in any other text fails the row and ends the folder. The
// music record lives on between files, so a field no reader sets this time
// keeps the value of the file before.
TEST_F(Walk, MusicRowsCarryTheTagsAndTheBitrate) {
  StubPath no_detector(/*keep_system_path=*/false);  // every text is then read as UTF-8
  const std::string tags = MEDIAWALK_TEST_DATA "/tags/";
  std::filesystem::copy_file(tags + "v23_latin1.mp3", tree.root() + "latin.mp3");
  std::filesystem::copy_file(tags + "title_quote60.mp3", tree.root() + "quote.mp3");
  std::filesystem::copy_file(MEDIAWALK_TEST_DATA "/audio/cbr128_44k.mp3", tree.root() + "cbr.mp3");
  tree.dir("s");
  std::filesystem::copy_file(tags + "shell_meta.mp3", tree.root() + "s/shell.mp3");
  tree.file("s/zz.wav");
  const std::string root = tree.root();
  const std::string out = walk_all(root);
  EXPECT_EQ(query("select Real_fname, Genre, Artist, Album, Title, Bitrate from music_tbl order by rowid;"),
            (Rows{{"cbr.mp3", "Others", "Others", "Others", "cbr.mp3", "128"},
                  {"latin.mp3", "Rock", "Latin Artist", "Latin Album", "Latin Title", "128"},
                  {"quote.mp3", "Others", "Others", "Others", "A title of sixty bytes with a 'double quote' in i", "128"}}));
  EXPECT_TRUE(contains(out, "1ScanMusic():execute sql query error[")) << out;
  EXPECT_TRUE(contains(out, "2scan file fail\n")) << out;
  // In the tag samples the frame analysis finds no frame, which is no failure:
  // the bitrate is left alone and the previous file's value is stored again.
  EXPECT_FALSE(contains(out, "Get mp3 file info failure")) << out;
}

TEST_F(Walk, SizesAboveFourGibibytesAreKeptWhole) {
  const std::string big = tree.file("big.avi");
  ASSERT_EQ(truncate(big.c_str(), (5LL << 30) + 3), 0);  // sparse
  walk_all(tree.root());
  EXPECT_EQ(query("select Filesize, typeof(Filesize) from video_tbl;"), (Rows{{"5368709123", "text"}}));
}

// A double quote in a name ends the statement's literal early: the row fails
// and so does the rest of the folder, but what was queued stays queued.
TEST_F(Walk, QuoteInANameEndsItsFolderAndTheNextFolderTakesItsId) {
  tree.file("a.mp3");
  tree.dir("a_dir");
  tree.file("b\"c.mp3");
  tree.file("d.mp3");
  tree.dir("e_dir");
  tree.file("a_dir/f.mp3");
  const std::string root = tree.root();
  const std::string out = walk_all(root);
  EXPECT_TRUE(contains(out, "1ScanMusic():execute sql query error[")) << out;
  EXPECT_TRUE(contains(out, "1scan file fail\n")) << out;
  EXPECT_FALSE(contains(out, "2scan file fail")) << out;
  // Root failed after its row went in; a_dir then gets the same ObjID.
  EXPECT_EQ(query("select path, ObjID, Dir_ParentID from path_objid_tbl order by rowid;"),
            (Rows{{root, id(kFolderBase, 0), "0"}, {root + "a_dir/", id(kFolderBase, 0), id(kFolderBase, 0)}}));
  // The failed row used up identifier ...2 but not row number 2.
  EXPECT_EQ(query("select No, Real_fname, ObjID from music_tbl order by rowid;"),
            (Rows{{"1", "a.mp3", "3000000000001"}, {"2", "f.mp3", "3000000000003"}}));
  EXPECT_EQ(init_objid.media_path_objid, kFolderBase + 1);
}

TEST_F(Walk, FailedFolderRowQueuesNothing) {
  const std::string folder = tree.dir("q\"x");
  tree.dir("q\"x/sub");
  tree.file("q\"x/a.mp3");
  std::string out;
  EXPECT_EQ(scan_one(folder, 1, &out), 0);
  EXPECT_TRUE(contains(out, "ScanMusic():execute sql query[insert into path_objid_tbl values (\"" + folder)) << out;
  EXPECT_FALSE(queue_has_folders());
  EXPECT_TRUE(query("select * from music_tbl;").empty());
  EXPECT_EQ(init_objid.media_path_objid, kFolderBase);
  EXPECT_EQ(total_scan_cnt.load(), 0);  // a failed call is not forced to 1
}

// A marker is deleted on sight; a link of that name is no marker, and neither
// it nor what it points to is touched.
TEST_F(Walk, MarkerIsDeletedOnSight) {
  const std::string marker = tree.file(".MediaWalk.Music", "x"), target = tree.file("target", "x");
  const std::string link = tree.dir("linked") + ".MediaWalk.Music";
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  std::string out;
  EXPECT_EQ(scan_one(tree.root(), 0, &out), 1);
  EXPECT_EQ(out, marker + "\n");
  EXPECT_NE(access(marker.c_str(), F_OK), 0);
  EXPECT_EQ(scan_one(tree.root() + "linked/", 1, &out), 1);
  EXPECT_EQ(out, "");
  struct stat64 st;
  EXPECT_TRUE(lstat64(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode) && access(target.c_str(), F_OK) == 0);
}

// Folder path plus name: 511 bytes are processed, 512 are refused with their
// length; a subfolder of 511 bytes is queued with its "/" (512 bytes).
TEST_F(Walk, PathLengthBoundary) {
  std::string rel = std::string(200, 'd') + "/" + std::string(200, 'e');
  const std::string folder = tree.dir(rel);
  ASSERT_LT(folder.size(), 500u);
  const size_t room = 511 - folder.size();
  const std::string n511 = std::string(room - 4, 'm') + ".mp3";
  const std::string n512 = std::string(room - 3, 'm') + ".mp3";
  const std::string dir510 = std::string(room - 1, 'f');
  const std::string dir511 = std::string(room, 'g');
  for (const std::string& name : {n511, n512}) tree.file(rel + "/" + name);
  for (const std::string& name : {dir510, dir511}) tree.dir(rel + "/" + name);

  std::string out;
  EXPECT_EQ(scan_one(folder, 2, &out), 1);
  EXPECT_TRUE(contains(out, "<mediawalk>ScanMusic(): file path too long 512\n")) << out;
  EXPECT_EQ(query("select Real_fname from music_tbl;"), (Rows{{n511}}));
  char dest[kFolderPathSize];
  int layer = 0;
  ASSERT_EQ(delqueue(dest, &layer), 1);
  EXPECT_EQ(std::string(dest), folder + dir510 + "/");
  EXPECT_EQ(strlen(dest), 511u);
  EXPECT_EQ(layer, 3);
  ASSERT_EQ(delqueue(dest, &layer), 1);
  EXPECT_EQ(std::string(dest), folder + dir511 + "/");
  EXPECT_EQ(strlen(dest), 512u);
  EXPECT_FALSE(queue_has_folders());
  // The counting walk admits the same single file.
  UniqueDir d(opendir(folder.c_str()));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Cnt_total_file(folder.c_str(), d.get()), 1);
  const std::string counted = ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(contains(counted, "<Cnt_total_file>Cnt_total_file(): file path too long 512\n")) << counted;
}

}  // namespace
