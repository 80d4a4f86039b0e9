// Standard output gathered a page at a time: what a reader of the pipe gets, write by write.
#include "log/out_buffer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// Every line printed reaches the pipe whole, in order, pages of several lines ending at a line's
// end; the start of a line still unfinished at exit goes out last. A packet pipe shows each
// write apart.
TEST(OutBuffer, PagesEndAtLineEnds) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_DIRECT), 0);
  std::string printed;
  std::vector<std::string> lines;
  for (int i = 0; i < 40; ++i) lines.push_back(std::string(static_cast<size_t>(90 + 97 * (i % 23)), 'a' + i % 26));
  for (const std::string& line : lines) printed += line + "\n";
  printed += "unfinished";
  fflush(nullptr);  // nothing of the test's own output is left for the child to write
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    if (!out_buffer_start([](int) { _exit(3); })) _exit(2);
    for (const std::string& line : lines) puts(line.c_str());
    fputs("unfinished", stdout);
    exit(0);
  }
  close(fds[1]);
  std::string got;
  std::vector<std::string> writes;
  char packet[65536];
  for (ssize_t n; (n = read(fds[0], packet, sizeof packet)) > 0;) writes.emplace_back(packet, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  ASSERT_GT(writes.size(), 2u);
  ASSERT_LT(writes.size(), lines.size() / 2);
  for (size_t i = 0; i + 1 < writes.size(); ++i) EXPECT_EQ(writes[i].back(), '\n') << "write " << i;
  for (const std::string& w : writes) got += w;
  EXPECT_EQ(got, printed);
}

}  // namespace
