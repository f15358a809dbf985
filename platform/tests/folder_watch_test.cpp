#include "platform/folder_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "testing/temp_home.h"

namespace gab {
namespace {

namespace fs = std::filesystem;

class InotifySourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home_.Write("Documents/iChats/existing.chat", "x");
    home_.Write("Documents/iChats/Old/inside.chat", "x");
    fd_ = open(folder_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
    source_ = InotifyFolderSource::Create(fd_, folder_);
    ASSERT_TRUE(source_);
    change_ = KEvent{uintptr_t(fd_), kEvFiltVnode, kEvAdd | kEvClear, kNoteWrite | kNoteExtend, 0,
                     nullptr};
    // The first call registers the watch; nothing has happened yet.
    ASSERT_EQ(Wait(), 0);
  }
  void TearDown() override {
    source_.reset();
    close(fd_);
  }
  int Wait(double seconds = 0.2) {
    timespec t{time_t(seconds), long((seconds - time_t(seconds)) * 1e9)};
    return source_->Wait(change_, &event_, t);
  }

  testing::TempHome home_;
  const std::string folder_ = home_.path() + "/Documents/iChats";
  int fd_ = -1;
  std::unique_ptr<InotifyFolderSource> source_;
  KEvent change_{}, event_{};
};

TEST_F(InotifySourceTest, ChangesOfTheFolderEntriesAreOneWriteEach) {
  struct Step {
    const char* what;
    std::function<void(const std::string&)> act;
    int result;
  };
  const Step steps[] = {
      {"create", [](auto& f) { std::ofstream(f + "/new.chat") << "x"; }, 1},
      {"nothing", [](auto&) {}, 0},
      {"write in place", [](auto& f) { std::ofstream(f + "/existing.chat", std::ios::app) << "y"; },
       0},
      {"rename", [](auto& f) { fs::rename(f + "/new.chat", f + "/renamed.chat"); }, 1},
      {"delete", [](auto& f) { fs::remove(f + "/renamed.chat"); }, 1},
      {"inside a subfolder: create", [](auto& f) { std::ofstream(f + "/Old/more.chat") << "x"; },
       0},
      {"inside a subfolder: delete", [](auto& f) { fs::remove(f + "/Old/inside.chat"); }, 0},
      {"make a subfolder", [](auto& f) { fs::create_directory(f + "/New"); }, 1},
      {"burst of three",
       [](auto& f) {
         for (const char* n : {"/1", "/2", "/3"}) std::ofstream(f + n) << "x";
       },
       1},
      {"burst drained", [](auto&) {}, 0},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.what);
    event_ = KEvent{};
    event_.fflags = 0x999;  // a stale record stays as it is when nothing arrives
    s.act(folder_);
    ASSERT_EQ(Wait(), s.result);
    if (s.result == 1) {
      EXPECT_EQ(event_.ident, uintptr_t(fd_));
      EXPECT_EQ(event_.filter, kEvFiltVnode);
      EXPECT_EQ(event_.flags, kEvAdd | kEvClear);
      EXPECT_EQ(event_.fflags, kNoteWrite);
      EXPECT_EQ(event_.data, 0);
    } else {
      EXPECT_EQ(event_.fflags, 0x999u);
    }
  }
}

TEST(InotifySource, UnwatchableFolderDeliversEventErrorOnceThenWaits) {
  char tmpl[] = "/tmp/gabfolio-watch-file-XXXXXX";
  int fd = mkstemp(tmpl);
  ASSERT_GE(fd, 0);
  auto source = InotifyFolderSource::Create(fd, tmpl);
  ASSERT_TRUE(source);
  KEvent change{uintptr_t(fd), kEvFiltVnode, kEvAdd | kEvClear, kNoteWrite | kNoteExtend, 0,
                nullptr};
  KEvent event;
  ASSERT_EQ(source->Wait(change, &event, timespec{0, 0}), 1);
  EXPECT_EQ(event.flags, kEvError);
  EXPECT_EQ(event.data, ENOTDIR);
  // Later cycles wait out their time with no new event (the caller keeps the
  // stale error record), instead of spinning.
  auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(source->Wait(change, &event, timespec{0, 200'000'000}), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
  close(fd);
  unlink(tmpl);
}

}  // namespace
}  // namespace gab
