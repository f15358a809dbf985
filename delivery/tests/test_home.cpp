#include "delivery/tests/test_home.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "delivery/tests/smtp_fixture.h"

namespace gab::testing {

namespace {

class HomeEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { TestHome(); }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(TestHome(), ec);
  }
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new HomeEnvironment);

}  // namespace

const std::string& TestHome() {
  static const std::string home = [] {
    std::string h = MakeTempDir("home");
    setenv("HOME", h.c_str(), 1);
    // Alerts must not reach the desktop of whoever runs the tests.
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    std::filesystem::create_directories(h + "/Library/Gabfolio");
    return h;
  }();
  return home;
}

std::string PrefsPath() {
  return TestHome() + "/Library/Preferences/" + Preferences::kDomain + ".plist";
}

void ResetPrefs(const std::map<std::string, PrefValue>& values) {
  TestHome();
  auto& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  for (const char* key :
       {"emailAddress", "emailOutgoing", "emailServer", "emailPort", "emailNeedsUsername",
        "emailUsername", "emailPassword", "sendEmails", "handleURLs", "handleImages",
        "forceUniqueSubjects", "subjectNumber", "reportThis", "errorStatus", "emailFails"})
    prefs.SetAppValue(key, std::nullopt);
  for (const auto& [key, value] : values) prefs.SetAppValue(key, value);
  prefs.AppSynchronize();
}

std::optional<PrefValue> StoredPref(const std::string& key) {
  Preferences fresh(PrefsPath());
  return fresh.CopyAppValue(key);
}

std::vector<std::string> LogMessages(const std::string& captured) {
  std::vector<std::string> out;
  std::istringstream in(captured);
  std::string line;
  while (std::getline(in, line)) {
    size_t mark = line.find("] ");
    if (mark != std::string::npos) out.push_back(line.substr(mark + 2));
  }
  return out;
}

}  // namespace gab::testing
