// The preferences domain binds to the home folder of its first use for the
// whole process.  Tests change HOME for every case, so the domain is bound
// once here to a home of its own, removed when the tests end; otherwise a
// report written after a test's home is gone would bring the folder back.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "platform/preferences.h"

namespace {

class PreferencesHome : public ::testing::Environment {
 public:
  void SetUp() override {
    char tmpl[] = "/tmp/gabfolio-library-prefs-XXXXXX";
    home_ = mkdtemp(tmpl);
    std::string saved = getenv("HOME") ? getenv("HOME") : "";
    setenv("HOME", home_.c_str(), 1);
    gab::Preferences::Shared();
    setenv("HOME", saved.c_str(), 1);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(home_, ec);
  }

 private:
  std::string home_;
};

const auto* const kRegistered = ::testing::AddGlobalTestEnvironment(new PreferencesHome);

}  // namespace
