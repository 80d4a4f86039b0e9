// 64-bit quantities on a target whose long and pointers are 32 bits: file
// sizes beyond 4 GiB through lstat64 and fseeko, and object identifiers past
// the 32-bit boundary through "%llu". On a 64-bit host these pass trivially;
// they earn their keep when the suite runs on 32-bit MIPS.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "library/objid.h"
#include "platform/holders.h"

static_assert(sizeof(off_t) == 8, "the build must define _FILE_OFFSET_BITS=64");

namespace {

const unsigned long long kGiB = 1024ULL * 1024 * 1024;

std::string format_llu(uint64_t v) {
  char buf[32];
  snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v));
  return buf;
}

// A fresh folder under the test temp dir, removed with what it holds.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = testing::TempDir() + "largefile.XXXXXX";
    path_.assign(pattern.begin(), pattern.end());
    path_.push_back('\0');
    ok_ = mkdtemp(path_.data()) != nullptr;
  }
  ~ScratchDir() {
    if (!ok_) return;
    for (const std::string& f : files_) unlink(f.c_str());
    rmdir(path_.data());
  }
  bool ok() const { return ok_; }
  std::string file(const char* name) {
    files_.push_back(std::string(path_.data()) + "/" + name);
    return files_.back();
  }

 private:
  std::vector<char> path_;
  std::vector<std::string> files_;
  bool ok_ = false;
};

TEST(LargeFileTypes, OffsetsAreSixtyFourBits) {
  EXPECT_EQ(8u, sizeof(off_t));
  EXPECT_EQ(8u, sizeof(off64_t));
  struct stat64 st;
  EXPECT_EQ(8u, sizeof(st.st_size));
  // Whatever long is on this target, the cast keeps every bit of an off_t.
  const off_t big = static_cast<off_t>(5 * kGiB);
  EXPECT_EQ("5368709120", format_llu(static_cast<unsigned long long>(big)));
}

struct SparseCase {
  unsigned long long size;
  const char* printed;
};

void PrintTo(const SparseCase& c, std::ostream* os) { *os << c.printed << " bytes"; }

class SparseFileTest : public testing::TestWithParam<SparseCase> {};

// The size set with ftruncate comes back exactly from lstat64, and a byte
// written just below the end is found again through fseeko/ftello.
TEST_P(SparseFileTest, SizeAndTailSurviveLstat64AndFseeko) {
  const SparseCase& c = GetParam();
  ScratchDir dir;
  ASSERT_TRUE(dir.ok()) << strerror(errno);
  const std::string path = dir.file("sparse.bin");

  {
    Fd fd(open(path.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0600));
    ASSERT_GE(fd.fd, 0) << strerror(errno);
    if (ftruncate(fd.fd, static_cast<off_t>(c.size)) != 0) {
      GTEST_SKIP() << "file system refuses a sparse file of " << c.printed
                   << " bytes: " << strerror(errno);
    }
    const char mark = 'M';
    ASSERT_EQ(1, pwrite(fd.fd, &mark, 1, static_cast<off_t>(c.size - 2)))
        << strerror(errno);
  }

  struct stat64 st;
  ASSERT_EQ(0, lstat64(path.c_str(), &st)) << strerror(errno);
  EXPECT_EQ(c.size, static_cast<unsigned long long>(st.st_size));
  EXPECT_EQ(c.printed, format_llu(static_cast<unsigned long long>(st.st_size)));
  char line[64];
  snprintf(line, sizeof line, "size=\"%llu\"", static_cast<unsigned long long>(st.st_size));
  EXPECT_EQ(std::string("size=\"") + c.printed + "\"", line);

  UniqueFile f(fopen(path.c_str(), "rb"));
  ASSERT_NE(nullptr, f.get()) << strerror(errno);
  ASSERT_EQ(0, fseeko(f.get(), static_cast<off_t>(c.size - 2), SEEK_SET)) << strerror(errno);
  EXPECT_EQ(static_cast<off_t>(c.size - 2), ftello(f.get()));
  EXPECT_EQ('M', fgetc(f.get()));
  EXPECT_EQ(0, fgetc(f.get()));
  EXPECT_EQ(EOF, fgetc(f.get()));
  ASSERT_EQ(0, fseeko(f.get(), 0, SEEK_END));
  EXPECT_EQ(static_cast<off_t>(c.size), ftello(f.get()));
}

INSTANTIATE_TEST_SUITE_P(
    AroundFourGiB, SparseFileTest,
    testing::Values(SparseCase{2 * kGiB + 1, "2147483649"},  // past a signed 32-bit off_t
                    SparseCase{4 * kGiB - 1, "4294967295"},
                    SparseCase{4 * kGiB, "4294967296"},
                    SparseCase{4 * kGiB + 3, "4294967299"},
                    SparseCase{5 * kGiB, "5368709120"}),
    [](const testing::TestParamInfo<SparseCase>& info) {
      return std::string("Bytes") + info.param.printed;
    });

struct CounterCase {
  uint64_t start;
  const char* first;
  const char* second;
  const char* next;
};

void PrintTo(const CounterCase& c, std::ostream* os) { *os << "from " << c.first; }

class ObjIdCounterTest : public testing::TestWithParam<CounterCase> {};

// take_objid hands out the counter's value and carries into the upper half
// instead of wrapping at 2^32; "%llu" prints every digit on the target.
TEST_P(ObjIdCounterTest, CrossesThirtyTwoBitBoundaries) {
  const CounterCase& c = GetParam();
  ObjIdCounters counters{};
  counters.music_file_objid = c.start;
  const uint64_t first = take_objid(&counters.music_file_objid);
  const uint64_t second = take_objid(&counters.music_file_objid);
  EXPECT_EQ(c.start, first);
  EXPECT_EQ(c.start + 1, second);
  EXPECT_EQ(c.first, format_llu(first));
  EXPECT_EQ(c.second, format_llu(second));
  EXPECT_EQ(c.next, format_llu(counters.music_file_objid));

  char sql[128];
  snprintf(sql, sizeof sql, "\"%llu\",\"%llu\"", static_cast<unsigned long long>(first),
           static_cast<unsigned long long>(second));
  EXPECT_EQ(std::string("\"") + c.first + "\",\"" + c.second + "\"", sql);
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, ObjIdCounterTest,
    testing::Values(CounterCase{0x7FFFFFFFULL, "2147483647", "2147483648", "2147483649"},
                    CounterCase{0xFFFFFFFFULL, "4294967295", "4294967296", "4294967297"},
                    CounterCase{0x1FFFFFFFFULL, "8589934591", "8589934592", "8589934593"},
                    CounterCase{3000000000001ULL, "3000000000001", "3000000000002",
                                "3000000000003"}),
    [](const testing::TestParamInfo<CounterCase>& info) {
      return std::string("From") + info.param.first;
    });

}  // namespace
