// A throwaway folder put in front of PATH (or alone on it) for shell-script stand-ins of external
// programs. PATH and the working folder are restored on destruction.
#ifndef MEDIAWALK_TESTS_PLATFORM_STUB_PROGRAM_H_
#define MEDIAWALK_TESTS_PLATFORM_STUB_PROGRAM_H_

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class StubPath {
 public:
  explicit StubPath(bool keep_system_path = true) {
    char tmpl[] = "/tmp/mediawalk_stub_XXXXXX";
    if (mkdtemp(tmpl) != nullptr) dir_ = tmpl;
    had_path_ = getenv("PATH") != nullptr;
    if (had_path_) old_path_ = getenv("PATH");
    setenv("PATH", (keep_system_path ? dir_ + ":/usr/bin:/bin" : dir_).c_str(), 1);
    old_cwd_ = std::filesystem::current_path();
  }
  ~StubPath() {
    had_path_ ? setenv("PATH", old_path_.c_str(), 1) : unsetenv("PATH");
    if (chdir(old_cwd_.c_str()) != 0) perror("chdir");
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
  }
  StubPath(const StubPath&) = delete;
  void operator=(const StubPath&) = delete;

  const std::string& dir() const { return dir_; }
  std::string File(const std::string& name) const { return dir_ + "/" + name; }
  // Writes an executable /bin/sh script `name` with the given body.
  void Program(const std::string& name, const std::string& body) const {
    Write(name, "#!/bin/sh\n" + body);
    chmod(File(name).c_str(), 0755);
  }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(File(name), std::ios::binary) << text;
  }
  // The whole file, or "<missing>".
  std::string Read(const std::string& name) const {
    std::ifstream in(File(name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return in ? text.str() : "<missing>";
  }
  bool Exists(const std::string& name) const { return access(File(name).c_str(), F_OK) == 0; }
  // Makes the stub folder the working folder, where a stray command's relative path would land.
  void EnterDir() const {
    if (chdir(dir_.c_str()) != 0) perror("chdir");
  }

 private:
  std::string dir_, old_path_, old_cwd_;
  bool had_path_ = false;
};

#endif  // MEDIAWALK_TESTS_PLATFORM_STUB_PROGRAM_H_
