#include "library/sort.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "library_db.h"

namespace {

using libtest::LibraryDb;

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;
using Rows = std::vector<std::vector<std::string>>;

class SortDbtable : public LibraryDb {
 protected:
  std::string run(int expect_result) {
    CaptureStdout();
    const int result = sort_dbtable();
    std::string out = GetCapturedStdout();
    EXPECT_EQ(result, expect_result);
    return out;
  }
  // A sorted index as the titles/names of the rows it points at, in row id order.
  std::vector<std::string> index_of(const char* index, const char* table, const char* name_col) {
    return column(std::string("select t.") + name_col + " from " + index + " i join " + table +
                  " t on t.No == i.idx order by i.ROWID;");
  }
  Rows list(const char* table) {
    return rows(std::string("select name,cnt,ObjID,reserve1,reserve2 from ") + table + " order by ROWID;");
  }
};

TEST_F(SortDbtable, MusicByTitleFirstCapitalOnly) {
  music(1, dir_, "z.mp3", "Zebra");
  music(2, dir_, "a1.mp3", "apple");
  music(3, dir_, "a2.mp3", "Apple");
  music(4, dir_, "n.mp3", "123");
  untagged("music_tbl", 5, dir_, "l.m3u", "m3u");
  untagged("music_tbl", 6, dir_, "l.pls", "pls");
  EXPECT_EQ(run(1), "");
  EXPECT_EQ(index_of("music_sortidx_tbl", "music_tbl", "Title"),
            (std::vector<std::string>{"123", "Apple", "apple", "Zebra"}));
  EXPECT_EQ(rows("select typeof(idx),reserve1,typeof(reserve1),reserve2 from music_sortidx_tbl limit 1;"),
            (Rows{{"text", "0", "integer", "0"}}));
}

TEST_F(SortDbtable, VideosWithoutSubtitlesAndAllPhotos) {
  video(1, dir_, "Zoo.mpg");
  video(2, dir_, "beach.mpg");
  untagged("video_tbl", 3, dir_, "Zoo.srt", "srt");
  video(4, dir_, "_intro.mpg");
  photo(1, dir_, "b.jpg");
  photo(2, dir_, "Bb.jpg");
  photo(3, dir_, "A.jpg");
  EXPECT_EQ(run(1), "");
  // Zoo sorts by its key "z"; "_intro" (0x5F) comes before "beach".
  EXPECT_EQ(index_of("video_sortidx_tbl", "video_tbl", "UTF_fname"),
            (std::vector<std::string>{"_intro.mpg", "beach.mpg", "Zoo.mpg"}));
  // Key "a" for A.jpg, "b" for Bb.jpg, "b.jpg" for b.jpg.
  EXPECT_EQ(index_of("photo_sortidx_tbl", "photo_tbl", "UTF_fname"),
            (std::vector<std::string>{"A.jpg", "Bb.jpg", "b.jpg"}));
}

TEST_F(SortDbtable, ListsWithCountsAndConsecutiveIdentifiers) {
  init_objid.music_file_gen_objid = 3040000000007ULL;  // a step starts where its counter stands
  music(1, dir_, "1.mp3", "t", "rock", "Bob", "Live");
  music(2, dir_, "2.mp3", "t", "Rock", "bob", "Live");
  music(3, dir_, "3.mp3", "t", "ROCK", "Bob", "live");
  music(4, dir_, "4.mp3", "t", "rock", "Amy", "Live");
  music(5, dir_, "5.mp3", "t", "", "Others", "Others");
  music(7, dir_, "7.mp3", "t", "blues", "Amy", "Others");  // binary order alone would put it last
  untagged("music_tbl", 6, dir_, "x.m3u", "m3u");  // its "0" tags form no entry
  EXPECT_EQ(run(1), "");
  EXPECT_EQ(list("music_sortGen_tbl"), (Rows{{"", "1", "3040000000007", "0", "0"},
                                              {"blues", "1", "3040000000008", "0", "0"},
                                              {"ROCK", "1", "3040000000009", "0", "0"},
                                              {"Rock", "1", "3040000000010", "0", "0"},
                                              {"rock", "2", "3040000000011", "0", "0"}}));
  EXPECT_EQ(list("music_sortArt_tbl"), (Rows{{"Amy", "2", "3050000000001", "0", "0"},
                                              {"Bob", "2", "3050000000002", "0", "0"},
                                              {"bob", "1", "3050000000003", "0", "0"},
                                              {"Others", "1", "3050000000004", "0", "0"}}));
  // Grouped by album name alone, whoever the artist.
  EXPECT_EQ(list("music_sortAlb_tbl"), (Rows{{"Live", "3", "3060000000001", "0", "0"},
                                              {"live", "1", "3060000000002", "0", "0"},
                                              {"Others", "2", "3060000000003", "0", "0"}}));
  EXPECT_EQ(init_objid.music_file_gen_objid, 3040000000012ULL);
  EXPECT_EQ(init_objid.music_file_art_objid, 3050000000005ULL);
  EXPECT_EQ(init_objid.music_file_alb_objid, 3060000000004ULL);
  EXPECT_EQ(value("select typeof(cnt) || typeof(ObjID) || typeof(reserve1) from music_sortGen_tbl;"),
            "texttextinteger");
}

TEST_F(SortDbtable, NamesAsLongAsTheWalkStoresAreKeptWhole) {
  const std::string name(256, 'n');
  music(1, dir_, "1.mp3", name, std::string(30, 'g'), name, name);
  EXPECT_EQ(run(1), "");
  EXPECT_EQ(value("select name from music_sortArt_tbl;"), name);
  EXPECT_EQ(value("select name from music_sortAlb_tbl;"), name);
}

TEST_F(SortDbtable, EmptyMusicTableLeavesTheCounters) {
  photo(1, dir_, "a.jpg");
  EXPECT_EQ(run(1), "");
  EXPECT_EQ(value("select count(*) from music_sortidx_tbl;"), "0");
  EXPECT_EQ(value("select count(*) from music_sortGen_tbl;"), "0");
  EXPECT_EQ(init_objid.music_file_gen_objid, 3040000000001ULL);
  EXPECT_EQ(init_objid.music_file_art_objid, 3050000000001ULL);
  EXPECT_EQ(init_objid.music_file_alb_objid, 3060000000001ULL);
  EXPECT_EQ(value("select count(*) from photo_sortidx_tbl;"), "1");
}

// The first failure ends the routine: its message, and the later steps not run.
struct FailCase {
  const char* name;
  const char* setup;
  const char* output;
  unsigned gen_used, art_used;  // identifiers taken from the counters
  bool photo_index_exists = true;
};
void PrintTo(const FailCase& c, std::ostream* os) { *os << c.name; }

class SortDbtableFailure : public SortDbtable, public ::testing::WithParamInterface<FailCase> {};

TEST_P(SortDbtableFailure, StopsAtTheFirstFailure) {
  const FailCase& c = GetParam();
  music(1, dir_, "1.mp3", "t", "Pop", "Amy", "Live");
  music(2, dir_, "2.mp3", "t", "Rock", "Amy", "Live");
  photo(1, dir_, "a.jpg");
  exec(c.setup);
  EXPECT_EQ(run(0), c.output);
  EXPECT_EQ(init_objid.music_file_gen_objid, 3040000000001ULL + c.gen_used);
  EXPECT_EQ(init_objid.music_file_art_objid, 3050000000001ULL + c.art_used);
  if (c.photo_index_exists) {
    EXPECT_EQ(value("select count(*) from photo_sortidx_tbl;"), "0");
  }
}

const FailCase kFailCases[] = {
    {"music_select", "DROP TABLE music_tbl;", "1sort_dbtable():SQL query Error[no such table: music_tbl]\n", 0, 0},
    {"music_insert", "DROP TABLE music_sortidx_tbl;",
     "2sort_dbtable():SQL query Error[no such table: music_sortidx_tbl]\n", 0, 0},
    // The failed INSERT has consumed its identifier.
    {"genre_insert", "DROP TABLE music_sortGen_tbl;",
     "4sort_dbtable():SQL query Error[no such table: music_sortGen_tbl]\n", 1, 0},
    {"artist_insert", "DROP TABLE music_sortArt_tbl;",
     "6sort_dbtable():SQL query Error[no such table: music_sortArt_tbl]\n", 2, 1},
    {"album_insert", "DROP TABLE music_sortAlb_tbl;",
     "8sort_dbtable():SQL query Error[no such table: music_sortAlb_tbl]\n", 2, 1},
    {"video_select", "DROP TABLE video_tbl;", "9sort_dbtable():SQL query Error[no such table: video_tbl]\n", 2, 1},
    {"photo_insert", "DROP TABLE photo_sortidx_tbl;",
     "12sort_dbtable():SQL query Error[no such table: photo_sortidx_tbl]\n", 2, 1, false},
    // A name too long for the statement is not cut but fails like a statement.
    {"name_too_long",
     "UPDATE music_tbl SET Artist = hex(zeroblob(1000)) WHERE No == '2';",
     "6sort_dbtable():SQL query Error[statement too long; not run]\n", 2, 1},
};

INSTANTIATE_TEST_SUITE_P(Cases, SortDbtableFailure, ::testing::ValuesIn(kFailCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
