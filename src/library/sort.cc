#include "library/sort.h"

#include <stdint.h>
#include <stdio.h>

#include "library/objid.h"
#include "library/schema.h"
#include "library/sql.h"

namespace {

// The walk stores titles, artists and albums of up to 256 bytes and genres of
// up to 30; with the count and the identifier the longest INSERT stays under
// 400 bytes. A name that does not fit is not cut: the INSERT fails as a
// statement that did not run, so no entry is ever stored under a wrong name.
constexpr size_t kSqlSize = 1024;

const char* cell(const Table& t, int row, int col) {
  const char* v = t.at(row, col);
  return v ? v : "";
}

// One step: the SELECT, then one INSERT per result row in the order returned,
// since a reader takes the sorted tables in row id order. compose(row, sql,
// cap) formats the row's INSERT and returns false if it did not fit.
// select_msg and select_msg + 1 number the step's two messages.
template <typename Compose>
bool sort_step(const char* select, int select_msg, Compose compose) {
  Table result;
  if (!sql_table(select, &result)) {
    printf("%dsort_dbtable():SQL query Error[%s]\n", select_msg, zErrMsg);
    return false;
  }
  for (int row = 1; row <= result.rows; ++row) {
    char sql[kSqlSize];
    if (!compose(result, row, sql, sizeof sql)) {
      printf("%dsort_dbtable():SQL query Error[%s]\n", select_msg + 1,
             "statement too long; not run");
      return false;
    }
    if (!sql_exec(sql)) {
      printf("%dsort_dbtable():SQL query Error[%s]\n", select_msg + 1, zErrMsg);
      return false;
    }
  }
  return true;
}

// The identifier is taken before the INSERT runs, so a failed INSERT has
// consumed it as well.
unsigned long long next_id(uint64_t* counter) {
  return static_cast<unsigned long long>(take_objid(counter));
}

}  // namespace

int sort_dbtable() {
  // Music by title: a title starting with a capital A-Z sorts by that letter
  // in lower case alone, any other by its whole text. Coarse, but it is the
  // order the server's clients show.
  if (!sort_step("select No from music_tbl where EXT_fname !='m3u' AND EXT_fname !='pls' order by case "
                 "when SUBSTR(Title,1,1) >= 'A' AND SUBSTR(Title,1,1) <= 'Z' then "
                 "LOWER(SUBSTR(Title,1,1)) else Title end;",
                 1, [](const Table& t, int r, char* sql, size_t cap) {
                   return sql_format(sql, cap, "insert into music_sortidx_tbl values (\"%s\",0,0);",
                                     cell(t, r, 0));
                 }))
    return 0;

  if (!sort_step("select Genre,COUNT(Genre) from music_tbl where EXT_fname !='m3u' AND EXT_fname "
                 "!='pls' GROUP BY Genre order by UPPER(Genre),Genre;",
                 3, [](const Table& t, int r, char* sql, size_t cap) {
                   const unsigned long long id = next_id(&init_objid.music_file_gen_objid);
                   return sql_format(sql, cap,
                                     "insert into music_sortGen_tbl values (\"%s\",\"%s\",\"%llu\",0,0);",
                                     cell(t, r, 0), cell(t, r, 1), id);
                 }))
    return 0;

  if (!sort_step("select Artist,COUNT(Artist) from music_tbl where EXT_fname !='m3u' AND EXT_fname "
                 "!='pls' GROUP BY Artist order by UPPER(Artist),Artist;",
                 5, [](const Table& t, int r, char* sql, size_t cap) {
                   const unsigned long long id = next_id(&init_objid.music_file_art_objid);
                   return sql_format(sql, cap,
                                     "insert into music_sortArt_tbl values (\"%s\",\"%s\",\"%llu\",0,0);",
                                     cell(t, r, 0), cell(t, r, 1), id);
                 }))
    return 0;

  // Artist is selected but unused: an album name shared by several artists
  // is one entry.
  if (!sort_step("select Album,COUNT(Album),Artist from music_tbl where EXT_fname !='m3u' AND "
                 "EXT_fname !='pls' GROUP BY Album order by UPPER(Album),Album;",
                 7, [](const Table& t, int r, char* sql, size_t cap) {
                   const unsigned long long id = next_id(&init_objid.music_file_alb_objid);
                   return sql_format(sql, cap,
                                     "insert into music_sortAlb_tbl values (\"%s\",\"%s\",\"%llu\",0,0);",
                                     cell(t, r, 0), cell(t, r, 1), id);
                 }))
    return 0;

  // Subtitles live in video_tbl but are no videos to list.
  if (!sort_step("select No from video_tbl where EXT_fname !='srt' order by case when "
                 "SUBSTR(UTF_fname,1,1) >= 'A' AND SUBSTR(UTF_fname,1,1) <= 'Z' then "
                 "LOWER(SUBSTR(UTF_fname,1,1)) else UTF_fname end;",
                 9, [](const Table& t, int r, char* sql, size_t cap) {
                   return sql_format(sql, cap, "insert into video_sortidx_tbl values (\"%s\",0,0);",
                                     cell(t, r, 0));
                 }))
    return 0;

  if (!sort_step("select No from photo_tbl order by case when SUBSTR(UTF_fname,1,1) >= 'A' AND "
                 "SUBSTR(UTF_fname,1,1) <= 'Z' then LOWER(SUBSTR(UTF_fname,1,1)) else UTF_fname end;",
                 11, [](const Table& t, int r, char* sql, size_t cap) {
                   return sql_format(sql, cap, "insert into photo_sortidx_tbl values (\"%s\",0,0);",
                                     cell(t, r, 0));
                 }))
    return 0;

  return 1;
}
