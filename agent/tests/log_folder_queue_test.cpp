#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "agent/agent.h"
#include "platform/files.h"
#include "platform/folder_watch.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"
#include "transcript/process_flags.h"

namespace gab {
namespace {

using namespace testing;

// Plays back scripted kevent results, then clears keepRunning.
class ScriptedSource : public FolderEventSource {
 public:
  struct Call {
    Call(int r, int e = 0, std::optional<KEvent> rec = std::nullopt)
        : result(r), error(e), record(rec) {}
    int result;
    int error;
    std::optional<KEvent> record;  // delivered into the event record
  };
  explicit ScriptedSource(std::vector<Call> calls) : calls_(std::move(calls)) {}
  int Wait(const KEvent& change, KEvent* event, const timespec& timeout) override {
    EXPECT_EQ(change.filter, kEvFiltVnode);
    EXPECT_EQ(change.flags, 0x21);
    EXPECT_EQ(change.fflags, 6u);
    EXPECT_EQ(change.ident, 7u);
    EXPECT_EQ(timeout.tv_sec, 1);
    EXPECT_EQ(timeout.tv_nsec, 0);
    if (next_ == calls_.size()) {
      keepRunning = 0;
      return 0;
    }
    const Call& c = calls_[next_++];
    if (c.record) *event = *c.record;
    errno = c.error;
    return c.result;
  }

 private:
  std::vector<Call> calls_;
  size_t next_ = 0;
};

KEvent Record(uint32_t fflags) {
  return KEvent{7, kEvFiltVnode, 0x21, fflags, 0, nullptr};
}
KEvent ErrorRecord(intptr_t data) {
  return KEvent{7, kEvFiltVnode, kEvError, 0, data, nullptr};
}

TEST(LogFolderQueue, FlagRulesAndTheStaleRecord) {
  struct Case {
    const char* what;
    std::vector<ScriptedSource::Call> calls;
    int passes;
    std::string out;
  };
  const Case cases[] = {
      {"write", {{1, 0, Record(2)}}, 1, ""},
      {"extend", {{1, 0, Record(4)}}, 1, ""},
      {"write and extend together", {{1, 0, Record(6)}}, 0, ""},
      {"other bits", {{1, 0, Record(1)}, {1, 0, Record(3)}}, 0, ""},
      {"time-outs after a write start nothing", {{1, 0, Record(2)}, {0}, {0}}, 1, ""},
      {"one pass per accepted record",
       {{1, 0, Record(2)}, {1, 0, Record(4)}, {1, 0, Record(2)}},
       3,
       ""},
      {"event error, repeated while the record stays",
       {{1, 0, ErrorRecord(9)}, {0}, {0}, {1, 0, Record(2)}, {0}},
       1,
       "Event error:9\nEvent error:9\nEvent error:9\n"},
      {"interrupted", {{-1, EINTR}}, 0, "Signal interruption- shutting down service.\n"},
      {"other failure, loop goes on",
       {{-1, EBADF}, {1, 0, Record(2)}},
       1,
       "An error occurred: 9\n"},
      {"failure with a stale error record",
       {{1, 0, ErrorRecord(2)}, {-1, EINTR}},
       0,
       // The last line comes from the closing cycle of the script.
       "Event error:2\nSignal interruption- shutting down service.\nEvent error:2\nEvent "
       "error:2\n"},
      {"a count of 1 but a stale write is not enough for -1",
       {{1, 0, Record(2)}, {-1, EIO}},
       1,
       "An error occurred: 5\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedSource source(c.calls);
    int passes = 0;
    keepRunning = 1;
    ::testing::internal::CaptureStdout();
    internal::WatchLoop(source, 7, [&] { ++passes; });
    std::fflush(stdout);
    std::string out = ::testing::internal::GetCapturedStdout();
    keepRunning = 1;
    EXPECT_EQ(passes, c.passes);
    EXPECT_EQ(out, c.out);
  }
}

TEST(LogFolderQueue, SynchronisesPreferencesEveryCycle) {
  ProcessHome().Reset();
  WritePrefs({{"errorStatus", PrefValue(int64_t(1))}});
  auto& shared = Preferences::Shared();
  shared.AppSynchronize();
  ASSERT_EQ(shared.Int("errorStatus"), 1);
  // Another process changes the domain while the watch waits.
  ScriptedSource source({{0}, {0}});
  WritePrefs({{"errorStatus", PrefValue(int64_t(3))}});
  internal::WatchLoop(source, 7, [] {});
  keepRunning = 1;
  EXPECT_EQ(shared.Int("errorStatus"), 3);
}

// With the real inotify source: changes made while a pass runs collapse into
// one further pass; a change inside a subfolder starts none.
TEST(LogFolderQueue, ChangesDuringAPassBecomeOneMorePass) {
  ProcessHome().Reset();
  std::filesystem::create_directories(ProcessHome().transcripts() + "/Old");
  int fd = open(ProcessHome().transcripts().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  auto source = InotifyFolderSource::Create(fd, ProcessHome().transcripts());
  ASSERT_TRUE(source);
  int passes = 0;
  std::thread changer([] {
    usleep(300 * 1000);  // the watch is registered in its first cycle
    std::ofstream(ProcessHome().transcripts() + "/Old/inside.chat") << "x";
    usleep(1200 * 1000);
    std::ofstream(ProcessHome().transcripts() + "/first.chat") << "x";
    usleep(2500 * 1000);
    keepRunning = 0;
  });
  internal::WatchLoop(*source, fd, [&] {
    if (++passes == 1) {
      for (const char* name : {"/a.chat", "/b.chat", "/c.chat"})
        std::ofstream(ProcessHome().transcripts() + name) << "x";
      std::filesystem::rename(ProcessHome().transcripts() + "/a.chat",
                              ProcessHome().transcripts() + "/d.chat");
    }
  });
  changer.join();
  keepRunning = 1;
  close(fd);
  EXPECT_EQ(passes, 2);
}

}  // namespace
}  // namespace gab
