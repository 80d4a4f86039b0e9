#include "library/walk.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "library/entry_rule.h"
#include "library/objid.h"
#include "library/progress_counters.h"
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

// Folder rows and the parent lookup: a folder path and a few numbers.
constexpr size_t kSqlSize = 1024;
// Item rows hold the folder path and the name twice, and for music up to
// three 256-byte tags and the genre; this holds the longest such row for
// every path the length check admits, so a deep file is stored, not cut.
constexpr size_t kItemSqlSize = 4096;
constexpr size_t kTagBound = 256;   // title, artist, album
constexpr size_t kGenreBound = 30;
constexpr size_t kTimeSize = 128;

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
  const MediaName* media;
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

// What differs between the item rows of one kind. Music and playlists share
// music_tbl with its row number and identifiers, videos and subtitles
// video_tbl; music_tbl has a PlsFile column after layer.
struct ItemRows {
  const char* table;
  bool pls_file;   // music_tbl's PlsFile column, always "0"
  int32_t* row;    // row number, advanced once a row went in
  uint64_t* objid; // the class's identifier counter
  char step;       // the digit that begins the failure line
};

const ItemRows kMusicRows = {"music_tbl", true, &music_row, &init_objid.music_file_objid, '1'};
const ItemRows kPhotoRows = {"photo_tbl", false, &photo_row, &init_objid.photo_file_objid, '2'};
const ItemRows kVideoRows = {"video_tbl", false, &video_row, &init_objid.video_file_objid, '3'};
const ItemRows kPlaylistRows = {"music_tbl", true, &music_row, &init_objid.music_file_objid, '4'};
const ItemRows kSubtitleRows = {"video_tbl", false, &video_row, &init_objid.video_file_objid, '3'};

// The class's own columns of one row, between the common ones and layer.
constexpr size_t kMaxClassColumns = 8;
struct ClassColumns {
  const char* values[kMaxClassColumns];
  size_t count;
};

// Playlists and subtitles carry nothing of their own: "0" from Genre (music)
// or Width (video) through Comments. Playlist resolution and the sorted
// tables find playlists by their extension.
const ClassColumns kNoColumns = {{"0", "0", "0", "0", "0", "0", "0", "0"}, 8};

// A number as the text it is stored as.
struct NumberText {
  char text[24];
  explicit NumberText(long long v) { snprintf(text, sizeof text, "%lld", v); }
};

// Inserts the row of one item: the common columns, then the class's own,
// layer, the identifier and the folder's. False when the statement failed,
// after its failure line.
bool insert_item(const ItemRows& rows, const Item& item, const ClassColumns& columns) {
  // Taken before the statement runs: a failed row still uses up its identifier.
  const NumberText objid(static_cast<long long>(take_objid(rows.objid)));
  const NumberText parent(static_cast<long long>(folder_objid()));
  const NumberText row(*rows.row);
  const NumberText size(static_cast<long long>(item.size));
  const NumberText layer(item.layer);
  const char* values[8 + kMaxClassColumns + 7];
  size_t n = 0;
  for (const char* v : {row.text, item.folder, item.name, item.folder, item.name, item.media->ext,
                        static_cast<const char*>(item.time), size.text})
    values[n++] = v;
  for (size_t i = 0; i < columns.count; ++i) values[n++] = columns.values[i];
  values[n++] = layer.text;
  if (rows.pls_file) values[n++] = "0";
  for (const char* v : {objid.text, parent.text, "0", "0", "0"}) values[n++] = v;
  char sql[kItemSqlSize];
  // A statement cut at the buffer's end fails in SQLite like any other bad row.
  (void)sql_format_row(sql, sizeof sql, rows.table, values, n);
  if (!sql_exec(sql)) {
    printf("%cScanMusic():execute sql query error[%s]\n", rows.step, zErrMsg);
    return false;
  }
  ++*rows.row;
  return true;
}

bool scan_music_file(const Item& item) {
  MusicWork work;
  memset(&work, 0, sizeof work);
  copy_bounded(work.folder, item.folder);
  copy_bounded(work.name, item.name);

  // The folder path already ends in "/", so readers get a double slash here;
  // they have always been handed the path in this form.
  // Folder path and name together stay below 512 bytes, so this never cuts.
  char full_path[1024];
  if (snprintf(full_path, sizeof full_path, "%s/%s", work.folder, work.name) < 0) full_path[0] = '\0';

  const char* type_text = item.media->dot + 1;
  char type_fallback[kExtLimit + 1];
  copy_bounded(type_fallback, type_text);
  UniqueChars type(strdup(type_text));

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

  const NumberText bitrate(static_cast<unsigned>(music_info.bitrate));
  const ClassColumns columns = {
      {work.genre, work.artist, work.album, work.title, bitrate.text, "0", "0", "0"}, 8};
  if (!insert_item(kMusicRows, item, columns)) return false;
  if (work.genre[0] == '\0') printf("<file>path %s, namelist[i]->d_name %s\n", item.folder, item.name);
  return true;
}

bool scan_photo_file(const Item& item) {
  ImageInfo image;
  memset(&image, 0, sizeof image);
  copy_bounded(image.path, item.path);
  if (get_img_size(&image) == 0) return true;  // not measurable: counted, but no row
  const NumberText width(image.width), height(image.height), depth(image.depth);
  const ClassColumns columns = {{width.text, height.text, depth.text, "0", "0", "0"}, 6};
  return insert_item(kPhotoRows, item, columns);
}

bool scan_video_file(const Item& item) {
  // All zeros, so no playing time is asked for. The result is not looked at:
  // whatever the record holds is stored, zeros when nothing was read.
  VideoInfo video;
  memset(&video, 0, sizeof video);
  (void)get_video_info(item.path, &video);
  // Format_type holds the television system, not the MPEG version: the media
  // server reads it so.
  const NumberText width(video.width), height(video.height), tv_system(video.tv_system);
  const ClassColumns columns = {{width.text, height.text, "0", tv_system.text, "0", "0", "0", "0"}, 8};
  return insert_item(kVideoRows, item, columns);
}

constexpr char kMarkerName[] = ".MediaWalk.Music";

// The folder being scanned. Its entries are reached through its descriptor,
// so a folder above it swapped for a link meanwhile leads nowhere. A path
// without its closing "/" (a root so configured) joins its names into those
// of its siblings: those joined paths are then asked for as given.
struct Folder {
  const char* path;
  size_t len;
  int base;  // the folder's descriptor, or AT_FDCWD for a path without its "/"
  const char* entry(const char* name, const char* joined) const { return base == AT_FDCWD ? joined : name; }
};

// Lists the folder in alphasort order, "." and ".." included as scandir64
// gives them. False when it cannot be read.
bool list_folder(DIR* dir, std::vector<std::string>* names) {
  for (;;) {
    errno = 0;
    const struct dirent64* e = readdir64(dir);
    if (e == nullptr) break;
    names->emplace_back(e->d_name);
  }
  if (errno != 0) return false;
  std::sort(names->begin(), names->end(),
            [](const std::string& a, const std::string& b) { return strcoll(a.c_str(), b.c_str()) < 0; });
  return true;
}

// The marker is only ever deleted; its presence changes nothing else. Only a
// regular file counts as the marker: anything else of that name is left alone.
void remove_music_marker(const Folder& folder) {
  char marker[kPathLimit + 32];
  const int n = snprintf(marker, sizeof marker, "%s%s", folder.path, kMarkerName);
  if (n < 0 || static_cast<size_t>(n) >= sizeof marker) return;  // never delete a cut name
  const char* name = folder.entry(kMarkerName, marker);
  Fd f(open_regular_at(folder.base, name));
  if (f.fd < 0) return;
  puts(marker);
  (void)unlinkat(folder.base, name, 0);
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
bool scan_entry(const Folder& dir, const char* name, int layer) {
  const char* folder = dir.path;
  const size_t sum = dir.len + strlen(name);
  if (sum >= kPathLimit) {
    printf("<mediawalk>ScanMusic(): file path too long %d\n", static_cast<int>(sum));
    return true;
  }
  if (is_hidden_name(name)) return true;  // judged before its status is asked for

  char path[kPathLimit + 1];  // E, and the "/" a folder gets
  memset(path, 0, sizeof path);
  snprintf(path, sizeof path, "%s%s", folder, name);
  struct stat64 st;
  const int rc = fstatat64(dir.base, dir.entry(name, path), &st, AT_SYMLINK_NOFOLLOW);
  if (rc != 0) {
    // Shows the call's result, not errno; the entry is then skipped rather
    // than judged from status data that was never filled.
    printf("<mediawalk>ScanMusic(): lstat error:[%s],%d,file:[%s]\n", strerror(rc), rc, path);
    return true;
  }
  MediaName media;
  switch (judge_entry(name, st.st_mode, &media)) {
    case EntryKind::kLink:
      printf("Link File: [%s]\n", path);
      return true;
    case EntryKind::kFolder:
      path[sum] = '/';
      path[sum + 1] = '\0';
      addqueuex(path, layer + 1);
      return true;
    case EntryKind::kPassed:
      return true;
    case EntryKind::kMedia:
      break;
  }

  // Counted before its metadata is read, whether or not a row is written.
  ++total_scan_cnt;
  Item item;
  item.folder = folder;
  item.name = name;
  item.path = path;
  item.media = &media;
  item.size = static_cast<unsigned long long>(st.st_size);
  format_time(st.st_mtime, item.time);
  item.layer = layer;
  switch (media.media_class) {
    case kClassMusic:
      return scan_music_file(item);
    case kClassPhoto:
      return scan_photo_file(item);
    case kClassVideo:
      return scan_video_file(item);
    case kClassPlaylist:
      return insert_item(kPlaylistRows, item, kNoColumns);
    case kClassSubtitle:
      return insert_item(kSubtitleRows, item, kNoColumns);
    case kClassNone:
      break;
  }
  return true;
}

}  // namespace

int ScanMusic(const char* path, int layer) {
  // The root as configured; every other folder reached from it without a link.
  const int fd = layer == 0 ? open_share_root(path) : open_share_folder(path);
  UniqueDir dir(fd >= 0 ? fdopendir(fd) : nullptr);  // owns fd once it is made
  if (fd >= 0 && !dir) close(fd);
  const int dir_fd = dir ? dirfd(dir.get()) : -1;
  const size_t len = strlen(path);
  const Folder folder = {path, len, len > 0 && path[len - 1] == '/' ? dir_fd : AT_FDCWD};
  set_scan_folder(path, dir_fd);
  struct Unset {
    ~Unset() { set_scan_folder(nullptr, -1); }
  } unset;
  remove_music_marker(folder);

  std::vector<std::string> names;
  if (dir && list_folder(dir.get(), &names) && !names.empty()) {
    // On a failed statement the folder keeps its identifier unspent: the
    // next folder scanned is given the same ObjID.
    if (!insert_folder_row(path, layer)) return 0;
    for (size_t i = 0; i < names.size(); ++i) {
      if (folder.base == dir_fd) read_ahead_at(dir_fd, names, i, queue_head != nullptr ? queue_head->path : nullptr);
      if (!scan_entry(folder, names[i].c_str(), layer)) return 0;
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
  forget_share();
}
