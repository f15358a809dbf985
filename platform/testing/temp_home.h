#pragma once
// Tests run with HOME and USER pointing at a fresh temporary folder, so that
// nothing a test does can reach the real home.  Header-only test helper.

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

namespace gab::testing {

class TempHome {
 public:
  explicit TempHome(const char* user = "tester") {
    saveHome_ = Get("HOME");
    saveUser_ = Get("USER");
    std::string tmpl = (std::filesystem::temp_directory_path() / "gabfolio-home-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) std::abort();  // never fall back to the real home
    path_ = tmpl;
    setenv("HOME", path_.c_str(), 1);
    SetUser(user);
  }
  ~TempHome() {
    Restore("HOME", saveHome_);
    Restore("USER", saveUser_);
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& path() const { return path_; }

  // Null unsets USER.
  static void SetUser(const char* user) {
    if (user) {
      setenv("USER", user, 1);
    } else {
      unsetenv("USER");
    }
  }

  // Writes a file under the home, creating its folders.
  void Write(const std::string& relative, std::string_view bytes) const {
    std::filesystem::path p = std::filesystem::path(path_) / relative;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
  }
  void Remove(const std::string& relative) const {
    std::error_code ec;
    std::filesystem::remove(std::filesystem::path(path_) / relative, ec);
  }

 private:
  static std::optional<std::string> Get(const char* name) {
    const char* v = getenv(name);
    return v ? std::optional<std::string>(v) : std::nullopt;
  }
  static void Restore(const char* name, const std::optional<std::string>& v) {
    if (v) {
      setenv(name, v->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }
  std::string path_;
  std::optional<std::string> saveHome_, saveUser_;
};

}  // namespace gab::testing
