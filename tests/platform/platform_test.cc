// What the program takes from the system: opening share files, running the detector without a
// shell, and the xmldb client's requests and replies.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "../case_table.h"
#include "../temp_tree.h"
#include "platform/holders.h"
#include "platform/read_ahead.h"
#include "platform/regular_file.h"
#include "platform/spawn.h"
#include "platform/xmldb.h"
#include "stub_program.h"

namespace {

// Share files are opened without blocking, following no link, and only when regular.
TABLE_TEST(RegularFile, "regular_file.tsv") {
  TempTree tree;
  tree.file("song.mp3", "xyz");
  tree.link("song.mp3", "link.mp3");
  tree.dir("folder.jpg");
  mkfifo((tree.root() + "fifo.mp3").c_str(), 0600);  // no writer: opening it must not wait
  const std::string path = tree.root() + c.at(0);
  errno = 0;
  const int fd = open_regular(path.c_str());
  EXPECT_EQ(fd < 0 ? strerrorname_np(errno) : "0", c.at(1));  // by name: the numbers differ on MIPS
  FILE* f = fopen_regular(path.c_str());
  EXPECT_EQ(f != nullptr, c.at(1) == "0");
  if (fd >= 0) close(fd);
  if (f) fclose(f);
}

// The helpers listing ahead of the count go into the folders the count goes into, as far as
// their bounds reach, and into nothing else.
TABLE_TEST(ListAhead, "list_ahead.tsv") {
  TempTree tree;
  std::istringstream entries(c.at(0));
  for (std::string e; entries >> e;) {
    const size_t arrow = e.find("->");
    if (e[0] == '*') {
      for (long i = 0; i < strtol(e.c_str() + 1, nullptr, 10); ++i) tree.dir("w" + std::to_string(i));
    } else if (arrow != std::string::npos) {
      tree.link(e.substr(arrow + 2), e.substr(0, arrow));
    } else if (e.back() == '/') {
      tree.dir(e);
    } else {
      tree.file(e);
    }
  }
  Fd root(open(tree.root().c_str(), O_RDONLY | O_DIRECTORY));
  const size_t len = tree.root().size();
  list_ahead_start(root.fd, len, len + static_cast<size_t>(c.num(1)), [](const char* name) { return name[0] != '.'; });
  EXPECT_EQ(list_ahead_finish(), static_cast<size_t>(c.num(2)));
}

// The detector's answer: what it printed within its time, 18 bytes at most, whatever its end.
TABLE_TEST(Spawn, "spawn.tsv") {
  StubPath stub;
  if (c.at(0) != "-") stub.Program("detect_char_encode", c.at(0));
  char out[20];
  memset(out, 'X', sizeof out);
  const int limit = c.at(2).empty() ? kHelperTimeLimitMs : int(c.num(2));
  EXPECT_EQ(spawn_read_output("detect_char_encode", c.at(1).c_str(), out, sizeof out, 18, limit), c.at(0) != "-");
  EXPECT_EQ(std::string(out, strnlen(out, sizeof out)), c.at(3));
  EXPECT_EQ(out[18] | out[19], 0);
}

// Whatever the detector started is killed with it.
TEST(Spawn, KillsTheHelpersProcessGroup) {
  StubPath stub;
  stub.Program("detect_char_encode", "sleep 300 >/dev/null 2>&1 &\nprintf '%s' $!\n");
  char out[20];
  ASSERT_TRUE(spawn_read_output("detect_char_encode", "x", out, sizeof out, 18));
  const std::string stat = "/proc/" + std::string(out) + "/stat";
  std::string state = "S";
  for (int i = 0; i < 1000 && state != "Z" && !state.empty(); ++i) {  // a guard; it goes at once
    std::string line;
    std::getline(std::ifstream(stat), line);
    state = line.empty() ? "" : line.substr(line.rfind(')') + 2, 1);
    if (state != "Z" && !state.empty()) usleep(10000);
  }
  EXPECT_TRUE(state.empty() || state == "Z") << "the helper's child still runs";
  if (atoi(out) > 1) kill(atoi(out), SIGKILL);
}

// A daemon that records one request (12-byte header, then the payload) and sends its reply.
struct Daemon {
  std::string path, request;
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  std::thread thread;
  Daemon(const std::string& p, const std::string& reply) : path(p) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", p.c_str());
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(fd, 1);
    thread = std::thread([this, reply] {
      const int conn = accept(fd, nullptr, nullptr);
      char buf[4096];
      for (ssize_t n; request.size() < 12 || request.size() < 12 + size_t(uint8_t(request[2]) | uint8_t(request[3]) << 8);) {
        if ((n = read(conn, buf, sizeof buf)) <= 0) break;
        request.append(buf, n);
      }
      send(conn, reply.data(), reply.size(), MSG_NOSIGNAL);
      close(conn);
    });
  }
  ~Daemon() {
    close(fd);
    unlink(path.c_str());
  }
};

using Status = int (*)(const char*, uint32_t, const char*);
using Stream = int (*)(const char*, uint32_t, const char*, FILE*);
using Buffer = int (*)(const char*, uint32_t, const char*, char*, size_t);
const std::map<std::string, Status> kStatus = {{"act3", xmldbc_act3}, {"act4", xmldbc_act4}, {"act5", xmldbc_act5},
    {"act6", xmldbc_act6}, {"act12", xmldbc_act12}, {"act13", xmldbc_act13}};
const std::map<std::string, Stream> kStream = {{"get_wb", xmldbc_get_wb}, {"act10_wb", xmldbc_act10_wb},
    {"act14_wb", xmldbc_act14_wb}};
const std::map<std::string, Buffer> kBuffer = {{"get", xmldbc_get}, {"act10", xmldbc_act10}};

// One request per row: its header and payload as sent, the result and the text read back.
TABLE_TEST(Xmldb, "xmldb.tsv") {
  TempTree tree;
  const std::string sock = tree.root() + "sock", k = c.at(0), node = c.at(1), value = c.at(2);
  std::unique_ptr<Daemon> daemon(c.at(3) == "-" ? nullptr : new Daemon(sock, c.at(3)));
  std::string text;
  int rc = -2;
  if (kStatus.count(k)) rc = kStatus.at(k)(sock.c_str(), 0xA1B2C3D4, node.c_str());
  if (k == "set" || k == "set11")
    rc = (k == "set" ? xmldbc_set : xmldbc_set11)(sock.c_str(), 0xA1B2C3D4, node.c_str(), value.c_str());
  if (kBuffer.count(k)) {
    std::string buf(c.num(6) ? c.num(6) : 64, 'q');
    rc = kBuffer.at(k)(sock.c_str(), 0xA1B2C3D4, node.c_str(), &buf[0], buf.size());
    text = buf.substr(0, strnlen(buf.c_str(), buf.size()));
  }
  if (kStream.count(k)) {
    char* data = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&data, &size);
    rc = kStream.at(k)(sock.c_str(), 0xA1B2C3D4, node.c_str(), out);
    fclose(out);
    text.assign(data, size);
    free(data);
  }
  EXPECT_EQ(rc, c.num(5));
  EXPECT_EQ(text, c.at(7));
  if (daemon) {
    daemon->thread.join();
    EXPECT_EQ(daemon->request, c.at(4));
  }
}

}  // namespace
