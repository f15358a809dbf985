#include "agent/tests/test_support.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace gab::test {
namespace {

namespace fs = std::filesystem;

std::string& HomeStorage() {
  static std::string home;
  return home;
}

// Points HOME at a fresh folder and keeps the tests off the user's session
// bus; runs before any test touches the preferences.
class TemporaryHome : public ::testing::Environment {
 public:
  void SetUp() override {
    char tmpl[] = "/tmp/gabfolio-agent-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    HomeStorage() = tmpl;
    setenv("HOME", tmpl, 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/gabfolio-test-bus", 1);
    setenv("XDG_RUNTIME_DIR", tmpl, 1);
    // Orphaned parsers of the signal tests are re-parented to us and reaped.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    ResetHome();
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(HomeStorage(), ec);
  }
};

[[maybe_unused]] auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new TemporaryHome);

}  // namespace

const std::string& Home() {
  return HomeStorage();
}
std::string PrefsPath() {
  return Home() + "/Library/Preferences/com.tidewrack.gabfolio.plist";
}
std::string TranscriptDir() {
  return Home() + "/Documents/iChats";
}
std::string DataDir() {
  return Home() + "/Library/Gabfolio";
}

void ResetHome(bool dataFolder, bool transcriptFolder) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(Home(), ec)) fs::remove_all(entry.path(), ec);
  if (dataFolder) fs::create_directories(DataDir());
  if (transcriptFolder) fs::create_directories(TranscriptDir());
}

void WritePrefs(const std::map<std::string, PrefValue>& values) {
  std::error_code ec;
  fs::remove(PrefsPath(), ec);
  if (values.empty()) return;
  Preferences prefs(PrefsPath());
  for (const auto& [k, v] : values) prefs.SetAppValue(k, v);
  ASSERT_TRUE(prefs.AppSynchronize());
}

std::optional<PrefValue> ReadPref(const std::string& key) {
  Preferences prefs(PrefsPath());
  return prefs.CopyAppValue(key);
}

std::string WriteScript(const std::string& name, const std::string& body) {
  std::string path = Home() + "/" + name;
  std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
  chmod(path.c_str(), 0755);
  return path;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream ss(text);
  for (std::string line; std::getline(ss, line);) out.push_back(line);
  return out;
}

int CountOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

bool WaitFor(const std::function<bool()>& done, double seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace gab::test
