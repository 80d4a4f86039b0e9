#include "library/flags.h"

#include <stdio.h>

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

}  // namespace

int Assign_pathtbl_media() {
  // "end" is taken by SQLite as an alias of the table.
  const char* const folders_sql = "select path,ROWID from path_objid_tbl end;";
  Table folders;
  if (!sql_table(folders_sql, &folders)) {
    printf("1Assign_pathtbl_media():sql query[%s] error[%s]\n", folders_sql, zErrMsg);
    return 0;
  }
  for (int row = 1; row <= folders.rows; ++row) {
    const char* path = folders.at(row, 0);
    const char* rowid = folders.at(row, 1);
    MediaFlags flags;
    if (!folder_media(path ? path : "", &flags)) return 0;
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
