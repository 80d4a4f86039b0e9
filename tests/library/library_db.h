// A fresh library database in a temp folder for the phase tests: db_ptr open
// on it, every table created, the identifier counters at their bases. Rows
// go in with the walk's own INSERT shapes.
#ifndef MEDIAWALK_TESTS_LIBRARY_LIBRARY_DB_H_
#define MEDIAWALK_TESTS_LIBRARY_LIBRARY_DB_H_

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "library/objid.h"
#include "library/schema.h"
#include "library/sql.h"

namespace libtest {

class LibraryDb : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "libdbXXXXXX";
    ASSERT_NE(mkdtemp(&tmpl[0]), nullptr);
    dir_ = tmpl + "/";
    db_path_ = dir_ + "upnpav.db";
    ASSERT_EQ(sqlite3_open(db_path_.c_str(), &db_ptr), SQLITE_OK);
    exec("PRAGMA synchronous=OFF;");  // hundreds of autocommits per test otherwise
    if (begin_before_schema()) exec("BEGIN;");
    create_schema();
    init_objid_counters();
  }

  void TearDown() override {
    sqlite3_close(db_ptr);
    db_ptr = nullptr;
    sqlite3_free(zErrMsg);
    zErrMsg = nullptr;
    std::string cmd = "rm -rf '" + dir_ + "'";
    (void)system(cmd.c_str());
  }

  // The driver's open transaction around the schema and the walk.
  virtual bool begin_before_schema() const { return false; }

  void exec(const std::string& sql) { ASSERT_TRUE(sql_exec(sql.c_str())) << sql << ": " << zErrMsg; }

  // One music row as the walk writes it for a tagged file.
  void music(int no, const std::string& folder, const std::string& name, const std::string& title,
             const std::string& genre = "Others", const std::string& artist = "Others",
             const std::string& album = "Others") {
    char sql[4096];
    snprintf(sql, sizeof sql,
             "insert into music_tbl values "
             "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"%s\",\"%s\",\"%s\",\"%s\","
             "\"%u\",\"0\",\"0\",\"0\",\"%d\",\"0\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
             no, folder.c_str(), name.c_str(), folder.c_str(), name.c_str(), "mp3", "2020-01-01T00:00:00",
             1000ULL, genre.c_str(), artist.c_str(), album.c_str(), title.c_str(), 128u, 0,
             3000000000000ULL + no, 4000000000001ULL);
    exec(sql);
  }

  // A playlist (ext "m3u"/"pls") or, with another extension, any row that
  // carries no tags; also the subtitle shape of video_tbl.
  void untagged(const char* table, int no, const std::string& folder, const std::string& name,
                const std::string& ext) {
    char sql[4096];
    const bool video = std::string(table) == "video_tbl";
    snprintf(sql, sizeof sql,
             video ? "insert into video_tbl values "
                     "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"0\",\"0\",\"0\",\"0\","
                     "\"0\",\"0\",\"0\",\"0\",\"%d\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");"
                   : "insert into music_tbl values "
                     "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"0\",\"0\",\"0\",\"0\","
                     "\"0\",\"0\",\"0\",\"0\",\"%d\",\"0\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
             no, folder.c_str(), name.c_str(), folder.c_str(), name.c_str(), ext.c_str(), "2020-01-01T00:00:00",
             10ULL, 0, 1ULL, 4000000000001ULL);
    exec(sql);
  }

  void photo(int no, const std::string& folder, const std::string& name) {
    char sql[4096];
    snprintf(sql, sizeof sql,
             "insert into photo_tbl values "
             "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"%d\",\"%d\",\"%d\",\"0\",\"0\","
             "\"0\",\"%d\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
             no, folder.c_str(), name.c_str(), folder.c_str(), name.c_str(), "jpg", "2020-01-01T00:00:00",
             10ULL, 640, 480, 24, 0, 1000000000000ULL + no, 4000000000001ULL);
    exec(sql);
  }

  void video(int no, const std::string& folder, const std::string& name) {
    char sql[4096];
    snprintf(sql, sizeof sql,
             "insert into video_tbl values "
             "(\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"%llu\",\"%d\",\"%d\",\"0\",\"%d\",\"0\","
             "\"0\",\"0\",\"0\",\"%d\",\"%llu\",\"%llu\",\"0\",\"0\",\"0\");",
             no, folder.c_str(), name.c_str(), folder.c_str(), name.c_str(), "mpg", "2020-01-01T00:00:00",
             10ULL, 720, 576, 1, 0, 2000000000000ULL + no, 4000000000001ULL);
    exec(sql);
  }

  void folder(const std::string& path, int layer) {
    char sql[1024];
    snprintf(sql, sizeof sql,
             "insert into path_objid_tbl values (\"%s\",\"%llu\",\"%llu\",\"%d\",\"%d\",\"%d\",\"%d\");",
             path.c_str(), 4000000000001ULL + layer, 0ULL, layer, 0, 0, 0);
    exec(sql);
  }

  // The rows of a query, each cell as text ("<null>" for NULL).
  static std::vector<std::vector<std::string>> rows_of(sqlite3* db, const std::string& sql) {
    std::vector<std::vector<std::string>> out;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
      return out;
    }
    while (sqlite3_step(st) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int c = 0; c < sqlite3_column_count(st); ++c) {
        const unsigned char* v = sqlite3_column_text(st, c);
        row.push_back(v ? reinterpret_cast<const char*>(v) : "<null>");
      }
      out.push_back(row);
    }
    sqlite3_finalize(st);
    return out;
  }
  std::vector<std::vector<std::string>> rows(const std::string& sql) { return rows_of(db_ptr, sql); }

  // The first column of every row.
  std::vector<std::string> column(const std::string& sql) {
    std::vector<std::string> out;
    for (const auto& r : rows(sql)) out.push_back(r.at(0));
    return out;
  }

  std::string value(const std::string& sql) {
    const auto v = column(sql);
    return v.empty() ? "<none>" : v[0];
  }

  // Writes a file into the temp folder and returns its full path.
  std::string write_file(const std::string& name, const std::string& bytes) {
    const std::string path = dir_ + name;
    FILE* f = fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr) << path;
    if (f) {
      fwrite(bytes.data(), 1, bytes.size(), f);
      fclose(f);
    }
    return path;
  }

  std::string dir_;  // ends in "/", as the walk's folder paths do
  std::string db_path_;
};

}  // namespace libtest

#endif  // MEDIAWALK_TESTS_LIBRARY_LIBRARY_DB_H_
