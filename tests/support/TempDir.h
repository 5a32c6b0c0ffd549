// A fresh directory under /tmp, removed with everything in it at the end of the scope.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace quorvix::test {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "quorvix-test") {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (::mkdtemp(pattern.data()))
      path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  bool ok() const { return !path_.empty(); }

 private:
  std::filesystem::path path_;
};

}  // namespace quorvix::test
