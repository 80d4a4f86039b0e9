#include "library/playlist.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "library/schema.h"
#include "library/sql.h"
#include "platform/holders.h"
#include "platform/regular_file.h"

namespace {

// Most songs one playlist may name; the rest of the file is not read.
constexpr int kMaxSongs = 256;

// A line is read with at most 511 bytes into a cleared 512-byte buffer.
constexpr size_t kLineSize = 512;
// Real_Path and Real_fname joined; the walk keeps the two below 512 bytes.
constexpr size_t kPlaylistPathSize = 1024;
// The No values found, each followed by ",". 2,048 bytes of text: 256 entries
// of seven digits and a comma fill it exactly, so the terminator gets a byte
// of its own beyond the bound.
constexpr size_t kSongListSize = 2048;
// Holds the longest look-up (folder path and line, up to 511 bytes each, plus
// the format) and the UPDATE with a full song list.
constexpr size_t kSqlSize = kSongListSize + kPlaylistPathSize;

// A NULL cell is not something the walk stores; read it as empty text.
const char* cell(const Table& t, int row, int col) {
  const char* v = t.at(row, col);
  return v ? v : "";
}

// Cuts the line end the way the playlists of this appliance have always been
// read: a carriage return in the second-to-last byte ends the text there
// ("\r\n"); otherwise only a final line feed goes. A lone trailing "\r" stays.
void cut_line_end(char* line) {
  const size_t n = strlen(line);
  if (n >= 2 && line[n - 2] == '\r')
    line[n - 2] = '\0';
  else if (n >= 1 && line[n - 1] == '\n')
    line[n - 1] = '\0';
}

// A Windows path is reduced to the part after its last backslash.
void strip_windows_dirs(char* line) {
  const char* last = strrchr(line, '\\');
  if (last) memmove(line, last + 1, strlen(last + 1) + 1);
}

// The messages of one look-up site: sql_error is printed as a line, followed
// by "sqlquery[%s]" with the statement where with_statement is set; not_found
// takes the entry and the playlist path, over_limit the song limit.
struct LookupMessages {
  const char* sql_error;
  bool with_statement;
  const char* not_found;
  const char* over_limit;
};

constexpr LookupMessages kM3uPlain = {"parser_playlist():3Execute SQL query Error", false,
                                      "2Can't find [%s] in m3u[%s]\n",
                                      "2:MP3 songs amount in playlist exceed %d\n"};
constexpr LookupMessages kM3uExtinf = {"parser_playlist():2Execute SQL query Error", true,
                                       "1Can't find [%s] in m3u[%s]\n",
                                       "1:MP3 songs amount in playlist exceed %d\n"};
// The pls pass reports its misses as "m3u" and its overflow with "1:", as the
// server's log readers have always seen them.
constexpr LookupMessages kPls = {"parser_playlist():5Execute SQL query Error", true,
                                 "3Can't find [%s] in m3u[%s]\n",
                                 "1:MP3 songs amount in playlist exceed %d\n"};

// One playlist being resolved.
struct Playlist {
  const char* folder;  // Real_Path of the playlist row, ending in "/"
  char path[kPlaylistPathSize];
  char songs[kSongListSize + 1];
  size_t songs_len;
  int count;
};

// Appends "No," to the song list when the whole entry fits in its bound; an
// entry that does not fit is left out rather than written in part.
void append_song(Playlist* pl, const char* no) {
  const size_t n = strlen(no);
  if (n + 1 > kSongListSize - pl->songs_len) return;
  memcpy(pl->songs + pl->songs_len, no, n);
  pl->songs[pl->songs_len + n] = ',';
  pl->songs_len += n + 1;
  pl->songs[pl->songs_len] = '\0';
}

enum class Lookup { kNext, kStop };

// Looks the entry up among the music rows of the playlist's own folder and
// adds its No to the list. kStop once the playlist names more songs than kept.
Lookup look_up(Playlist* pl, const char* entry, const LookupMessages& msg) {
  char sql[kSqlSize];
  Table result;
  const bool whole = sql_format(sql, sizeof sql,
                                "select No from music_tbl where Real_Path=\"%s\" AND Real_fname=\"%s\";",
                                pl->folder, entry);
  // A statement that had to be cut is never run: it would name another file.
  if (!whole || !sql_table(sql, &result)) {
    puts(msg.sql_error);
    if (msg.with_statement) printf("sqlquery[%s]\n", sql);
    return Lookup::kNext;
  }
  if (result.rows < 1) {
    printf(msg.not_found, entry, pl->path);
    return Lookup::kNext;
  }
  ++pl->count;
  if (pl->count > kMaxSongs) {
    printf(msg.over_limit, kMaxSongs);
    return Lookup::kStop;
  }
  append_song(pl, cell(result, 1, 0));
  return Lookup::kNext;
}

// Prepares the playlist of result row `row` and opens its file; prints the
// open failure and returns null when it cannot be read.
UniqueFile open_playlist(const Table& rows, int row, Playlist* pl) {
  pl->folder = cell(rows, row, 1);
  pl->songs[0] = '\0';
  pl->songs_len = 0;
  pl->count = 0;
  const bool whole = sql_format(pl->path, sizeof pl->path, "%s%s", pl->folder, cell(rows, row, 2));
  // A cut path could name some other file; treat it as one that won't open.
  UniqueFile f(whole ? fopen_regular(pl->path) : nullptr);
  if (!f) printf("parser_playlist():Open [%s] fail\n", pl->path);
  return f;
}

// Reads until the end-of-file indicator is set. A read error ends the loop
// too, so no file, however broken, keeps it going.
bool more_lines(FILE* f) { return !feof(f) && !ferror(f); }

// A hole of a sparse file reads as zeros, which hold no line end: fgets takes
// them kLineSize - 1 at a time, and each such line is empty and names no
// song. Called when the last line read was empty, this steps over the whole
// pieces of hole ahead, so the lines behind the hole begin where they would
// have, and a playlist of terabytes of hole no longer takes hours.
void skip_hole_lines(FILE* f) {
  struct stat64 st;
  const off_t at = ftello(f);
  if (at < 0 || fstat64(fileno(f), &st) != 0) return;
  constexpr off_t kPiece = kLineSize - 1;
  const off_t pieces = (next_data(f, at, st.st_size) - at) / kPiece;
  if (pieces > 0) (void)fseeko(f, at + pieces * kPiece, SEEK_SET);
}

// Turns the m3u line just read into the entry to look up, reading the entry's
// own line after an "#EXTINF:" line. Returns the messages of the look-up, or
// null when the line names no song.
const LookupMessages* m3u_entry(FILE* f, char* line) {
  cut_line_end(line);
  if (strncmp(line, "#EXTINF:", 8) != 0) {
    if (!strstr(line, ".mp3") && !strstr(line, ".MP3")) return nullptr;
    if (strchr(line, '\\')) return nullptr;
    return &kM3uPlain;
  }
  // The entry follows its "#EXTINF:" line. The buffer is not cleared, so when
  // no line follows the "#EXTINF:" text itself is looked up.
  (void)fgets(line, kLineSize, f);
  strip_windows_dirs(line);
  cut_line_end(line);
  return &kM3uExtinf;
}

// The same for a pls line: only "File...=" lines name a song, by the text
// after the first "=".
const LookupMessages* pls_entry(FILE*, char* line) {
  if (strncmp(line, "File", 4) != 0) return nullptr;
  const char* eq = strchr(line, '=');
  if (!eq) return nullptr;
  memmove(line, eq + 1, strlen(eq + 1) + 1);
  cut_line_end(line);
  return &kPls;
}

// What sets the two kinds of playlist apart.
struct PlaylistKind {
  const char* select;        // the playlist rows of this kind
  const char* select_error;  // printed as a line when that query fails
  const LookupMessages* (*entry)(FILE* f, char* line);
  // The look-ups of an m3u playlist run between "BEGIN;" and "COMMIT;". The
  // driver's transaction is still open when the first one gets here: its
  // BEGIN fails and its COMMIT commits the walk's rows, and every statement
  // after it runs in autocommit mode. Neither result is checked.
  bool framed;
  // The UPDATE that stores the song list (%s) for the playlist's No (%d):
  // m3u quotes the list with double quotes, pls with single ones.
  const char* update;
  const char* update_error;  // printf format, with zErrMsg
};

constexpr PlaylistKind kM3uKind = {
    "select No,Real_Path,Real_fname from music_tbl where EXT_fname =='m3u';",
    "parser_playlist():1Execute SQL query Error", m3u_entry, true,
    "update music_tbl set PlsFile = \"%s\" where No =='%d';",
    "1parser playlist():execute sql query error[%s]\n"};
constexpr PlaylistKind kPlsKind = {
    "select No,Real_Path,Real_fname from music_tbl where EXT_fname =='pls';",
    "parser_playlist():4Execute SQL query Error", pls_entry, false,
    "update music_tbl set PlsFile = '%s' where No =='%d';",
    "2parser playlist():execute sql query error[%s]\n"};

// Reads the playlist's lines and looks up each entry they name, until the end
// of the file or the song limit.
void read_entries(const PlaylistKind& kind, FILE* f, Playlist* pl) {
  char line[kLineSize];
  line[0] = 'x';
  while (more_lines(f)) {
    if (line[0] == '\0') skip_hole_lines(f);
    memset(line, 0, sizeof line);
    // At the end the read yields the cleared buffer, which names no song.
    (void)fgets(line, sizeof line, f);
    const LookupMessages* msg = kind.entry(f, line);
    if (msg && look_up(pl, line, *msg) == Lookup::kStop) return;
  }
}

// Resolves every playlist of one kind. Returns false when the phase ends here.
bool resolve(const PlaylistKind& kind) {
  Table rows;
  if (!sql_table(kind.select, &rows)) {
    puts(kind.select_error);
    return false;
  }
  Playlist pl;
  for (int row = 1; row <= rows.rows; ++row) {
    const int no = atoi(cell(rows, row, 0));
    UniqueFile f = open_playlist(rows, row, &pl);
    if (!f) continue;
    if (kind.framed) (void)sql_exec("BEGIN;");
    read_entries(kind, f.get(), &pl);
    f.reset();
    if (kind.framed) (void)sql_exec("COMMIT;");
    char sql[kSqlSize];
    sql_format(sql, sizeof sql, kind.update, pl.songs, no);
    if (!sql_exec(sql)) {
      printf(kind.update_error, zErrMsg);
      return false;
    }
  }
  return true;
}

}  // namespace

int parser_playlist() {
  if (!resolve(kM3uKind)) return 0;
  if (!resolve(kPlsKind)) return 0;
  return 1;
}
