// A throwaway folder tree under /tmp, removed with the object.
#ifndef MEDIAWALK_TESTS_TEMP_TREE_H_
#define MEDIAWALK_TESTS_TEMP_TREE_H_

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

class TempTree {
 public:
  TempTree() {
    char templ[] = "/tmp/mwtestXXXXXX";
    if (mkdtemp(templ) != nullptr) root_ = std::string(templ) + "/";
  }
  ~TempTree() {
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
  }
  TempTree(const TempTree&) = delete;
  void operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }  // ends in "/"
  bool ok() const { return !root_.empty(); }
  // Creates folder `rel` and its parents; returns its path ending in "/".
  std::string dir(const std::string& rel) const {
    std::filesystem::create_directories(root_ + rel);
    return root_ + rel + "/";
  }
  // Creates file `rel` holding `content`; returns its path.
  std::string file(const std::string& rel, const std::string& content = "") const {
    std::ofstream(root_ + rel, std::ios::binary) << content;
    return root_ + rel;
  }
  bool link(const std::string& target, const std::string& rel) const {
    return symlink(target.c_str(), (root_ + rel).c_str()) == 0;
  }

 private:
  std::string root_;
};

#endif  // MEDIAWALK_TESTS_TEMP_TREE_H_
