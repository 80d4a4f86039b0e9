// The least a scan of a share must cost: list every folder breadth-first in
// name order, lstat64 every entry, read the first 4 KiB of every file with a
// media extension (and every JPEG whole, as its last frame header counts),
// and insert one row per file into SQLite in one transaction through one
// prepared statement. Hidden entries are passed over, as the scanner does.
//
//   floor SHARE_FOLDER DATABASE_FILE
//
// Prints "files N folders M bytes B" (B = bytes read). Not part of the
// product: the benchmark builds it to have a yardstick.
//
//   floor --read-pass SHARE_FOLDER
//
// The cold-cache yardstick: the same walk and lstat64, and the first 4 KiB of
// every file with a media extension (JPEG included), one file at a time, with
// no database. Prints "files N folders M bytes B".
//
//   floor --commits N DATABASE_FILE
//
// The other yardstick: N one-row INSERTs, each its own transaction, under the
// scanner's commit settings (synchronous=OFF, journal_mode=PERSIST, the file
// locked for the whole run: without the lock every commit also opens, checks
// and closes the journal, five times the cost). Once the
// first m3u playlist has committed the walk, every later statement of a scan
// (a sorted-table row per media file, a flag update per folder) is such a
// transaction; this is what they cost at the least. Prints "commits N".
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <string>

namespace {

const char* const kMediaExtensions[] = {
    "bmp", "gif",  "jpg", "jpeg", "jpe", "tif", "tiff", "png", "aif", "aiff", "wav", "wma",
    "mp3", "mp2",  "pcm", "lpcm", "mp1", "mpa", "avi", "mpeg", "mpg", "mpeg2", "mp4", "wmv",
    "dat", "vob",  "ts",  "mov", "m3u", "pls", "srt"};

bool is_media(const char* ext) {
  for (const char* m : kMediaExtensions)
    if (strcasecmp(ext, m) == 0) return true;
  return false;
}

bool is_jpeg(const char* ext) {
  return strcasecmp(ext, "jpg") == 0 || strcasecmp(ext, "jpeg") == 0 || strcasecmp(ext, "jpe") == 0;
}

// Reads the first 4 KiB, or the whole file when whole is set.
long long read_file(const char* path, bool whole) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[4096];
  long long total = 0;
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) {
    total += n;
    if (!whole) break;
  }
  close(fd);
  return total;
}

}  // namespace

int commits(long long n, const char* db_file) {
  unlink(db_file);
  sqlite3* db = nullptr;
  if (sqlite3_open(db_file, &db) != SQLITE_OK) return 1;
  sqlite3_exec(db, "CREATE TABLE music_sortidx_tbl (idx,reserve1,reserve2);", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA synchronous=OFF;", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA journal_mode=PERSIST;", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA locking_mode=EXCLUSIVE;", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_prepare_v2(db, "insert into music_sortidx_tbl values (?,0,0);", -1, &insert, nullptr) != SQLITE_OK)
    return 1;
  for (long long i = 1; i <= n; ++i) {
    sqlite3_bind_int64(insert, 1, i);
    if (sqlite3_step(insert) != SQLITE_DONE) return 1;
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_exec(db, "PRAGMA journal_mode=DELETE;", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  printf("commits %lld\n", n);
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 4 && strcmp(argv[1], "--commits") == 0) return commits(atoll(argv[2]), argv[3]);
  if (argc != 3) {
    fprintf(stderr,
            "usage: floor SHARE_FOLDER DATABASE_FILE | floor --read-pass SHARE_FOLDER |"
            " floor --commits N DATABASE_FILE\n");
    return 2;
  }
  const bool read_pass = strcmp(argv[1], "--read-pass") == 0;
  if (read_pass) ++argv;
  sqlite3* db = nullptr;
  sqlite3_stmt* insert = nullptr;
  if (!read_pass) {
    unlink(argv[2]);
    if (sqlite3_open(argv[2], &db) != SQLITE_OK) return 1;
    sqlite3_exec(db, "CREATE TABLE f (path, name, size, mtime);", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr);
    if (sqlite3_prepare_v2(db, "INSERT INTO f VALUES (?,?,?,?);", -1, &insert, nullptr) != SQLITE_OK)
      return 1;
  }

  std::deque<std::string> queue;
  std::string root = argv[1];
  if (root.empty() || root.back() != '/') root += '/';
  queue.push_back(root);
  long long files = 0, folders = 0, bytes = 0;
  while (!queue.empty()) {
    const std::string folder = queue.front();
    queue.pop_front();
    ++folders;
    struct dirent64** list = nullptr;
    const int count = scandir64(folder.c_str(), &list, nullptr, alphasort64);
    for (int i = 0; i < count; ++i) {
      const char* name = list[i]->d_name;
      if (name[0] != '.') {
        const std::string path = folder + name;
        struct stat64 st;
        if (lstat64(path.c_str(), &st) == 0) {
          if (S_ISDIR(st.st_mode)) {
            queue.push_back(path + "/");
          } else if (S_ISREG(st.st_mode)) {
            const char* dot = strrchr(name, '.');
            if (dot != nullptr && is_media(dot + 1))
              bytes += read_file(path.c_str(), !read_pass && is_jpeg(dot + 1));
            ++files;
            if (!read_pass) {
              sqlite3_bind_text(insert, 1, folder.c_str(), -1, SQLITE_TRANSIENT);
              sqlite3_bind_text(insert, 2, name, -1, SQLITE_TRANSIENT);
              sqlite3_bind_int64(insert, 3, st.st_size);
              sqlite3_bind_int64(insert, 4, st.st_mtime);
              sqlite3_step(insert);
              sqlite3_reset(insert);
            }
          }
        }
      }
      free(list[i]);
    }
    free(list);
  }
  if (!read_pass) {
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  printf("files %lld folders %lld bytes %lld\n", files, folders, bytes);
  return 0;
}
