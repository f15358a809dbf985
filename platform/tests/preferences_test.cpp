#include "platform/preferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/files.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

namespace fs = std::filesystem;

class PreferencesTest : public ::testing::Test {
 protected:
  testing::TempHome home_;
  const std::string root_ = home_.path();
  const std::string path_ = root_ + "/Library/Preferences/com.tidewrack.gabfolio.plist";
};

TEST(PreferenceValues, ReadLikeNSNumberAndNSString) {
  using V = std::optional<PrefValue>;
  struct Case {
    V value;
    bool asBool;
    int32_t asInt;
  };
  const Case cases[] = {
      {std::nullopt, false, 0},
      {PrefValue(true), true, 1},
      {PrefValue(int64_t(3)), true, 3},
      {PrefValue(int64_t(0x100000003)), true, 3},  // NSNumber truncates to int
      {PrefValue(2.9), true, 2},
      {PrefValue(-2.9), true, -2},
      {PrefValue(0.4), true, 0},
      {PrefValue(1e12), true, INT32_MAX},
      {PrefValue(std::string("YES")), true, 0},
      {PrefValue(std::string("T")), true, 0},
      {PrefValue(std::string("NO")), false, 0},
      {PrefValue(std::string("  42abc")), true, 42},
      {PrefValue(std::string("\t-7")), true, -7},
      {PrefValue(std::string("0")), false, 0},
      {PrefValue(std::string("abc12")), false, 0},
      {PrefValue(std::string(" - 5")), false, 0},
      {PrefValue(std::string("99999999999")), true, INT32_MAX},
      {PrefValue(std::string("-99999999999")), true, INT32_MIN},
      {PrefValue(PrefOther{}), false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.value));
    EXPECT_EQ(BoolValue(c.value), c.asBool);
    EXPECT_EQ(IntValue(c.value), c.asInt);
  }
  EXPECT_EQ(StringValue(PrefValue(std::string("x"))), "x");
  EXPECT_EQ(StringValue(PrefValue(int64_t(1))), std::nullopt);
  EXPECT_EQ(StringValue(std::nullopt), std::nullopt);
}

TEST_F(PreferencesTest, AbsentFileReadsAllAbsentAndCreatesNothing) {
  Preferences prefs(path_);
  EXPECT_EQ(prefs.CopyAppValue("errorStatus"), std::nullopt);
  EXPECT_FALSE(prefs.Bool("sendEmails"));
  EXPECT_EQ(prefs.Int("emailFails"), 0);
  EXPECT_EQ(prefs.String("parserPath"), std::nullopt);
  EXPECT_TRUE(prefs.AppSynchronize());
  EXPECT_EQ(prefs.CopyAppValue("errorStatus"), std::nullopt);
  EXPECT_FALSE(fs::exists(root_ + "/Library"));
}

TEST_F(PreferencesTest, WritesPrivateXmlAndKeepsValuesItDoesNotKnow) {
  {
    Preferences prefs(path_);
    prefs.SetAppValue("emailFails", PrefValue(int64_t(2)));
    prefs.SetAppValue("reportThis", PrefValue(std::string("timeout")));
    prefs.SetAppValue("sendEmails", PrefValue(true));
    prefs.SetAppValue("ratio", PrefValue(1.5));
    ASSERT_TRUE(prefs.AppSynchronize());
  }
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(stat((root_ + "/Library/Preferences").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  auto text = ReadWholeFile(path_);
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<?xml"), std::string::npos);
  EXPECT_NE(text->find("<key>reportThis</key>"), std::string::npos);

  // Another tool adds an array; our next write keeps it.
  std::string withArray = *text;
  withArray.insert(withArray.find("<key>emailFails</key>"),
                   "<key>list</key><array><string>a</string></array>\n");
  ASSERT_TRUE(WriteFileAtomically(path_, withArray, 0600));
  Preferences again(path_);
  EXPECT_EQ(again.CopyAppValue("list"), std::optional<PrefValue>(PrefOther{}));
  EXPECT_EQ(again.Int("emailFails"), 2);
  EXPECT_EQ(again.String("reportThis"), "timeout");
  EXPECT_TRUE(again.Bool("sendEmails"));
  EXPECT_EQ(again.CopyAppValue("ratio"), std::optional<PrefValue>(1.5));
  again.SetAppValue("reportThis", std::nullopt);
  ASSERT_TRUE(again.AppSynchronize());
  text = ReadWholeFile(path_);
  EXPECT_NE(text->find("<key>list</key>"), std::string::npos);
  EXPECT_EQ(text->find("reportThis"), std::string::npos);

  // Storing what the file holds already writes nothing (the agent stores
  // "errorStatus" before every entry of a pass); a real change still does.
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  const ino_t before = st.st_ino;
  again.SetAppValue("emailFails", PrefValue(int64_t(2)));
  ASSERT_TRUE(again.AppSynchronize());
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_ino, before);
  again.SetAppValue("emailFails", PrefValue(int64_t(3)));
  ASSERT_TRUE(again.AppSynchronize());
  EXPECT_EQ(Preferences(path_).Int("emailFails"), 3);
}

TEST_F(PreferencesTest, ReadsBinaryPlistWrittenByAnotherTool) {
  fs::create_directories(fs::path(path_).parent_path());
  std::string xml = root_ + "/in.plist";
  home_.Write("in.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
<key>errorStatus</key><integer>4</integer>
<key>parserPath</key><string>/usr/bin/true</string>
<key>sendEmails</key><true/>
</dict></plist>
)");
  std::string cmd = "plistutil -i '" + xml + "' -o '" + path_ + "' -f bin";
  if (std::system(cmd.c_str()) != 0) GTEST_SKIP() << "plistutil (libplist-utils) is not available";
  auto bytes = ReadWholeFile(path_);
  ASSERT_TRUE(bytes);
  ASSERT_EQ(bytes->rfind("bplist00", 0), 0u);
  Preferences prefs(path_);
  EXPECT_EQ(prefs.Int("errorStatus"), 4);
  EXPECT_EQ(prefs.String("parserPath"), "/usr/bin/true");
  EXPECT_TRUE(prefs.Bool("sendEmails"));
}

TEST_F(PreferencesTest, UnreadableFileReadsAbsentAndIsKeptAsideOnWrite) {
  fs::create_directories(fs::path(path_).parent_path());
  std::string deep = "<plist>";
  for (int i = 0; i < 200000; ++i) deep += "<array>";
  // Cut short, and nested deeper than libplist can free without running out
  // of stack.
  for (const std::string& garbage : {std::string("<plist><dict><key>broken"), deep}) {
    ASSERT_TRUE(WriteFileAtomically(path_, garbage, 0600));
    Preferences prefs(path_);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(prefs.CopyAppValue("emailFails"), std::nullopt);
    prefs.SetAppValue("emailFails", PrefValue(int64_t(1)));
    ASSERT_TRUE(prefs.AppSynchronize());
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(ReadWholeFile(path_ + ".unreadable"), garbage);
    EXPECT_EQ(Preferences(path_).Int("emailFails"), 1);
  }
}

TEST_F(PreferencesTest, SynchroniseSeesOtherWritersAndKeepsOwnChanges) {
  Preferences a(path_), b(path_);
  a.SetAppValue("errorStatus", PrefValue(int64_t(4)));
  ASSERT_TRUE(a.AppSynchronize());
  EXPECT_EQ(b.Int("errorStatus"), 4);  // first read
  b.SetAppValue("emailFails", PrefValue(int64_t(3)));
  a.SetAppValue("errorStatus", PrefValue(int64_t(0)));
  ASSERT_TRUE(a.AppSynchronize());
  EXPECT_EQ(b.Int("errorStatus"), 4);  // b's copy until it synchronises
  ASSERT_TRUE(b.AppSynchronize());
  EXPECT_EQ(b.Int("errorStatus"), 0);
  EXPECT_EQ(b.Int("emailFails"), 3);
  ASSERT_TRUE(a.AppSynchronize());
  EXPECT_EQ(a.Int("emailFails"), 3);

  // The file removed by someone else: everything reads absent again.
  fs::remove(path_);
  ASSERT_TRUE(a.AppSynchronize());
  EXPECT_EQ(a.CopyAppValue("emailFails"), std::nullopt);
}

TEST_F(PreferencesTest, ConcurrentProcessesLoseNothing) {
  constexpr int kRounds = 300;
  pid_t children[2];
  for (int who = 0; who < 2; ++who) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      Preferences prefs(path_);
      std::string prefix = who == 0 ? "left" : "right";
      bool ok = true;
      for (int i = 0; i < kRounds; ++i) {
        prefs.SetAppValue(prefix + std::to_string(i), PrefValue(int64_t(i)));
        prefs.SetAppValue(prefix + "Count", PrefValue(int64_t(i + 1)));
        ok = prefs.AppSynchronize() && ok;
      }
      _exit(ok ? 0 : 1);
    }
    children[who] = pid;
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  Preferences prefs(path_);
  for (const char* prefix : {"left", "right"}) {
    EXPECT_EQ(prefs.Int(std::string(prefix) + "Count"), kRounds) << prefix;
    int missing = 0;
    for (int i = 0; i < kRounds; ++i)
      if (prefs.Int(prefix + std::to_string(i)) != i) ++missing;
    EXPECT_EQ(missing, 0) << prefix;
  }
}

}  // namespace
}  // namespace gab
