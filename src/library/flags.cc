#include "library/flags.h"

#include <sqlite3.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "library/schema.h"
#include "library/sql.h"

namespace {

// A folder path is below 512 bytes; the count statements add under 80.
constexpr size_t kSqlSize = 1024;

// Whether media of each kind lies in a folder or anywhere below it.
struct MediaFlags {
  int video = 0;
  int music = 0;
  int photo = 0;
  bool any() const { return video || music || photo; }
};

// The count of a "select COUNT(...)" result counts as present when its text
// starts with "1" or a higher byte.
bool count_present(const Table& t) {
  const char* v = t.rows >= 1 ? t.at(1, 0) : nullptr;
  return v && static_cast<unsigned char>(v[0]) >= '1';
}

// Runs one count statement (`whole` false when it had to be cut, and so is
// not run); prints message `msg` and returns false on failure.
bool run_count(int msg, const char* sql, bool whole, bool* present) {
  Table result;
  if (!whole) {
    printf("%dAssign_pathtbl_media():sql query[%s] error[%s]\n", msg, sql,
           "statement too long; not run");
    return false;
  }
  if (!sql_table(sql, &result)) {
    printf("%dAssign_pathtbl_media():sql query[%s] error[%s]\n", msg, sql, zErrMsg);
    return false;
  }
  *present = count_present(result);
  return true;
}

// The three flags of one folder, by a LIKE prefix match on UTF_Path: every
// folder below counts too, letters A-Z match in either case, and "%" or "_"
// in the path act as wildcards. Music includes playlist rows and video
// includes subtitle rows. Prints the failing statement's message.
bool folder_media(const char* path, MediaFlags* flags) {
  char sql[kSqlSize];
  bool present = false;
  bool whole = sql_format(sql, sizeof sql,
                          "select COUNT(No) from music_tbl where UTF_Path like\"%s%%\" limit 0,1;", path);
  if (!run_count(2, sql, whole, &present)) return false;
  if (present) flags->music = 1;
  whole = sql_format(sql, sizeof sql,
                     "select COUNT(No) from video_tbl where UTF_Path like\"%s%%\" limit 0,1;", path);
  if (!run_count(3, sql, whole, &present)) return false;
  if (present) flags->video = 1;
  whole = sql_format(sql, sizeof sql,
                     "select COUNT(No) from photo_tbl where UTF_Path like\"%s%%\" limit 0,1;", path);
  if (!run_count(4, sql, whole, &present)) return false;
  if (present) flags->photo = 1;
  return true;
}

// The same answers as the three LIKE counts, from one pass over each media
// table instead of three scans per folder (which grow with folders x files).
//
// SQLite's LIKE, for a pattern "P%", walks P and the path character by
// character as SQLite decodes UTF-8, with A-Z folded to a-z and nothing else
// folded; "_" takes any one character and "%" any run. So each path is given
// a key that keeps exactly that: every decoded character as 4 big-endian
// bytes, ASCII lowered. Up to P's first wildcard, a matching path's key must
// start with the key of that part of P; in the sorted keys those paths are
// one run. Without a wildcard, the run's first key decides; with one, each
// path of the run is put to SQLite's own LIKE matcher.
//
// Every path begins with the share folder, whose name may well hold a "_"
// ("/mnt/vol1/Media_1/"). Where pattern and path share their first bytes, a
// "_" in them only ever meets itself, so such a "_" does not end the literal
// part: otherwise every folder would fall to the run of all paths.
class PathIndex {
 public:
  static std::string key(const char* text, size_t len) {
    std::string out;
    const unsigned char* z = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* end = z + len;
    // The part ends before an ASCII byte or at the text's end, so no
    // character is read across it.
    while (z < end && *z) {
      uint32_t c = decode(&z);
      if (c < 0x80 && c >= 'A' && c <= 'Z') c += 'a' - 'A';
      const char bytes[4] = {char(c >> 24), char(c >> 16), char(c >> 8), char(c)};
      out.append(bytes, 4);
    }
    return out;
  }

  bool load(const char* table) {
    char sql[128];
    sql_format(sql, sizeof sql, "select distinct UTF_Path from %s;", table);
    Table result;
    if (!sql_table(sql, &result)) return false;
    entries_.clear();
    entries_.reserve(result.rows);
    for (int row = 1; row <= result.rows; ++row) {
      // A NULL never matches LIKE; the walk never stores one.
      if (const char* path = result.at(row, 0)) entries_.push_back({key(path, strlen(path)), path});
    }
    std::sort(entries_.begin(), entries_.end(),
              [](const Entry& a, const Entry& b) { return a.key < b.key; });
    return true;
  }

  // Shortens *common to the bytes every path here begins with.
  void narrow(std::string* common) const {
    for (const Entry& e : entries_) common->resize(shared_length(*common, e.path));
  }

  // Whether some path matches pattern (a folder path and "%"); the first
  // `literal` bytes of the pattern hold no wildcard that can take anything
  // but itself, and end before an ASCII byte.
  bool any_like(const std::string& pattern, size_t literal) const {
    const std::string prefix = key(pattern.data(), literal);
    auto it = std::lower_bound(entries_.begin(), entries_.end(), prefix,
                               [](const Entry& e, const std::string& k) { return e.key < k; });
    const bool whole = literal + 1 == pattern.size();  // only the final "%" is left
    for (; it != entries_.end() && it->key.compare(0, prefix.size(), prefix) == 0; ++it) {
      if (whole || sqlite3_strlike(pattern.c_str(), it->path.c_str(), 0) == 0) return true;
    }
    return false;
  }

  static size_t shared_length(const std::string& a, const std::string& b) {
    size_t n = 0;
    while (n < a.size() && n < b.size() && a[n] == b[n]) ++n;
    return n;
  }

 private:
  // One character as SQLite's LIKE reads it: a lead byte of 0xC0 or above
  // takes every continuation byte behind it; overlong forms, surrogates and
  // U+FFFE/U+FFFF read as U+FFFD; any other byte is the character itself.
  static uint32_t decode(const unsigned char** pz) {
    static const unsigned char kTrans1[] = {
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f,
        0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f,
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f,
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x00, 0x01, 0x02, 0x03, 0x00, 0x01, 0x00, 0x00,
    };
    const unsigned char* z = *pz;
    uint32_t c = *z++;
    if (c >= 0xc0) {
      c = kTrans1[c - 0xc0];
      while ((*z & 0xc0) == 0x80) c = (c << 6) + (0x3f & *z++);
      if (c < 0x80 || (c & 0xFFFFF800) == 0xD800 || (c & 0xFFFFFFFE) == 0xFFFE) c = 0xFFFD;
    }
    *pz = z;
    return c;
  }

  struct Entry {
    std::string key;
    std::string path;
  };
  std::vector<Entry> entries_;
};

// The bytes of pattern before its first wildcard that can take more than
// itself: a "%" anywhere, a "_" past the `common` bytes every path shares.
size_t literal_length(const std::string& pattern, size_t common) {
  size_t n = 0;
  while (n < pattern.size() && pattern[n] != '%' && (pattern[n] != '_' || n < common)) ++n;
  return n;
}

// A double quote ends the statement's literal, and the statement then fails
// with its message: such a folder takes the literal statements.
bool needs_statements(const char* path) { return strchr(path, '"') != nullptr; }

}  // namespace

int Assign_pathtbl_media() {
  // "end" is taken by SQLite as an alias of the table.
  const char* const folders_sql = "select path,ROWID from path_objid_tbl end;";
  Table folders;
  if (!sql_table(folders_sql, &folders)) {
    printf("1Assign_pathtbl_media():sql query[%s] error[%s]\n", folders_sql, zErrMsg);
    return 0;
  }
  PathIndex music, video, photo;
#ifdef MEDIAWALK_LITERAL_SQL
  const bool indexed = false;  // the test build asks every folder's statements
#else
  const bool indexed = folders.rows > 0 && music.load("music_tbl") && video.load("video_tbl") &&
                       photo.load("photo_tbl");
#endif
  // The bytes every folder and media path begins with.
  std::string common;
  if (indexed) {
    const char* first = folders.at(1, 0);
    common = first ? first : "";
    for (int row = 2; row <= folders.rows; ++row) {
      const char* path = folders.at(row, 0);
      common.resize(PathIndex::shared_length(common, path ? path : ""));
    }
    music.narrow(&common);
    video.narrow(&common);
    photo.narrow(&common);
  }
  for (int row = 1; row <= folders.rows; ++row) {
    const char* path = folders.at(row, 0);
    const char* rowid = folders.at(row, 1);
    if (path == nullptr) path = "";
    MediaFlags flags;
    if (indexed && !needs_statements(path)) {
      const std::string pattern = std::string(path) + "%";
      const size_t literal = literal_length(pattern, common.size());
      flags.music = music.any_like(pattern, literal);
      flags.video = video.any_like(pattern, literal);
      flags.photo = photo.any_like(pattern, literal);
    } else if (!folder_media(path, &flags)) {
      return 0;
    }
    // A folder with nothing below it keeps the values the walk inserted.
    if (!flags.any()) continue;
    char sql[kSqlSize];
    sql_format(sql, sizeof sql,
               "update path_objid_tbl set have_video = \"%d\", have_music = \"%d\", have_photo = \"%d\" "
               "where ROWID =='%s';",
               flags.video, flags.music, flags.photo, rowid ? rowid : "");
    if (!sql_exec(sql)) {
      // There is no message 5; the numbers are what the server's logs have
      // always shown.
      printf("6Assign_pathtbl_media():sql query[%s] error[%s]\n", sql, zErrMsg);
      return 0;
    }
  }
  return 1;
}
