// A throwaway folder put in front of PATH, holding shell-script stand-ins for
// external programs. PATH and the working folder are restored on destruction.
#ifndef MEDIAWALK_TESTS_PLATFORM_STUB_PROGRAM_H_
#define MEDIAWALK_TESTS_PLATFORM_STUB_PROGRAM_H_

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

class StubPath {
 public:
  // With keep_system_path false, PATH holds the stub folder alone.
  explicit StubPath(bool keep_system_path = true) {
    char tmpl[] = "/tmp/mediawalk_stub_XXXXXX";
    if (mkdtemp(tmpl) != nullptr) dir_ = tmpl;
    const char* old = getenv("PATH");
    had_path_ = old != nullptr;
    if (had_path_) old_path_ = old;
    const std::string path = keep_system_path ? dir_ + ":/usr/bin:/bin" : dir_;
    setenv("PATH", path.c_str(), 1);
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) != nullptr) old_cwd_ = cwd;
  }
  ~StubPath() {
    if (had_path_) {
      setenv("PATH", old_path_.c_str(), 1);
    } else {
      unsetenv("PATH");
    }
    if (!old_cwd_.empty() && chdir(old_cwd_.c_str()) != 0) perror("chdir");
    RemoveAll();
  }
  StubPath(const StubPath&) = delete;
  void operator=(const StubPath&) = delete;

  const std::string& dir() const { return dir_; }
  std::string File(const std::string& name) const { return dir_ + "/" + name; }

  // Writes an executable /bin/sh script named name with the given body.
  void Program(const std::string& name, const std::string& body) const {
    Write(name, "#!/bin/sh\n" + body);
    chmod(File(name).c_str(), 0755);
  }
  void Write(const std::string& name, const std::string& text) const {
    FILE* f = fopen(File(name).c_str(), "wb");
    if (f == nullptr) return;
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
  }
  // The whole file, or "<missing>".
  std::string Read(const std::string& name) const {
    FILE* f = fopen(File(name).c_str(), "rb");
    if (f == nullptr) return "<missing>";
    std::string text;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    fclose(f);
    return text;
  }
  bool Exists(const std::string& name) const { return access(File(name).c_str(), F_OK) == 0; }
  // Makes the stub folder the working folder, so that a relative path
  // written by a stray command would land there.
  void EnterDir() const {
    if (chdir(dir_.c_str()) != 0) perror("chdir");
  }

 private:
  void RemoveAll() {
    if (dir_.empty()) return;
    DIR* d = opendir(dir_.c_str());
    if (d != nullptr) {
      while (struct dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") unlink(File(name).c_str());
      }
      closedir(d);
    }
    rmdir(dir_.c_str());
  }

  std::string dir_;
  std::string old_path_;
  std::string old_cwd_;
  bool had_path_ = false;
};

#endif  // MEDIAWALK_TESTS_PLATFORM_STUB_PROGRAM_H_
