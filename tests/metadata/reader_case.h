// The file a metadata table row describes, and the checks every reader shares.
//
// From field `i` on a row lays out the file: bytes, a hole of that many bytes, bytes, ...
// "missing" leaves no file, "fifo" makes a FIFO, "data:REL" is the fixture tests/data/REL.
// The reader's answer, printed as text by `run`, must equal `want` ("@" stands for the path).
// A file with a hole must read as the same file written out (unless it is too large to write),
// and stepping over the hole must read less than 1 MiB.
#ifndef MEDIAWALK_TESTS_METADATA_READER_CASE_H_
#define MEDIAWALK_TESTS_METADATA_READER_CASE_H_

#include <sys/stat.h>

#include <functional>
#include <string>

#include "../case_table.h"
#include "../sparse_file.h"
#include "../temp_tree.h"

inline std::string stdout_of(const std::function<void()>& f) {
  testing::internal::CaptureStdout();
  f();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

inline void check_reader(const Case& c, size_t i, const std::string& name, std::string want,
                         const std::function<std::string(const std::string&)>& run) {
  TempTree tree;
  std::string path = tree.root() + name;
  Pieces pieces;
  off_t size = 0;
  bool hole = false;
  if (c.at(i).rfind("data:", 0) == 0) {
    path = std::string(MEDIAWALK_TEST_DATA) + "/" + c.at(i).substr(5);
  } else if (c.at(i) == "fifo") {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  } else if (c.at(i) != "missing") {
    for (size_t k = i; k < c.f.size(); k += 2) {
      pieces.push_back({size, std::vector<uint8_t>(c.at(k).begin(), c.at(k).end())});
      size += off_t(c.at(k).size()) + off_t(strtoll(c.at(k + 1).c_str(), nullptr, 0));
      hole = hole || size > pieces.back().first + off_t(c.at(k).size());
    }
    ASSERT_TRUE(write_pieces(path, size, pieces, !hole));
  }
  for (size_t at; (at = want.find('@')) != std::string::npos;) want.replace(at, 1, path);
  const long long before = bytes_read_so_far();
  const std::string got = run(path);
  EXPECT_EQ(got, want);
  if (!hole) return;
  EXPECT_LT(bytes_read_so_far() - before, 1 << 20) << "the hole was read";
  if (size > (off_t(64) << 20)) return;
  ASSERT_TRUE(write_pieces(path, size, pieces, true));
  EXPECT_EQ(run(path), got) << "the same file written out";
}

#endif  // MEDIAWALK_TESTS_METADATA_READER_CASE_H_
