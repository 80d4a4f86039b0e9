#include "platform/xmldb.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "../fd_capture.h"

using namespace std::string_literals;

namespace {

constexpr uint32_t kFlags = 0xA1B2C3D4;

struct Request {
  uint16_t action = 0, length = 0;
  uint32_t flags = 0, reserved = 0xFFFFFFFF;
  std::string payload;  // exactly the bytes after the header
};

bool read_full(int fd, void* buf, size_t n) {
  for (size_t got = 0; got < n;) {
    const ssize_t r = read(fd, static_cast<char*>(buf) + got, n - got);
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return true;
}

std::string status_reply(uint32_t status) {
  std::string r(12, 'z');
  memcpy(&r[8], &status, 4);
  return r;
}

// A UNIX stream socket bound to path, or -1.
int bound_socket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size());
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  close(fd);
  return -1;
}

// A daemon on a UNIX socket that serves one connection at a time: it records
// the request, then sends the reply chunks, each only once the client has
// read the one before, so every chunk arrives in a read of its own.
class FakeDaemon {
 public:
  explicit FakeDaemon(const std::string& path) : path_(path), listen_fd_(bound_socket(path)) {
    listen(listen_fd_, 4);
  }
  ~FakeDaemon() {
    if (thread_.joinable()) thread_.join();
    close(listen_fd_);
    unlink(path_.c_str());
  }
  void serve(std::vector<std::string> chunks) {
    thread_ = std::thread([this, chunks] { serve_one(chunks); });
  }
  Request request() {
    thread_.join();
    return request_;
  }

 private:
  void serve_one(const std::vector<std::string>& chunks) {
    pollfd p = {listen_fd_, POLLIN, 0};  // a client that never comes fails the test, not hangs it
    const int fd = poll(&p, 1, 5000) == 1 ? accept(listen_fd_, nullptr, nullptr) : -1;
    uint8_t head[12];
    if (fd >= 0 && read_full(fd, head, sizeof head)) {
      memcpy(&request_.action, head, 2);
      memcpy(&request_.length, head + 2, 2);
      memcpy(&request_.flags, head + 4, 4);
      memcpy(&request_.reserved, head + 8, 4);
      request_.payload.resize(request_.length);
      if (!read_full(fd, &request_.payload[0], request_.length)) request_.payload = "<short>";
      for (const std::string& chunk : chunks) {
        if (send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0) break;
        for (int unread = 1, i = 0; unread > 0 && i < 5000; ++i) {
          if (ioctl(fd, SIOCOUTQ, &unread) < 0) break;
          if (unread > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
    }
    if (fd >= 0) close(fd);
  }
  std::string path_;
  int listen_fd_;
  std::thread thread_;
  Request request_;
};

class XmldbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir_template[] = "/tmp/xmldbXXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    dir_ = dir_template;
    sock_ = dir_ + "/sock";
  }
  void TearDown() override { rmdir(dir_.c_str()); }
  std::string dir_, sock_;
};

// Runs a _wb operation onto a memory stream; returns its result and the text.
int to_stream(const std::function<int(FILE*)>& call, std::string* text) {
  char* data = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&data, &size);
  const int rc = call(out);
  fclose(out);
  text->assign(data, size);
  free(data);
  return rc;
}

// Runs a buffer operation on an exactly sized heap buffer, so a write past
// its end shows up under the address sanitizer.
int to_buffer(size_t size, const std::function<int(char*, size_t)>& call, std::string* text) {
  std::vector<char> buf(size, 'q');
  const int rc = call(buf.data(), size);
  text->assign(buf.data(), strnlen(buf.data(), size));
  return rc;
}

using StatusFn = int (*)(const char*, uint32_t, const char*);
using SetFn = int (*)(const char*, uint32_t, const char*, const char*);
using BufferFn = int (*)(const char*, uint32_t, const char*, char*, size_t);
using StreamFn = int (*)(const char*, uint32_t, const char*, FILE*);

// One operation per row; exactly one of its function pointers is set.
struct KindCase {
  const char* name;
  uint16_t action;
  StatusFn status;
  SetFn set;
  BufferFn buffer;
  StreamFn stream;
};

const char kNode[] = "/runtime/scan_media/total_file";

// Calls the operation with kNode (and the value "12" for the set kinds);
// returns its result, the text reply in *text, the payload it should send in *payload.
int call(const KindCase& c, const char* sock, std::string* text, std::string* payload) {
  *payload = c.set ? kNode + " 12"s : kNode;
  if (c.status) return c.status(sock, kFlags, kNode);
  if (c.set) return c.set(sock, kFlags, kNode, "12");
  if (c.buffer) return to_buffer(64, [&](char* b, size_t n) { return c.buffer(sock, kFlags, kNode, b, n); }, text);
  return to_stream([&](FILE* f) { return c.stream(sock, kFlags, kNode, f); }, text);
}

const KindCase kKinds[] = {
    {"get", 1, nullptr, nullptr, xmldbc_get, nullptr},
    {"get_wb", 1, nullptr, nullptr, nullptr, xmldbc_get_wb},
    {"set", 2, nullptr, xmldbc_set, nullptr, nullptr},
    {"act3", 3, xmldbc_act3, nullptr, nullptr, nullptr},
    {"act4", 4, xmldbc_act4, nullptr, nullptr, nullptr},
    {"act5", 5, xmldbc_act5, nullptr, nullptr, nullptr},
    {"act6", 6, xmldbc_act6, nullptr, nullptr, nullptr},
    {"act10", 10, nullptr, nullptr, xmldbc_act10, nullptr},
    {"act10_wb", 10, nullptr, nullptr, nullptr, xmldbc_act10_wb},
    {"set11", 11, nullptr, xmldbc_set11, nullptr, nullptr},
    {"act12", 12, xmldbc_act12, nullptr, nullptr, nullptr},
    {"act13", 13, xmldbc_act13, nullptr, nullptr, nullptr},
    {"act14_wb", 14, nullptr, nullptr, nullptr, xmldbc_act14_wb},
};

class XmldbKinds : public XmldbTest, public ::testing::WithParamInterface<KindCase> {};

TEST_P(XmldbKinds, FramesRequestAndReadsReply) {
  const KindCase& c = GetParam();
  const bool text_reply = c.buffer || c.stream;
  FakeDaemon daemon(sock_);
  daemon.serve({text_reply ? "value\0"s : status_reply(41)});
  std::string text, payload;
  const int rc = call(c, sock_.c_str(), &text, &payload);
  const Request r = daemon.request();
  EXPECT_EQ(r.action, c.action);
  EXPECT_EQ(r.length, payload.size() + 1);
  EXPECT_EQ(r.flags, kFlags);
  EXPECT_EQ(r.reserved, 0u);
  EXPECT_EQ(r.payload, payload + '\0');
  if (text_reply) {
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(text, "value");
  } else {
    EXPECT_EQ(rc, 41);
  }
}

TEST_P(XmldbKinds, MissingDaemonFailsAtOnceAndSilently) {
  const KindCase& c = GetParam();
  const std::string too_long = "/" + std::string(300, 'p');
  const std::string refused = dir_ + "/refused";  // a socket nobody listens on
  const int fd = bound_socket(refused);
  ASSERT_GE(fd, 0);
  for (const std::string& path : {sock_, refused, too_long, dir_}) {
    FdCapture out(1), err(2);
    std::string text, payload;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call(c, path.c_str(), &text, &payload), -1) << path;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(out.text() + err.text(), "");
  }
  close(fd);
  unlink(refused.c_str());
}

INSTANTIATE_TEST_SUITE_P(Table, XmldbKinds, ::testing::ValuesIn(kKinds),
                         [](const ::testing::TestParamInfo<KindCase>& i) { return std::string(i.param.name); });

struct CutCase {
  size_t value_length;  // the payload is "/n " and this many 'x'
  size_t sent_length;   // payload bytes sent, the zero included
};

class XmldbSetCut : public XmldbTest, public ::testing::WithParamInterface<CutCase> {};

TEST_P(XmldbSetCut, CutsPayloadTo510Characters) {
  const CutCase& c = GetParam();
  const std::string value(c.value_length, 'x');
  for (bool action11 : {false, true}) {
    FakeDaemon daemon(sock_);
    daemon.serve({status_reply(0)});
    EXPECT_EQ(action11 ? xmldbc_set11(sock_.c_str(), 0, "/n", value.c_str())
                       : xmldbc_set(sock_.c_str(), 0, "/n", value.c_str()),
              0);
    const Request r = daemon.request();
    EXPECT_EQ(r.length, c.sent_length);
    EXPECT_EQ(r.payload, ("/n " + value).substr(0, c.sent_length - 1) + '\0');
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, XmldbSetCut,
                         ::testing::Values(CutCase{506, 510}, CutCase{507, 511}, CutCase{508, 511},
                                           CutCase{2000, 511}));

struct ReplyCase {
  std::vector<std::string> chunks;
  size_t size;  // of the caller's buffer
  std::string into_buffer, onto_stream;
};

void PrintTo(const ReplyCase& c, std::ostream* os) {
  *os << c.chunks.size() << " chunks, buffer of " << c.size;
  for (const std::string& chunk : c.chunks) *os << ", " << ::testing::PrintToString(chunk.substr(0, 16));
}

class XmldbReply : public XmldbTest, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(XmldbReply, IntoBuffer) {
  const ReplyCase& c = GetParam();
  FakeDaemon daemon(sock_);
  daemon.serve(c.chunks);
  std::string text;
  EXPECT_EQ(to_buffer(c.size, [this](char* b, size_t n) { return xmldbc_get(sock_.c_str(), 0, "/x", b, n); }, &text),
            0);
  daemon.request();
  EXPECT_EQ(text, c.into_buffer);
}

TEST_P(XmldbReply, OntoStream) {
  const ReplyCase& c = GetParam();
  FakeDaemon daemon(sock_);
  daemon.serve(c.chunks);
  std::string text;
  EXPECT_EQ(to_stream([this](FILE* f) { return xmldbc_get_wb(sock_.c_str(), 0, "/x", f); }, &text), 0);
  daemon.request();
  EXPECT_EQ(text, c.onto_stream);
}

const std::string kLong = std::string(3000, 'L');

INSTANTIATE_TEST_SUITE_P(
    Table, XmldbReply,
    ::testing::Values(ReplyCase{{"hello\0"s}, 64, "hello", "hello"},
                      ReplyCase{{"hello"}, 64, "hello", "hello"},  // ended by closing
                      ReplyCase{{}, 64, "", ""},
                      // The buffer reader keeps only the first read, deliberately.
                      ReplyCase{{"hel", "lo\0"s}, 64, "hel", "hello"},
                      ReplyCase{{"hel", "lo"}, 64, "hel", "hello"},
                      ReplyCase{{"hello world\0"s}, 6, "hello", "hello world"},
                      ReplyCase{{"hello"}, 1, "", "hello"},
                      // Only a zero as a chunk's last byte ends the stream copy.
                      ReplyCase{{"ab\0cd"s, "ef\0"s}, 64, "ab", "ab\0cdef"s},
                      ReplyCase{{kLong + '\0'}, 4096, kLong, kLong}));

// A null path must reach /var/run/xmldb_sock. Checked in a child with its own
// mount namespace and a private /var/run, so the host's daemon is untouched.
TEST(XmldbDefaultPath, NullPathUsesVarRunSocket) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/var/run", "tmpfs", 0, nullptr) != 0)
      _exit(2);
    int ok;
    {
      FakeDaemon daemon("/var/run/xmldb_sock");
      daemon.serve({status_reply(5)});
      ok = xmldbc_set(nullptr, 0, "/n", "v") == 5 && daemon.request().payload == "/n v\0"s;
    }
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
