#include "testing/temp_home.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/files.h"

namespace gab::testing {

namespace fs = std::filesystem;

namespace {

const char* const kSaved[] = {"HOME", "USER", "TZ"};

void Restore(const char* name, const std::optional<std::string>& value) {
  value ? setenv(name, value->c_str(), 1) : unsetenv(name);
}

}  // namespace

TempHome::TempHome(const char* user) {
  for (int i = 0; i < 3; ++i)
    if (const char* v = getenv(kSaved[i])) saved_[i] = v;
  std::string tmpl = (fs::temp_directory_path() / "gabfolio-home-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) std::abort();  // never fall back to the real home
  path_ = tmpl;
  setenv("HOME", path_.c_str(), 1);
  SetUser(user);
  setenv("TZ", "America/New_York", 1);
  tzset();
}

TempHome::~TempHome() {
  for (int i = 0; i < 3; ++i) Restore(kSaved[i], saved_[i]);
  tzset();
  std::error_code ec;
  // A test may have taken the owner's rights away somewhere inside.
  for (auto it = fs::recursive_directory_iterator(path_, ec); !ec && it != fs::end(it);
       it.increment(ec))
    if (it->is_directory(ec) && !it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path_, ec);
}

void TempHome::SetUser(const char* user) {
  user ? setenv("USER", user, 1) : unsetenv("USER");
}

void TempHome::Write(const std::string& relative, std::string_view bytes) const {
  fs::path p = fs::path(path_) / relative;
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), std::streamsize(bytes.size()));
}

std::optional<std::string> TempHome::Read(const std::string& relative) const {
  return ReadWholeFile(path_ + "/" + relative);
}

void TempHome::Put(const std::string& relative, std::string_view bytes) const {
  Write("Library/Gabfolio/" + relative, bytes);
}

std::optional<std::string> TempHome::Get(const std::string& relative) const {
  return Read("Library/Gabfolio/" + relative);
}

bool TempHome::Has(const std::string& relative) const {
  return FileExists(data() + "/" + relative);
}

std::vector<std::string> TempHome::AllFiles() const {
  std::vector<std::string> out;
  for (auto& e : fs::recursive_directory_iterator(path_))
    if (!e.is_directory()) out.push_back(fs::relative(e.path(), path_).string());
  std::sort(out.begin(), out.end());
  return out;
}

void TempHome::Reset(bool dataFolder, bool transcriptFolder) const {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(path_, ec)) fs::remove_all(e.path(), ec);
  if (dataFolder) fs::create_directories(data());
  if (transcriptFolder) fs::create_directories(transcripts());
}

std::string TempHome::WriteScript(const std::string& relative, const std::string& body) const {
  Write(relative, "#!/bin/sh\n" + body + "\n");
  fs::permissions(path_ + "/" + relative, fs::perms::owner_all);
  return path_ + "/" + relative;
}

LibraryHome::LibraryHome() {
  fs::create_directories(data() + "/Images");
}

const TempHome& ProcessHome() {
  static const TempHome* home = [] {
    static TempHome h;
    // No alert reaches a desktop, and no chat client window is asked about.
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/gabfolio-test-bus", 1);
    setenv("XDG_RUNTIME_DIR", h.path().c_str(), 1);
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    Preferences::Shared();
    return &h;
  }();
  return *home;
}

std::string PrefsPath() {
  return std::string(getenv("HOME")) + "/Library/Preferences/" + Preferences::kDomain + ".plist";
}

void WritePrefs(const std::map<std::string, PrefValue>& values) {
  std::error_code ec;
  fs::remove(PrefsPath(), ec);
  if (values.empty()) return;
  Preferences prefs(PrefsPath());
  for (const auto& [k, v] : values) prefs.SetAppValue(k, v);
  if (!prefs.AppSynchronize()) std::abort();
}

std::optional<PrefValue> ReadPref(const std::string& key) {
  return Preferences(PrefsPath()).CopyAppValue(key);
}

void ResetPrefs(const std::map<std::string, PrefValue>& values) {
  WritePrefs(values);
  Preferences::Shared().AppSynchronize();
}

}  // namespace gab::testing
