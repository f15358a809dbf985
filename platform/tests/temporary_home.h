#pragma once
// Test helper: HOME points at a fresh temporary folder for the life of the
// object, so no test touches the real data folder.

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

namespace gab::testing {

class TemporaryHome {
 public:
  TemporaryHome() {
    char tmpl[] = "/tmp/gabfolio-home-XXXXXX";
    if (const char* d = mkdtemp(tmpl)) path_ = d;
    if (const char* old = std::getenv("HOME")) old_ = old;
    setenv("HOME", path_.c_str(), 1);
  }
  ~TemporaryHome() {
    if (old_)
      setenv("HOME", old_->c_str(), 1);
    else
      unsetenv("HOME");
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TemporaryHome(const TemporaryHome&) = delete;
  TemporaryHome& operator=(const TemporaryHome&) = delete;

  const std::string& path() const { return path_; }
  std::string DataFolder() const { return path_ + "/Library/Gabfolio"; }

 private:
  std::string path_;
  std::optional<std::string> old_;
};

}  // namespace gab::testing
