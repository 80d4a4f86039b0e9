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

// The file of a row, in a folder of its own that goes with it.
class CaseFile {
  TempTree tree_;  // first: the path lies in it

 public:
  CaseFile(const Case& c, size_t i, const std::string& name) : path(tree_.root() + name) {
    if (c.at(i).rfind("data:", 0) == 0) {
      path = std::string(MEDIAWALK_TEST_DATA) + "/" + c.at(i).substr(5);
    } else if (c.at(i) == "fifo") {
      EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    } else if (c.at(i) != "missing") {
      for (size_t k = i; k < c.f.size(); k += 2) {
        pieces_.push_back({size_, std::vector<uint8_t>(c.at(k).begin(), c.at(k).end())});
        size_ += off_t(c.at(k).size()) + off_t(strtoll(c.at(k + 1).c_str(), nullptr, 0));
        hole_ = hole_ || size_ > pieces_.back().first + off_t(c.at(k).size());
      }
      EXPECT_TRUE(write_pieces(path, size_, pieces_, !hole_));
    }
  }
  // `want` with "@" standing for the path.
  std::string with_path(std::string want) const {
    for (size_t at; (at = want.find('@')) != std::string::npos;) want.replace(at, 1, path);
    return want;
  }
  // What `run` answers; a file with a hole must be stepped over and read as the file written out.
  std::string answer(const std::function<std::string(const std::string&)>& run) {
    const long long before = bytes_read_so_far();
    const std::string got = run(path);
    if (!hole_) return got;
    EXPECT_LT(bytes_read_so_far() - before, 1 << 20) << "the hole was read";
    if (size_ > (off_t(64) << 20)) return got;
    EXPECT_TRUE(write_pieces(path, size_, pieces_, true));
    EXPECT_EQ(run(path), got) << "the same file written out";
    return got;
  }

 public:
  std::string path;

 private:
  Pieces pieces_;
  off_t size_ = 0;
  bool hole_ = false;
};

inline void check_reader(const Case& c, size_t i, const std::string& name, const std::string& want,
                         const std::function<std::string(const std::string&)>& run) {
  CaseFile file(c, i, name);
  EXPECT_EQ(file.answer(run), file.with_path(want));
}

#endif  // MEDIAWALK_TESTS_METADATA_READER_CASE_H_
