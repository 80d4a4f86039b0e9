#include "library/walk.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>

#include <new>
#include <string>
#include <unordered_map>

#include "driver/progress.h"
#include "library/media_types.h"
#include "library/objid.h"
#include "library/schema.h"
#include "library/sql.h"
#include "metadata/id3_tags.h"
#include "metadata/image.h"
#include "metadata/mpeg_audio.h"
#include "metadata/music_info.h"
#include "metadata/video.h"
#include "platform/holders.h"
#include "platform/read_ahead.h"
#include "platform/regular_file.h"
#include "platform/text.h"

namespace {

// Folder path plus entry name must stay below this many bytes.
constexpr size_t kPathLimit = 512;
// Folder rows and the parent lookup: a folder path and a few numbers.
constexpr size_t kSqlSize = 1024;
// Item rows hold the folder path and the name twice, and for music up to
// three 256-byte tags and the genre; this holds the longest such row for
// every path the length check admits, so a deep file is stored, not cut.
constexpr size_t kItemSqlSize = 4096;
constexpr size_t kTagBound = 256;   // title, artist, album
constexpr size_t kGenreBound = 30;
constexpr size_t kTimeSize = 128;
// An extension of this many bytes or more after the last dot is never looked
// up; the longest in the table is "mpeg2".
constexpr size_t kExtLimit = 6;

struct QueueNode {
  char path[kFolderPathSize];
  int32_t layer;
  QueueNode* next;
};

QueueNode* queue_head = nullptr;
QueueNode* queue_tail = nullptr;

// Row numbers of the three item tables: music and playlists share one,
// videos and subtitles another. Advanced only after a row went in, so the
// No column has no gaps.
int32_t music_row = 1;
int32_t photo_row = 1;
int32_t video_row = 1;

// ObjID of every folder row inserted so far, by path: the parent lookup's
// answer without a scan of path_objid_tbl (which has no index) per folder.
// The first row of a path is the one the lookup statement would find.
std::unordered_map<std::string, uint64_t> folder_ids;

// Kept from one music file to the next: the readers set only what they find,
// and a numeric field they leave alone keeps its earlier value. Static
// storage, so it starts all zeros.
MusicFileInfo music_info;

// The texts of one music row. Cleared for every file, and each field has room
// beyond its copy bound, so every copy stays terminated.
struct MusicWork {
  char folder[kPathLimit + 1];
  char name[kPathLimit + 1];
  char title[kTagBound + 1];
  char artist[kTagBound + 1];
  char album[kTagBound + 1];
  char genre[kGenreBound + 2];
};

// One file that reached a known class, with what every row of it shares.
struct Item {
  const char* folder;  // P, ending in "/"
  const char* name;    // N
  const char* path;    // E = P and N joined
  const char* ext;     // after the last dot, lower case
  const char* dot;     // from the last dot on, case as in the name
  unsigned long long size;
  char time[kTimeSize];
  int layer;
};

void format_time(time_t t, char (&out)[kTimeSize]) {
  memset(out, 0, sizeof out);
  struct tm tm_local;
  if (localtime_r(&t, &tm_local) == nullptr) return;
  strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%S", &tm_local);
}

unsigned long long folder_objid() {
  return static_cast<unsigned long long>(init_objid.media_path_objid);
}

// Bounded copy of up to `bound` bytes of src into a field with room beyond.
template <size_t N>
void copy_tag(char (&dst)[N], const char* src, size_t bound) {
  static_assert(N > 1, "field too small");
  copy_bounded(dst, bound + 1 < N ? bound + 1 : N, src);
}

// Whatever the readers handed back is freed after each file, and the
// pointers into this file's buffers are dropped before they go stale.
struct MusicInfoRelease {
  ~MusicInfoRelease() {
    free(music_info.title);
    free(music_info.artist);
    free(music_info.album);
    free(music_info.genre);
    music_info.title = music_info.artist = music_info.album = music_info.genre = nullptr;
    music_info.path = music_info.fname = music_info.type = nullptr;
  }
};

bool scan_music_file(const Item& item) {
  ++total_scan_cnt;

  MusicWork work;
  memset(&work, 0, sizeof work);
  copy_bounded(work.folder, item.folder);
  copy_bounded(work.name, item.name);

  // The folder path already ends in "/", so readers get a double slash here;
  // they have always been handed the path in this form.
  // Folder path and name together stay below 512 bytes, so this never cuts.
  char full_path[1024];
  if (snprintf(full_path, sizeof full_path, "%s/%s", work.folder, work.name) < 0) full_path[0] = '\0';

  char type_fallback[kExtLimit + 1];
  copy_bounded(type_fallback, item.dot + 1);
  UniqueChars type(strdup(item.dot + 1));

  MusicInfoRelease release;
  music_info.title = music_info.artist = music_info.album = music_info.genre = nullptr;
  music_info.path = full_path;
  music_info.fname = work.name;
  music_info.type = type ? type.get() : type_fallback;

  if (scan_get_mp3tags(full_path, &music_info) == -1) {
    puts("scan_get_mp3tags():Get mp3 tags failure!!!");
    printf("  filename [%s%s]\n", item.folder, item.name);
    copy_tag(work.title, item.name, kTagBound);
    copy_tag(work.artist, "Others", kTagBound);
    copy_tag(work.album, "Others", kTagBound);
    copy_tag(work.genre, "Others", kGenreBound);
  } else {
    const bool title = have_title == 1 && music_info.title != nullptr;
    const bool artist = have_artist == 1 && music_info.artist != nullptr;
    const bool album = have_album == 1 && music_info.album != nullptr;
    const bool genre = have_genre == 1 && music_info.genre != nullptr;
    copy_tag(work.title, title ? music_info.title : item.name, kTagBound);
    copy_tag(work.artist, artist ? music_info.artist : "Others", kTagBound);
    copy_tag(work.album, album ? music_info.album : "Others", kTagBound);
    copy_tag(work.genre, genre ? music_info.genre : "Others", kGenreBound);
  }

  // Only the title is escaped; a quote elsewhere ends the literal early and
  // the statement fails, which ends this folder's scan.
  check_special_symbol(work.title);

  int info_rc = -1;
  if (strcasecmp(music_info.type, "mp3") == 0) info_rc = scan_get_mp3fileinfo(full_path, &music_info);
  if (info_rc == -1) {
    puts("scan_get_mp3fileinfo():Get mp3 file info failure!!!");
    printf("  filename [%s%s]\n", item.folder, item.name);
    music_info.bitrate = 0;
  }

  // Taken before the statement runs: a failed row still uses up its identifier.
  const unsigned long long objid = take_objid(&init_objid.music_file_objid);
  char sql[kItemSqlSize];
  memset(sql, 0, sizeof sql);
  // A statement cut at the buffer's end fails in SQLite like any other bad row.
  (void)sql_format(sql, sizeof sql,
                   "insert into music_tbl values "
                   "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"%s\",\"%s\",\"%s\",\"%"
                   "s\",\"%u\",\"0\",\"0\",\"0\",\"%d\",\"0\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
                   music_row, item.folder, item.name, item.folder, item.name, item.ext, item.time,
                   item.size, work.genre, work.artist, work.album, work.title,
                   static_cast<unsigned>(music_info.bitrate), item.layer, objid, folder_objid());
  if (!sql_exec(sql)) {
    printf("1ScanMusic():execute sql query error[%s]\n", zErrMsg);
    return false;
  }
  ++music_row;
  if (work.genre[0] == '\0') printf("<file>path %s, namelist[i]->d_name %s\n", item.folder, item.name);
  return true;
}

bool scan_photo_file(const Item& item) {
  ++total_scan_cnt;
  ImageInfo image;
  memset(&image, 0, sizeof image);
  copy_bounded(image.path, item.path);
  if (get_img_size(&image) == 0) return true;  // not measurable: counted, but no row

  const unsigned long long objid = take_objid(&init_objid.photo_file_objid);
  char sql[kItemSqlSize];
  memset(sql, 0, sizeof sql);
  (void)sql_format(sql, sizeof sql,
                   "insert into photo_tbl values "
                   "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"%d\",\"%d\",\"%d\","
                   "\"0\",\"0\",\"0\",\"%d\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
                   photo_row, item.folder, item.name, item.folder, item.name, item.ext, item.time,
                   item.size, image.width, image.height, image.depth, item.layer, objid,
                   folder_objid());
  if (!sql_exec(sql)) {
    printf("2ScanMusic():execute sql query error[%s]\n", zErrMsg);
    return false;
  }
  ++photo_row;
  return true;
}

bool scan_video_file(const Item& item) {
  ++total_scan_cnt;
  // All zeros, so no playing time is asked for. The result is not looked at:
  // whatever the record holds is stored, zeros when nothing was read.
  VideoInfo video;
  memset(&video, 0, sizeof video);
  (void)get_video_info(item.path, &video);

  const unsigned long long objid = take_objid(&init_objid.video_file_objid);
  char sql[kItemSqlSize];
  memset(sql, 0, sizeof sql);
  // Format_type holds the television system, not the MPEG version: the media
  // server reads it so.
  (void)sql_format(sql, sizeof sql,
                   "insert into video_tbl values "
                   "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"%d\",\"%d\",\"0\","
                   "\"%d\",\"0\",\"0\",\"0\",\"0\",\"%d\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
                   video_row, item.folder, item.name, item.folder, item.name, item.ext, item.time,
                   item.size, video.width, video.height, video.tv_system, item.layer, objid,
                   folder_objid());
  if (!sql_exec(sql)) {
    printf("3ScanMusic():execute sql query error[%s]\n", zErrMsg);
    return false;
  }
  ++video_row;
  return true;
}

// Playlists go into music_tbl with every tag column "0"; playlist resolution
// and the sorted tables find them by their extension.
bool scan_playlist_file(const Item& item) {
  ++total_scan_cnt;
  const unsigned long long objid = take_objid(&init_objid.music_file_objid);
  char sql[kItemSqlSize];
  memset(sql, 0, sizeof sql);
  (void)sql_format(sql, sizeof sql,
                   "insert into music_tbl values "
                   "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"0\",\"0\",\"0\","
                   "\"0\",\"0\",\"0\",\"0\",\"0\",\"%d\",\"0\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
                   music_row, item.folder, item.name, item.folder, item.name, item.ext, item.time,
                   item.size, item.layer, objid, folder_objid());
  if (!sql_exec(sql)) {
    printf("4ScanMusic():execute sql query error[%s]\n", zErrMsg);
    return false;
  }
  ++music_row;
  return true;
}

bool scan_subtitle_file(const Item& item) {
  ++total_scan_cnt;
  const unsigned long long objid = take_objid(&init_objid.video_file_objid);
  char sql[kItemSqlSize];
  memset(sql, 0, sizeof sql);
  (void)sql_format(sql, sizeof sql,
                   "insert into video_tbl values "
                   "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"0\",\"0\",\"0\","
                   "\"0\",\"0\",\"0\",\"0\",\"0\",\"%d\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
                   video_row, item.folder, item.name, item.folder, item.name, item.ext, item.time,
                   item.size, item.layer, objid, folder_objid());
  if (!sql_exec(sql)) {
    printf("3ScanMusic():execute sql query error[%s]\n", zErrMsg);
    return false;
  }
  ++video_row;
  return true;
}

// The marker is only ever deleted; its presence changes nothing else. Only a
// regular file counts as the marker: anything else of that name is left alone.
void remove_music_marker(const char* folder) {
  char marker[kPathLimit + 32];
  const int n = snprintf(marker, sizeof marker, "%s%s", folder, ".MediaWalk.Music");
  if (n < 0 || static_cast<size_t>(n) >= sizeof marker) return;  // never delete a cut name
  UniqueFile f(fopen_regular(marker));
  if (!f) return;
  puts(marker);
  f.reset();
  remove(marker);
}

bool insert_folder_row(const char* folder, int layer) {
  init_objid.media_path_parid = layer == 0 ? 0 : get_parid(folder);
  char sql[kSqlSize];
  memset(sql, 0, sizeof sql);
  (void)sql_format(sql, sizeof sql,
                   "insert into path_objid_tbl values "
                   "(\"%s\",\"%llu\",\"%llu\",\"%d\",\"%d\",\"%d\",\"%d\");",
                   folder, folder_objid(),
                   static_cast<unsigned long long>(init_objid.media_path_parid), layer, 0, 0, 0);
  if (!sql_exec(sql)) {
    printf("ScanMusic():execute sql query[%s] error[%s]\n", sql, zErrMsg);
    return false;
  }
  folder_ids.emplace(folder, init_objid.media_path_objid);
  return true;
}

// Handles one entry of folder `folder`. False only when an item statement
// failed, which ends the folder's scan.
bool scan_entry(const char* folder, size_t folder_len, const char* name, int layer) {
  const size_t sum = folder_len + strlen(name);
  if (sum >= kPathLimit) {
    printf("<mediawalk>ScanMusic(): file path too long %d\n", static_cast<int>(sum));
    return true;
  }
  // ".", "..", hidden files and folders, the database folder and the marker.
  if (name[0] == '.') return true;

  char path[kPathLimit + 1];  // E, and the "/" a folder gets
  memset(path, 0, sizeof path);
  snprintf(path, sizeof path, "%s%s", folder, name);
  struct stat64 st;
  const int rc = lstat64(path, &st);
  if (rc != 0) {
    // Shows the call's result, not errno; the entry is then skipped rather
    // than judged from status data that was never filled.
    printf("<mediawalk>ScanMusic(): lstat error:[%s],%d,file:[%s]\n", strerror(rc), rc, path);
    return true;
  }
  if (S_ISLNK(st.st_mode)) {
    printf("Link File: [%s]\n", path);
    return true;
  }
  if (S_ISDIR(st.st_mode)) {
    path[sum] = '/';
    path[sum + 1] = '\0';
    addqueuex(path, layer + 1);
    return true;
  }
  if (!S_ISREG(st.st_mode)) return true;

  const char* dot = strrchr(name, '.');
  if (dot == nullptr) return true;
  if (strnlen(dot + 1, kExtLimit) >= kExtLimit) return true;
  char ext[kExtLimit + 1];
  copy_bounded(ext, dot + 1);
  str_tolower(ext);

  const MediaClass media_class = media_class_of(dot);
  if (media_class == kClassNone) return true;

  Item item;
  item.folder = folder;
  item.name = name;
  item.path = path;
  item.ext = ext;
  item.dot = dot;
  item.size = static_cast<unsigned long long>(st.st_size);
  format_time(st.st_mtime, item.time);
  item.layer = layer;
  switch (media_class) {
    case kClassMusic:
      return scan_music_file(item);
    case kClassPhoto:
      return scan_photo_file(item);
    case kClassVideo:
      return scan_video_file(item);
    case kClassPlaylist:
      return scan_playlist_file(item);
    case kClassSubtitle:
      return scan_subtitle_file(item);
    case kClassNone:
      break;
  }
  return true;
}

}  // namespace

int ScanMusic(const char* path, int layer) {
  remove_music_marker(path);

  DirList list;
  const int count = scandir64(path, &list.entries, nullptr, alphasort64);
  if (count >= 0) list.count = count;
  if (count >= 1) {
    // On a failed statement the folder keeps its identifier unspent: the
    // next folder scanned is given the same ObjID.
    if (!insert_folder_row(path, layer)) return 0;
    const size_t path_len = strlen(path);
    for (int i = 0; i < list.count; ++i) {
      read_ahead_at(path, list.entries, list.count, i);
      if (!scan_entry(path, path_len, list.entries[i]->d_name, layer)) return 0;
    }
    ++init_objid.media_path_objid;
  }
  if (total_scan_cnt == 0) total_scan_cnt = 1;
  return 1;
}

void addqueuex(const char* path, int layer) {
  QueueNode* node = new (std::nothrow) QueueNode;
  if (node == nullptr) {
    puts("addqueuex::Memory Allocated Failure!!!");
    return;
  }
  memset(node->path, 0, sizeof node->path);
  if (!copy_bounded(node->path, path)) {
    // A cut path would name another folder; better not to scan it at all.
    printf("addqueuex::path too long [%s]\n", path);
    delete node;
    return;
  }
  node->layer = layer;
  node->next = nullptr;
  if (queue_head == nullptr) {
    queue_head = queue_tail = node;
  } else {
    queue_tail->next = node;
    queue_tail = node;
  }
}

int delqueue(char* dest, int* layer) {
  if (queue_head == nullptr) {
    puts("delqueue::nothing in queue");
    queue_head = queue_tail = nullptr;
    return 0;
  }
  QueueNode* node = queue_head;
  queue_head = node->next;
  if (queue_head == nullptr) queue_tail = nullptr;
  copy_bounded(dest, kFolderPathSize, node->path);
  *layer = node->layer;
  delete node;
  return 1;
}

bool queue_has_folders() { return queue_head != nullptr && queue_tail != nullptr; }

uint64_t get_parid(const char* path) {
  char parent[kSqlSize];
  copy_bounded(parent, path);
  const size_t len = strlen(parent);
  if (len > 0) parent[len - 1] = '\0';  // the folder's own trailing "/"
  char* last_slash = strrchr(parent, '/');
  if (last_slash != nullptr)
    last_slash[1] = '\0';
  else
    parent[0] = '\0';

#ifndef MEDIAWALK_LITERAL_SQL
  // A quote changes what the statement means (it fails, or worse); only
  // there, and for a path no folder row was seen for, ask the database.
  if (strpbrk(parent, "'\"") == nullptr) {
    auto known = folder_ids.find(parent);
    if (known != folder_ids.end()) return known->second;
  }
#endif

  char sql[kSqlSize];
  memset(sql, 0, sizeof sql);
  (void)sql_format(sql, sizeof sql, "select ObjID from path_objid_tbl where path =='%s';", parent);
  Table table;
  if (!sql_table(sql, &table)) {
    // The statement, not the error text: that is what this line has always shown.
    printf("get_parid():1Exe SQL query Error[%s]\n", sql);
    return 0;
  }
  if (table.rows < 1 || table.cols < 1 || table.at(1, 0) == nullptr) return 0;
  return static_cast<uint64_t>(atoll(table.at(1, 0)));
}

char* check_special_symbol(char* text) {
  if (text == nullptr || strchr(text, '"') == nullptr) return nullptr;
  // Cutting at 49 bytes is how titles with quotes have always been stored.
  constexpr size_t kInputLimit = 49;
  constexpr size_t kOutputLimit = 255;
  char out[kOutputLimit + 1];
  size_t in = 0;
  size_t used = 0;
  while (text[in] != '\0' && in < kInputLimit && used < kOutputLimit) {
    out[used++] = text[in] == '"' ? '\'' : text[in];
    ++in;
  }
  out[used] = '\0';
  memcpy(text, out, used + 1);  // never longer than the original
  return text;
}

void str_tolower(char* text) {
  for (; *text != '\0'; ++text) *text = static_cast<char>(tolower(static_cast<unsigned char>(*text)));
}

void reset_walk_state() {
  while (queue_head != nullptr) {
    QueueNode* node = queue_head;
    queue_head = node->next;
    delete node;
  }
  queue_tail = nullptr;
  music_row = photo_row = video_row = 1;
  memset(&music_info, 0, sizeof music_info);
  folder_ids.clear();
}
