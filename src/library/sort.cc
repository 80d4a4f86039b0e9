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

// One sorted table: the SELECT that yields its rows in display order, since a
// reader takes the sorted tables in row id order, and the table the INSERTs go
// to. A list of names (genres, artists, albums) holds the name, its count and
// an identifier taken from `counter`; an index holds only the row's No and has
// no counter.
struct SortStep {
  const char* select;
  const char* table;
  uint64_t* counter;
};

// Formats the INSERT of result row `row` into sql[cap]; false if it did not
// fit. A list entry's identifier is taken before the INSERT runs, so a failed
// INSERT has consumed it as well.
bool compose_insert(const SortStep& step, const Table& t, int row, char* sql, size_t cap) {
  if (!step.counter)
    return sql_format(sql, cap, "insert into %s values (\"%s\",0,0);", step.table, cell(t, row, 0));
  const unsigned long long id = static_cast<unsigned long long>(take_objid(step.counter));
  return sql_format(sql, cap, "insert into %s values (\"%s\",\"%s\",\"%llu\",0,0);", step.table,
                    cell(t, row, 0), cell(t, row, 1), id);
}

// Runs one step: the SELECT, then one INSERT per result row in the order
// returned. msg and msg + 1 number the step's two messages.
bool sort_step(const SortStep& step, int msg) {
  Table result;
  if (!sql_table(step.select, &result)) {
    printf("%dsort_dbtable():SQL query Error[%s]\n", msg, zErrMsg);
    return false;
  }
  for (int row = 1; row <= result.rows; ++row) {
    char sql[kSqlSize];
    if (!compose_insert(step, result, row, sql, sizeof sql)) {
      printf("%dsort_dbtable():SQL query Error[%s]\n", msg + 1, "statement too long; not run");
      return false;
    }
    if (!sql_exec(sql)) {
      printf("%dsort_dbtable():SQL query Error[%s]\n", msg + 1, zErrMsg);
      return false;
    }
  }
  return true;
}

}  // namespace

int sort_dbtable() {
  const SortStep steps[] = {
      // Music by title: a title starting with a capital A-Z sorts by that
      // letter in lower case alone, any other by its whole text. Coarse, but
      // it is the order the server's clients show.
      {"select No from music_tbl where EXT_fname !='m3u' AND EXT_fname !='pls' order by case "
       "when SUBSTR(Title,1,1) >= 'A' AND SUBSTR(Title,1,1) <= 'Z' then "
       "LOWER(SUBSTR(Title,1,1)) else Title end;",
       "music_sortidx_tbl", nullptr},
      {"select Genre,COUNT(Genre) from music_tbl where EXT_fname !='m3u' AND EXT_fname "
       "!='pls' GROUP BY Genre order by UPPER(Genre),Genre;",
       "music_sortGen_tbl", &init_objid.music_file_gen_objid},
      {"select Artist,COUNT(Artist) from music_tbl where EXT_fname !='m3u' AND EXT_fname "
       "!='pls' GROUP BY Artist order by UPPER(Artist),Artist;",
       "music_sortArt_tbl", &init_objid.music_file_art_objid},
      // Artist is selected but unused: an album name shared by several
      // artists is one entry.
      {"select Album,COUNT(Album),Artist from music_tbl where EXT_fname !='m3u' AND "
       "EXT_fname !='pls' GROUP BY Album order by UPPER(Album),Album;",
       "music_sortAlb_tbl", &init_objid.music_file_alb_objid},
      // Subtitles live in video_tbl but are no videos to list.
      {"select No from video_tbl where EXT_fname !='srt' order by case when "
       "SUBSTR(UTF_fname,1,1) >= 'A' AND SUBSTR(UTF_fname,1,1) <= 'Z' then "
       "LOWER(SUBSTR(UTF_fname,1,1)) else UTF_fname end;",
       "video_sortidx_tbl", nullptr},
      {"select No from photo_tbl order by case when SUBSTR(UTF_fname,1,1) >= 'A' AND "
       "SUBSTR(UTF_fname,1,1) <= 'Z' then LOWER(SUBSTR(UTF_fname,1,1)) else UTF_fname end;",
       "photo_sortidx_tbl", nullptr},
  };
  // Step i (from 0) numbers its messages 2i+1 and 2i+2.
  int msg = 1;
  for (const SortStep& step : steps) {
    if (!sort_step(step, msg)) return 0;
    msg += 2;
  }
  return 1;
}
