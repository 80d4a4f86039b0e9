#include "library/schema.h"

#include "library/sql.h"

sqlite3* db_ptr = nullptr;
char* zErrMsg = nullptr;

// The media server reads these tables as they stand: spacing included (the
// blank before the closing parenthesis of music_tbl and photo_tbl, and its
// absence in video_tbl, is how the server has always seen them).
const char* const kSchemaStatements[kSchemaStatementCount] = {
    "CREATE TABLE music_tbl (No,Real_Path,Real_fname varchar(256),UTF_Path,UTF_fname "
    "varchar(512),EXT_fname varchar(12),Creattime,Filesize,Genre varchar(128),Artist "
    "varchar(128),Album varchar(128),Title "
    "varchar(128),Bitrate,Author,Year,Comments,layer,PlsFile,ObjID,Dir_ParentID,reserve1,"
    "reserve2,reserve3 );",
    "CREATE TABLE photo_tbl (No,Real_Path,Real_fname varchar(256),UTF_Path,UTF_fname "
    "varchar(512),EXT_fname "
    "varchar(12),Creattime,Filesize,Width,Height,Depth,Date_creat,Comments,Author,layer,ObjID,"
    "Dir_ParentID,reserve1,reserve2,reserve3 );",
    "CREATE TABLE video_tbl (No,Real_Path,Real_fname varchar(256),UTF_Path,UTF_fname "
    "varchar(512),EXT_fname "
    "varchar(12),Creattime,Filesize,Width,Height,Bitrate,Format_type,Totaltime,Subtitle,Title,"
    "Comments,layer,ObjID,Dir_ParentID,reserve1,reserve2,reserve3);",
    "CREATE INDEX idx_music_No ON music_tbl(No);",
    "CREATE INDEX idx_music_Title ON music_tbl(Title);",
    "CREATE INDEX idx_music_EXT_fname ON music_tbl(EXT_fname);",
    "CREATE INDEX idx_music_UTF_fullfname ON music_tbl(UTF_Path,UTF_fname);",
    "CREATE INDEX idx_music_Real_fullfname ON music_tbl(Real_Path,Real_fname);",
    "CREATE INDEX idx_photo_No ON photo_tbl(No);",
    "CREATE INDEX idx_photo_EXT_fname ON photo_tbl(EXT_fname);",
    "CREATE INDEX idx_photo_UTF_fullfname ON photo_tbl(UTF_Path,UTF_fname);",
    "CREATE INDEX idx_video_No ON video_tbl(No);",
    "CREATE INDEX idx_video_EXT_fname ON video_tbl(EXT_fname);",
    "CREATE INDEX idx_video_UTF_fullfname ON video_tbl(UTF_Path,UTF_fname);",
    "CREATE TABLE music_sortidx_tbl (idx,reserve1,reserve2);",
    "CREATE TABLE photo_sortidx_tbl (idx,reserve1,reserve2);",
    "CREATE TABLE video_sortidx_tbl (idx,reserve1,reserve2);",
    "CREATE TABLE music_sortGen_tbl (name,cnt,ObjID,reserve1,reserve2);",
    "CREATE TABLE music_sortArt_tbl (name,cnt,ObjID,reserve1,reserve2);",
    "CREATE TABLE music_sortAlb_tbl (name,cnt,ObjID,reserve1,reserve2);",
    "CREATE TABLE path_objid_tbl (path,ObjID,Dir_ParentID,layer,have_video,have_music,have_photo);",
    "CREATE TABLE record_objid_tbl (type,ObjID);",
};

void create_schema() {
  for (const char* statement : kSchemaStatements) {
    // A failed CREATE is not examined: it shows later as failed INSERTs.
    (void)sql_exec(statement);
  }
}
