#include "library/objid.h"

#include <stddef.h>

#include "library/sql.h"

ObjIdCounters init_objid;

void init_objid_counters() {
  init_objid.media_path_objid = 4000000000001ULL;
  init_objid.media_path_parid = 4000000000001ULL;
  init_objid.video_file_objid = 2000000000001ULL;
  init_objid.photo_file_objid = 1000000000001ULL;
  init_objid.music_file_objid = 3000000000001ULL;
  init_objid.music_file_pls_parid = 3030000000001ULL;
  init_objid.music_file_gen_objid = 3040000000001ULL;
  init_objid.music_file_art_objid = 3050000000001ULL;
  init_objid.music_file_alb_objid = 3060000000001ULL;
}

bool record_objid_tbl() {
  // Photo before video here, unlike the order the counters are stored in.
  const struct {
    const char* name;
    uint64_t value;
  } rows[] = {
      {"media_path_objid", init_objid.media_path_objid},
      {"media_path_parid", init_objid.media_path_parid},
      {"photo_file_objid", init_objid.photo_file_objid},
      {"video_file_objid", init_objid.video_file_objid},
      {"music_file_objid", init_objid.music_file_objid},
      {"music_file_pls_parid", init_objid.music_file_pls_parid},
      {"music_file_gen_objid", init_objid.music_file_gen_objid},
      {"music_file_art_objid", init_objid.music_file_art_objid},
      {"music_file_alb_objid", init_objid.music_file_alb_objid},
  };
  bool ok = false;
  for (const auto& row : rows) {
    char sql[1024];
    sql_format(sql, sizeof sql, "insert into record_objid_tbl values (\"%s\",\"%llu\");", row.name,
               static_cast<unsigned long long>(row.value));
    ok = sql_exec(sql);  // each row is written regardless of the one before
  }
  return ok;
}
