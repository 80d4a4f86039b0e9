#include "library/playlist.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "../sparse_file.h"
#include "library_db.h"

namespace {

using libtest::LibraryDb;

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

// Replaces "{dir}" (the playlist's folder) and "{pl}" (its path) in text.
std::string expand(std::string text, const std::string& dir, const std::string& pl) {
  for (const auto& [key, val] : {std::pair<std::string, std::string>{"{pl}", pl}, {"{dir}", dir}}) {
    for (size_t at; (at = text.find(key)) != std::string::npos;) text.replace(at, key.size(), val);
  }
  return text;
}

class Playlist : public LibraryDb {
 protected:
  // Songs of the playlist's folder, and one of the same name elsewhere.
  void songs() {
    music(1, dir_, "a.mp3", "A");
    music(2, dir_, "b.mp3", "B");
    music(3, dir_, "A.MP3", "C");
    music(4, dir_, "a.Mp3", "D");
    music(5, dir_ + "other/", "c.mp3", "E");
  }

  // Runs the phase and returns what it printed.
  std::string run(int expect_result = 1) {
    CaptureStdout();
    const int result = parser_playlist();
    std::string out = GetCapturedStdout();
    EXPECT_EQ(result, expect_result);
    return out;
  }

  std::string pls_file(int no) {
    return value("select PlsFile from music_tbl where No == '" + std::to_string(no) + "';");
  }
};

struct ListCase {
  const char* name;
  const char* ext;
  std::string content;
  const char* pls_file;  // PlsFile stored for the playlist row
  const char* output;    // {dir} and {pl} stand for the folder and the playlist path
};
void PrintTo(const ListCase& c, std::ostream* os) { *os << c.name; }

class PlaylistLines : public Playlist, public ::testing::WithParamInterface<ListCase> {};

TEST_P(PlaylistLines, ResolvesEntriesInItsFolder) {
  const ListCase& c = GetParam();
  songs();
  const std::string name = std::string("list.") + c.ext;
  untagged("music_tbl", 10, dir_, name, c.ext);
  const std::string pl = write_file(name, c.content);
  EXPECT_EQ(run(), expand(c.output, dir_, pl));
  EXPECT_EQ(pls_file(10), c.pls_file);
  EXPECT_EQ(value("select count(*) from music_tbl;"), "6");  // nothing dropped by an entry
}

const ListCase kListCases[] = {
    {"crlf", "m3u", "a.mp3\r\nb.mp3\r\n", "1,2,", ""},
    {"lf_and_unterminated_last_line", "m3u", "b.mp3\na.mp3", "2,1,", ""},
    {"lone_cr_kept", "m3u", "a.mp3\r", "", "2Can't find [a.mp3\r] in m3u[{pl}]\n"},
    {"cr_between_names_kept", "m3u", "a.mp3\rb.mp3\n", "", "2Can't find [a.mp3\rb.mp3] in m3u[{pl}]\n"},
    {"windows_path_skipped", "m3u", "C:\\Music\\a.mp3\r\n", "", ""},
    {"windows_path_after_extinf", "m3u", "#EXTINF:123,Artist - A\r\nC:\\Music\\a.mp3\r\n", "1,", ""},
    {"notes_skipped", "m3u", "notes.txt\n", "", ""},
    {"notes_after_extinf", "m3u", "#EXTINF:1,x\nnotes.txt\n", "", "1Can't find [notes.txt] in m3u[{pl}]\n"},
    {"last_line_extinf", "m3u", "a.mp3\n#EXTINF:1,x\n", "1,", "1Can't find [#EXTINF:1,x] in m3u[{pl}]\n"},
    {"extinf_is_case_sensitive", "m3u", "#extinf:1,x\nb.mp3\n", "2,", ""},
    {"two_spellings_only", "m3u", "A.MP3\na.Mp3\n", "3,", ""},
    {"unknown_not_counted_repeats_kept", "m3u", "b.mp3\nzz.mp3\nb.mp3\na.mp3\n", "2,2,1,",
     "2Can't find [zz.mp3] in m3u[{pl}]\n"},
    {"own_folder_only", "m3u", "c.mp3\nother/c.mp3\n", "",
     "2Can't find [c.mp3] in m3u[{pl}]\n2Can't find [other/c.mp3] in m3u[{pl}]\n"},
    {"nul_bytes_end_the_text", "m3u", std::string("a.mp3\0junk\nb.mp3\n", 17), "1,2,", ""},
    {"empty_file", "m3u", "", "", ""},
    // 511 bytes a read: the rest of a long line comes as a line of its own.
    {"long_line_read_in_pieces", "m3u", std::string(511, 'x') + "b.mp3\n", "2,", ""},
    {"injection_runs_nothing", "m3u", "x.mp3\"; DROP TABLE music_tbl; --\nb.mp3\n", "2,",
     "parser_playlist():3Execute SQL query Error\n"},
    {"injection_after_extinf", "m3u", "#EXTINF:1,x\nx.mp3\"; DROP TABLE music_tbl; --\n", "",
     "parser_playlist():2Execute SQL query Error\nsqlquery[select No from music_tbl where "
     "Real_Path=\"{dir}\" AND Real_fname=\"x.mp3\"; DROP TABLE music_tbl; --\";]\n"},
    {"pls_file_lines", "pls",
     "[playlist]\r\nFile1=a.mp3\r\nfile2=b.mp3\nTitle1=x\nFile3\nFileX=b.mp3\nFile4=zz.mp3\n"
     "File5=notes.txt\nFile6=C:\\M\\a.mp3\nNumberOfEntries=6\n",
     "1,2,",
     "3Can't find [zz.mp3] in m3u[{pl}]\n3Can't find [notes.txt] in m3u[{pl}]\n"
     "3Can't find [C:\\M\\a.mp3] in m3u[{pl}]\n"},
    {"pls_injection", "pls", "File1=x.mp3\"; DROP TABLE music_tbl; --\nFile2=a.mp3\n", "1,",
     "parser_playlist():5Execute SQL query Error\nsqlquery[select No from music_tbl where "
     "Real_Path=\"{dir}\" AND Real_fname=\"x.mp3\"; DROP TABLE music_tbl; --\";]\n"},
};

INSTANTIATE_TEST_SUITE_P(Cases, PlaylistLines, ::testing::ValuesIn(kListCases),
                         [](const auto& info) { return std::string(info.param.name); });

// 300 songs named, with two unknown names among them: the first 256 found are
// kept, one over-the-limit message, and the list is never cut inside an entry.
struct CapCase {
  const char* ext;
  int first_no;  // digits of the No values decide how many fit in 2,048 bytes
  int kept;
  const char* miss_digit;
  const char* over_msg;
};
void PrintTo(const CapCase& c, std::ostream* os) { *os << c.ext << " from No " << c.first_no; }

class PlaylistCap : public Playlist, public ::testing::WithParamInterface<CapCase> {};

TEST_P(PlaylistCap, KeepsTheFirst256Songs) {
  const CapCase& c = GetParam();
  const bool m3u = std::string(c.ext) == "m3u";
  std::string content, expected_list;
  exec("BEGIN;");
  for (int i = 0; i < 300; ++i) {
    char name[32];
    snprintf(name, sizeof name, "s%03d.mp3", i);
    music(c.first_no + i, dir_, name, name);
    if (i % 100 == 0 && i > 0) content += m3u ? "nope.mp3\n" : "File=nope.mp3\n";
    content += (m3u ? "" : "File" + std::to_string(i) + "=") + name + "\n";
    if (i < c.kept) expected_list += std::to_string(c.first_no + i) + ",";
  }
  exec("COMMIT;");
  const std::string name = std::string("big.") + c.ext;
  untagged("music_tbl", 1, dir_, name, c.ext);
  const std::string pl = write_file(name, content);
  const std::string miss = std::string(c.miss_digit) + "Can't find [nope.mp3] in m3u[" + pl + "]\n";
  EXPECT_EQ(run(), miss + miss + c.over_msg);
  EXPECT_EQ(pls_file(1), expected_list);
  EXPECT_LE(expected_list.size(), 2048u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PlaylistCap,
    ::testing::Values(CapCase{"m3u", 2, 256, "2", "2:MP3 songs amount in playlist exceed 256\n"},
                      CapCase{"pls", 2, 256, "3", "1:MP3 songs amount in playlist exceed 256\n"},
                      // Seven digits and a comma, 256 times: exactly 2,048 bytes.
                      CapCase{"m3u", 1000000, 256, "2", "2:MP3 songs amount in playlist exceed 256\n"},
                      // Nine bytes an entry: 227 whole entries fit, the rest are left out.
                      CapCase{"pls", 10000000, 227, "3", "1:MP3 songs amount in playlist exceed 256\n"}));

// A playlist that can't be opened is reported and keeps its row, and the run
// goes on. What took a playlist's place after the walk listed it is read only
// when it is a regular file: a folder, a FIFO without a writer (which would
// hold the phase in open() for good) and a link count as playlists that can't
// be opened.
TEST_F(Playlist, UnopenedPlaylistKeepsItsRowAndTheRunGoesOn) {
  songs();
  write_file("real.m3u", "a.mp3\n");
  write_file("ok.pls", "File1=b.mp3\n");
  ASSERT_EQ(mkdir((dir_ + "dir.m3u").c_str(), 0700), 0);
  ASSERT_EQ(symlink("real.m3u", (dir_ + "link.m3u").c_str()), 0);
  ASSERT_EQ(mkfifo((dir_ + "fifo.pls").c_str(), 0600), 0);
  std::string expected;
  int no = 10;
  for (const std::string name : {"gone.m3u", "dir.m3u", "link.m3u", "gone.pls", "fifo.pls"}) {
    untagged("music_tbl", no++, dir_, name, name.substr(name.size() - 3));
    expected += "parser_playlist():Open [" + dir_ + name + "] fail\n";
  }
  untagged("music_tbl", no, dir_, "ok.pls", "pls");
  EXPECT_EQ(run(), expected);
  for (int n = 10; n < no; ++n) EXPECT_EQ(pls_file(n), "0") << n;
  EXPECT_EQ(pls_file(no), "2,");
}

// A folder path and an entry of close to 511 bytes each still make a whole
// look-up statement: the miss is reported as a miss, not as a query error.
TEST_F(Playlist, LongestLookUpFits) {
  std::string folder = dir_;
  while (folder.size() < 480) {
    folder += std::string(100, 'd').substr(0, 480 - folder.size()) + "/";
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0) << folder;
  }
  untagged("music_tbl", 1, folder, "l.m3u", "m3u");
  const std::string entry = std::string(506, 'e') + ".mp3";
  FILE* f = fopen((folder + "l.m3u").c_str(), "w");
  ASSERT_NE(f, nullptr);
  fprintf(f, "%s\n", entry.c_str());
  fclose(f);
  EXPECT_EQ(run(), "2Can't find [" + entry + "] in m3u[" + folder + "l.m3u]\n");
}

TEST_F(Playlist, FailedFirstQueryEndsThePhase) {
  exec("DROP TABLE music_tbl;");
  EXPECT_EQ(run(0), "parser_playlist():1Execute SQL query Error\n");
}

// A failed UPDATE ends the phase at once: later playlists keep their "0".
TEST_F(Playlist, FailedUpdateEndsThePhase) {
  songs();
  untagged("music_tbl", 10, dir_, "x.m3u", "m3u");
  untagged("music_tbl", 11, dir_, "y.m3u", "m3u");
  untagged("music_tbl", 12, dir_, "z.pls", "pls");
  write_file("x.m3u", "a.mp3\n");
  write_file("y.m3u", "a.mp3\n");
  write_file("z.pls", "File1=a.mp3\n");
  exec("CREATE TRIGGER ro BEFORE UPDATE ON music_tbl WHEN NEW.No == '10' BEGIN SELECT RAISE(ABORT,'read only'); END;");
  EXPECT_EQ(run(0), "1parser playlist():execute sql query error[read only]\n");
  EXPECT_EQ(pls_file(11), "0");
  EXPECT_EQ(pls_file(12), "0");

  exec("DROP TRIGGER ro;");
  exec("CREATE TRIGGER ro BEFORE UPDATE ON music_tbl WHEN NEW.No == '12' BEGIN SELECT RAISE(ABORT,'read only'); END;");
  EXPECT_EQ(run(0), "2parser playlist():execute sql query error[read only]\n");
  EXPECT_EQ(pls_file(11), "1,");
}

// The driver leaves its transaction open around the schema and the walk. The
// first m3u playlist that opens commits it; later statements autocommit.
class PlaylistTransaction : public Playlist {
 protected:
  bool begin_before_schema() const override { return true; }

  // Rows of music_tbl as a second connection sees them; -1 when it sees no
  // such table (the schema is not committed either).
  int rows_seen_elsewhere() {
    sqlite3* other = nullptr;
    EXPECT_EQ(sqlite3_open(db_path_.c_str(), &other), SQLITE_OK);
    sqlite3_stmt* st = nullptr;
    int n = -1;
    if (sqlite3_prepare_v2(other, "select count(*) from music_tbl;", -1, &st, nullptr) == SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW)
      n = sqlite3_column_int(st, 0);
    sqlite3_finalize(st);
    sqlite3_close(other);
    return n;
  }
};

TEST_F(PlaylistTransaction, FirstM3uCommitsTheDriversTransaction) {
  songs();
  untagged("music_tbl", 10, dir_, "gone.m3u", "m3u");  // fails to open: no BEGIN/COMMIT
  untagged("music_tbl", 11, dir_, "x.m3u", "m3u");
  untagged("music_tbl", 12, dir_, "y.m3u", "m3u");
  write_file("x.m3u", "a.mp3\n");
  write_file("y.m3u", "b.mp3\n");
  ASSERT_EQ(sqlite3_get_autocommit(db_ptr), 0);
  ASSERT_EQ(rows_seen_elsewhere(), -1);
  run();
  EXPECT_NE(sqlite3_get_autocommit(db_ptr), 0);
  EXPECT_EQ(rows_seen_elsewhere(), 8);
  // The driver's final COMMIT finds no transaction.
  EXPECT_FALSE(sql_exec("COMMIT;"));
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(db_path_.c_str(), &other), SQLITE_OK);
  EXPECT_EQ(rows_of(other, "select PlsFile from music_tbl where No == '12';"),
            (std::vector<std::vector<std::string>>{{"2,"}}));
  sqlite3_close(other);
}

TEST_F(PlaylistTransaction, WithoutM3uTheTransactionStaysOpen) {
  songs();
  untagged("music_tbl", 10, dir_, "gone.m3u", "m3u");
  untagged("music_tbl", 11, dir_, "x.pls", "pls");
  write_file("x.pls", "File1=a.mp3\n");
  run();
  EXPECT_EQ(sqlite3_get_autocommit(db_ptr), 0);
  EXPECT_EQ(rows_seen_elsewhere(), -1);
  EXPECT_TRUE(sql_exec("COMMIT;"));
  EXPECT_EQ(rows_seen_elsewhere(), 7);
}

std::vector<uint8_t> bytes_of(const std::string& text) { return {text.begin(), text.end()}; }

// A hole reads as zeros, which fgets takes 511 at a time. An entry behind a
// hole is found when a piece begins right at it and lost inside a piece of
// zeros, exactly as in the same file with its zeros written out.
TEST_F(Playlist, HoleReadsLikeWrittenZeros) {
  songs();
  const off_t pieces = 4200;  // about 2 MiB of hole
  const struct {
    const char* ext;
    std::string first, second;
    off_t shift;
    const char* pls_file;
  } cases[] = {
      {"m3u", "a.mp3\n", "b.mp3\n", 0, "1,2,"},
      {"m3u", "a.mp3\n", "b.mp3\n", 1, "1,"},
      {"pls", "File1=a.mp3\n", "File2=b.mp3\n", 0, "1,2,"},
      {"pls", "File1=a.mp3\n", "File2=b.mp3\n", 1, "1,"},
  };
  int no = 10;
  for (const auto& c : cases) {
    for (const bool dense : {false, true}) {
      const std::string name = "list" + std::to_string(no) + "." + c.ext;
      const off_t at = off_t(c.first.size()) + pieces * 511 + c.shift;
      ASSERT_TRUE(write_pieces(dir_ + name, at + off_t(c.second.size()),
                               {{0, bytes_of(c.first)}, {at, bytes_of(c.second)}}, dense));
      untagged("music_tbl", no++, dir_, name, c.ext);
    }
  }
  run();
  no = 10;
  for (const auto& c : cases) {
    for (const bool dense : {false, true}) EXPECT_EQ(pls_file(no++), c.pls_file) << c.ext << c.shift << dense;
  }
}

// 16 GiB of hole behind the first entry are not read.
TEST_F(Playlist, HoleToTheEndIsNotRead) {
  songs();
  for (const char* ext : {"m3u", "pls"}) {
    SCOPED_TRACE(ext);
    const std::string name = std::string("huge.") + ext;
    const std::string first = ext == std::string("m3u") ? "a.mp3\n" : "File1=a.mp3\n";
    ASSERT_TRUE(write_pieces(dir_ + name, off_t(16) << 30, {{0, bytes_of(first)}}, false));
    untagged("music_tbl", 20, dir_, name, ext);
    const long long before = bytes_read_so_far();
    ASSERT_GE(before, 0) << "no read count in /proc/self/io";
    run();
    EXPECT_LT(bytes_read_so_far() - before, 1 << 20);
    EXPECT_EQ(pls_file(20), "1,");
    sql_exec("delete from music_tbl where No == '20';");
  }
}

}  // namespace
