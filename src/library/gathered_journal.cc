#include "library/gathered_journal.h"

#include <sqlite3.h>
#include <stddef.h>
#include <string.h>

namespace {

// A journal file or any other file of the connection: SQLite's own file
// object follows this one in the same allocation.
struct GFile {
  sqlite3_file base;
  sqlite3_file* real;
  bool journal;
};

constexpr size_t kRealOffset = (sizeof(GFile) + 7) & ~size_t(7);

// Enough for the header and a dozen pages of one row's transaction; a longer
// run of writes (a big transaction) is put out in pieces of this size.
constexpr size_t kGatherMax = 64u << 10;

struct Gathered {
  GFile* file = nullptr;  // the journal the bytes belong to
  sqlite3_int64 at = 0;   // where they go
  size_t len = 0;
  unsigned char* buf = nullptr;
};

Gathered gathered;
sqlite3_vfs* real_vfs = nullptr;
sqlite3_vfs vfs;

int flush() {
  if (gathered.len == 0) return SQLITE_OK;
  sqlite3_file* real = gathered.file->real;
  const int len = static_cast<int>(gathered.len);
  gathered.len = 0;
  return real->pMethods->xWrite(real, gathered.buf, len, gathered.at);
}

// Before f is used in any way but a gathered write: a journal's own bytes are
// put out before it is read, sized, cut, synced or closed, and all of them
// before the database file is written, cut or synced.
int flush_for(GFile* f) { return gathered.len != 0 && (!f->journal || gathered.file == f) ? flush() : SQLITE_OK; }

GFile* g(sqlite3_file* f) { return reinterpret_cast<GFile*>(f); }
sqlite3_file* real(sqlite3_file* f) { return g(f)->real; }

int x_close(sqlite3_file* f) {
  const int rc = g(f)->journal ? flush_for(g(f)) : SQLITE_OK;
  if (gathered.file == g(f)) gathered.file = nullptr;
  const int closed = real(f)->pMethods->xClose(real(f));
  return rc != SQLITE_OK ? rc : closed;
}

int x_read(sqlite3_file* f, void* out, int n, sqlite3_int64 at) {
  const int rc = g(f)->journal ? flush_for(g(f)) : SQLITE_OK;
  return rc != SQLITE_OK ? rc : real(f)->pMethods->xRead(real(f), out, n, at);
}

int x_write(sqlite3_file* f, const void* data, int n, sqlite3_int64 at) {
  GFile* file = g(f);
  if (!file->journal || n < 0 || gathered.buf == nullptr) {
    const int rc = flush_for(file);
    return rc != SQLITE_OK ? rc : file->real->pMethods->xWrite(file->real, data, n, at);
  }
  const size_t len = size_t(n);
  const bool follows = gathered.len != 0 && gathered.file == file && at == gathered.at + sqlite3_int64(gathered.len);
  if (!follows || gathered.len + len > kGatherMax) {
    const int rc = flush();
    if (rc != SQLITE_OK) return rc;
  }
  if (len > kGatherMax) return file->real->pMethods->xWrite(file->real, data, n, at);
  if (gathered.len == 0) {
    gathered.file = file;
    gathered.at = at;
  }
  memcpy(gathered.buf + gathered.len, data, len);
  gathered.len += len;
  return SQLITE_OK;
}

int x_truncate(sqlite3_file* f, sqlite3_int64 size) {
  const int rc = flush_for(g(f));
  return rc != SQLITE_OK ? rc : real(f)->pMethods->xTruncate(real(f), size);
}

int x_sync(sqlite3_file* f, int flags) {
  const int rc = flush_for(g(f));
  return rc != SQLITE_OK ? rc : real(f)->pMethods->xSync(real(f), flags);
}

int x_file_size(sqlite3_file* f, sqlite3_int64* size) {
  const int rc = g(f)->journal ? flush_for(g(f)) : SQLITE_OK;
  return rc != SQLITE_OK ? rc : real(f)->pMethods->xFileSize(real(f), size);
}

int x_lock(sqlite3_file* f, int level) { return real(f)->pMethods->xLock(real(f), level); }
int x_unlock(sqlite3_file* f, int level) { return real(f)->pMethods->xUnlock(real(f), level); }
int x_check_reserved(sqlite3_file* f, int* out) { return real(f)->pMethods->xCheckReservedLock(real(f), out); }

int x_file_control(sqlite3_file* f, int op, void* arg) {
  const int rc = g(f)->journal ? flush_for(g(f)) : SQLITE_OK;
  return rc != SQLITE_OK ? rc : real(f)->pMethods->xFileControl(real(f), op, arg);
}

int x_sector_size(sqlite3_file* f) { return real(f)->pMethods->xSectorSize(real(f)); }
int x_device(sqlite3_file* f) { return real(f)->pMethods->xDeviceCharacteristics(real(f)); }

// Shared memory is for WAL, which the library never uses; mapping is passed on
// where SQLite's file offers it, and otherwise declined.
bool has(sqlite3_file* f, int version) { return real(f)->pMethods->iVersion >= version; }
int x_shm_map(sqlite3_file* f, int page, int size, int extend, void volatile** out) {
  if (!has(f, 2)) return SQLITE_IOERR_SHMMAP;
  return real(f)->pMethods->xShmMap(real(f), page, size, extend, out);
}
int x_shm_lock(sqlite3_file* f, int offset, int n, int flags) {
  return has(f, 2) ? real(f)->pMethods->xShmLock(real(f), offset, n, flags) : SQLITE_IOERR_SHMLOCK;
}
void x_shm_barrier(sqlite3_file* f) {
  if (has(f, 2)) real(f)->pMethods->xShmBarrier(real(f));
}
int x_shm_unmap(sqlite3_file* f, int del) { return has(f, 2) ? real(f)->pMethods->xShmUnmap(real(f), del) : SQLITE_OK; }
int x_fetch(sqlite3_file* f, sqlite3_int64 at, int n, void** out) {
  if (has(f, 3)) return real(f)->pMethods->xFetch(real(f), at, n, out);
  *out = nullptr;
  return SQLITE_OK;
}
int x_unfetch(sqlite3_file* f, sqlite3_int64 at, void* p) {
  return has(f, 3) ? real(f)->pMethods->xUnfetch(real(f), at, p) : SQLITE_OK;
}

const sqlite3_io_methods kMethods = {3,
                                     x_close,
                                     x_read,
                                     x_write,
                                     x_truncate,
                                     x_sync,
                                     x_file_size,
                                     x_lock,
                                     x_unlock,
                                     x_check_reserved,
                                     x_file_control,
                                     x_sector_size,
                                     x_device,
                                     x_shm_map,
                                     x_shm_lock,
                                     x_shm_barrier,
                                     x_shm_unmap,
                                     x_fetch,
                                     x_unfetch};

int x_open(sqlite3_vfs*, const char* name, sqlite3_file* f, int flags, int* out_flags) {
  GFile* file = g(f);
  file->base.pMethods = nullptr;
  file->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(f) + kRealOffset);
  file->journal = (flags & SQLITE_OPEN_MAIN_JOURNAL) != 0;
  const int rc = real_vfs->xOpen(real_vfs, name, file->real, flags, out_flags);
  // SQLite closes a file whose methods are set, even after a failed open.
  if (file->real->pMethods != nullptr) file->base.pMethods = &kMethods;
  return rc;
}

}  // namespace

const char* gathered_journal_vfs() {
  if (real_vfs != nullptr) return vfs.zName;
  sqlite3_vfs* found = sqlite3_vfs_find(nullptr);
  if (found == nullptr) return nullptr;
  gathered.buf = static_cast<unsigned char*>(sqlite3_malloc64(kGatherMax));
  if (gathered.buf == nullptr) return nullptr;
  // SQLite's other calls ignore which VFS they are called through, or read
  // only fields copied here unchanged.
  vfs = *found;
  vfs.pNext = nullptr;
  vfs.zName = "mediawalk-gathered-journal";
  vfs.szOsFile = static_cast<int>(kRealOffset) + found->szOsFile;
  vfs.xOpen = x_open;
  if (sqlite3_vfs_register(&vfs, 0) != SQLITE_OK) {
    sqlite3_free(gathered.buf);
    gathered.buf = nullptr;
    return nullptr;
  }
  real_vfs = found;
  return vfs.zName;
}

int journal_flush() { return flush(); }
