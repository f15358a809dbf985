// The parser's bookkeeping over a fake library: which transcripts are
// loaded, which messages reach the library, what is mailed and retried.

#include "parser/processor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "parser/record.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

namespace gab::parser {
namespace {

namespace fs = std::filesystem;

// A transcript file of the fake library holds "<messages> [open] [bad]".
class FakeLibrary : public Library {
 public:
  std::unique_ptr<ICLPChatLog> Load(const std::string& path, std::string* reason) override {
    loads.push_back(fs::path(path).filename().string());
    std::ifstream in(path);
    int n = 0;
    in >> n;
    std::string word;
    bool open = false;
    while (in >> word) {
      if (word == "bad") {
        *reason = "broken archive";
        return nullptr;
      }
      if (word == "open") open = true;
    }
    std::vector<std::shared_ptr<ICLPInstantMessage>> msgs;
    for (int i = 0; i < n; ++i) {
      auto m = std::make_shared<ICLPInstantMessage>();
      m->mystery = uint32_t(i);  // the position, to check which ones arrive
      msgs.push_back(m);
    }
    auto log = ICLPChatLog::FromParts(u"Anna", std::move(msgs));
    openChats[log.get()] = open;
    return log;
  }
  bool ChatHasEnded(const ICLPChatLog& t) override { return !openChats[&t]; }
  bool Mail(ICLPChatLog& t, std::string* error) override {
    mails.push_back(t.Messages().size());
    if (!serverUp) *error = "SMTP unreachable";
    return serverUp;
  }
  int64_t GatherLinks(const ICLPChatLog& m, const std::string& log) override {
    linkLog = log;
    linkBatches.push_back(Positions(m));
    return 2;
  }
  int64_t GatherImages(const ICLPChatLog& m, const std::string&) override {
    imageBatches.push_back(Positions(m));
    return 1;
  }
  void CountStatistics(const ICLPChatLog& m) override { statBatches.push_back(Positions(m)); }

  static std::string Positions(const ICLPChatLog& m) {
    std::string s;
    for (auto& msg : m.Messages()) s += std::to_string(msg->mystery);
    return s;
  }

  std::map<const ICLPChatLog*, bool> openChats;
  std::vector<std::string> loads, linkBatches, imageBatches, statBatches;
  std::vector<size_t> mails;
  std::string linkLog;
  bool serverUp = true;
};

class ProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::temp_directory_path() /
           ("parser-test-" + std::to_string(getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(root / "iChats");
    fs::create_directories(root / "data");
    options.transcriptFolder = (root / "iChats").string();
    options.dataFolder = (root / "data").string();
    options.sendEmails = true;
    options.now = [this] { return clock; };
    keepRunning = 1;
  }
  void TearDown() override { fs::remove_all(root); }

  // Writes a transcript; `bump` moves its mtime so a rewrite of equal size
  // still counts as a change.
  void Write(const std::string& rel, const std::string& text, int bump = 0) {
    fs::path p = root / "iChats" / rel;
    fs::create_directories(p.parent_path());
    std::ofstream(p) << text;
    static int tick = 0;
    fs::last_write_time(p, fs::file_time_type::clock::now() + std::chrono::seconds(++tick + bump));
  }
  RunSummary RunOnce() { return ProcessTranscripts(lib, options); }
  RecordEntry Entry(const std::string& rel) {
    return LoadRecord(RecordPath(options.dataFolder)).transcripts.at(rel);
  }

  fs::path root;
  RunOptions options;
  FakeLibrary lib;
  int64_t clock = 1000;
};

TEST_F(ProcessorTest, NewTranscriptIsMailedGatheredCountedAndRecorded) {
  Write("Anna on 2005-03-08 at 15.07.ichat", "3");
  RunSummary s = RunOnce();
  EXPECT_EQ(s.found, 1);
  EXPECT_EQ(s.processed, 1);
  EXPECT_EQ(s.messages, 3);
  EXPECT_EQ(s.links, 2);
  EXPECT_EQ(s.images, 1);
  EXPECT_EQ(s.mailed, 1);
  EXPECT_EQ(lib.mails, std::vector<size_t>{3});
  EXPECT_EQ(lib.linkBatches, std::vector<std::string>{"012"});
  EXPECT_EQ(lib.imageBatches, std::vector<std::string>{"012"});
  EXPECT_EQ(lib.statBatches, std::vector<std::string>{"012"});
  EXPECT_EQ(lib.linkLog, options.dataFolder + "/links.txt");
  RecordEntry e = Entry("Anna on 2005-03-08 at 15.07.ichat");
  EXPECT_EQ(e.state, State::kDone);
  EXPECT_EQ(e.handled, 3);
  EXPECT_EQ(e.size, 1);
}

TEST_F(ProcessorTest, UnchangedFolderLoadsNothing) {
  Write("a on x.chat", "2");
  Write("sub/deeper/b on y.ichat", "4");
  RunOnce();
  lib.loads.clear();
  RunSummary s = RunOnce();
  EXPECT_TRUE(lib.loads.empty());
  EXPECT_EQ(s.found, 2);
  EXPECT_EQ(s.unchanged, 2);
  EXPECT_EQ(lib.mails.size(), 2u);
}

TEST_F(ProcessorTest, GrownTranscriptAddsOnlyItsNewMessages) {
  Write("a on x.ichat", "3");
  RunOnce();
  Write("a on x.ichat", "5");
  RunSummary s = RunOnce();
  EXPECT_EQ(s.messages, 2);
  EXPECT_EQ(lib.linkBatches, (std::vector<std::string>{"012", "34"}));
  EXPECT_EQ(lib.statBatches, (std::vector<std::string>{"012", "34"}));
  // The mail carries the whole chat again.
  EXPECT_EQ(lib.mails, (std::vector<size_t>{3, 5}));
  EXPECT_EQ(Entry("a on x.ichat").handled, 5);
}

TEST_F(ProcessorTest, RewrittenWithoutNewMessagesOrShrunkAddsNothing) {
  Write("a on x.ichat", "4");
  RunOnce();
  for (const char* text : {"4 ", "2"}) {
    Write("a on x.ichat", text);
    RunSummary s = RunOnce();
    EXPECT_EQ(s.processed, 0) << text;
  }
  EXPECT_EQ(lib.linkBatches.size(), 1u);
  EXPECT_EQ(lib.mails.size(), 1u);
  // Grows again past the old count: only what lies beyond is new.
  Write("a on x.ichat", "5");
  RunOnce();
  EXPECT_EQ(lib.linkBatches.back(), "234");
}

TEST_F(ProcessorTest, OpenChatWaitsAndIsLookedAtAgainUntilItEnds) {
  Write("a on x.ichat", "2 open");
  RunSummary s = RunOnce();
  EXPECT_EQ(s.waiting, 1);
  EXPECT_EQ(Entry("a on x.ichat").state, State::kWaiting);
  EXPECT_TRUE(lib.linkBatches.empty());
  EXPECT_TRUE(lib.mails.empty());

  lib.loads.clear();
  RunOnce();  // unchanged file, still open: loaded again
  EXPECT_EQ(lib.loads.size(), 1u);

  Write("a on x.ichat", "3");
  s = RunOnce();
  EXPECT_EQ(s.processed, 1);
  EXPECT_EQ(lib.linkBatches, std::vector<std::string>{"012"});
  EXPECT_EQ(Entry("a on x.ichat").state, State::kDone);
}

TEST_F(ProcessorTest, UnreadableIsRecordedAndRetriedOnlyWhenChanged) {
  Write("a on x.chat", "0 bad");
  Write("b on y.chat", "1");
  RunSummary s = RunOnce();
  ASSERT_EQ(s.unreadable.size(), 1u);
  EXPECT_EQ(s.unreadable[0].first, "a on x.chat");
  EXPECT_EQ(s.unreadable[0].second, "broken archive");
  EXPECT_EQ(s.processed, 1);  // the bad one does not stop the run
  RecordEntry e = Entry("a on x.chat");
  EXPECT_EQ(e.state, State::kUnreadable);
  EXPECT_EQ(e.reason, "broken archive");

  lib.loads.clear();
  s = RunOnce();
  EXPECT_TRUE(lib.loads.empty());
  // Named again by every run, never counted among the done ones.
  ASSERT_EQ(s.unreadable.size(), 1u);
  EXPECT_EQ(s.unreadable[0].second, "broken archive");
  EXPECT_EQ(s.unchanged, 1);
  Write("a on x.chat", "2");
  s = RunOnce();
  EXPECT_EQ(s.processed, 1);
  EXPECT_EQ(Entry("a on x.chat").state, State::kDone);
}

TEST_F(ProcessorTest, FailedMailStaysPendingAndIsRetriedAfterTheDelay) {
  options.mailRetryDelaySeconds = 30;
  lib.serverUp = false;
  Write("a on x.ichat", "2");
  Write("b on x.ichat", "1");
  RunSummary s = RunOnce();
  // One failure holds back the other mails of the run; both are gathered.
  EXPECT_EQ(s.mailFailed, 1);
  EXPECT_EQ(lib.mails.size(), 1u);
  EXPECT_EQ(s.processed, 2);
  EXPECT_EQ(Entry("a on x.ichat").state, State::kMailPending);
  EXPECT_EQ(Entry("a on x.ichat").reason, "mail failed: SMTP unreachable");
  EXPECT_EQ(Entry("b on x.ichat").state, State::kMailPending);

  lib.serverUp = true;
  clock += 10;  // within the delay: nothing is tried
  RunOnce();
  EXPECT_EQ(lib.mails.size(), 1u);

  clock += 30;
  s = RunOnce();
  EXPECT_EQ(s.mailed, 2);
  EXPECT_EQ(s.processed, 0);  // retried mail only, nothing gathered twice
  // Each mailed chat commits on its own, so its links are gathered with it.
  EXPECT_EQ(lib.linkBatches, (std::vector<std::string>{"01", "0"}));
  EXPECT_EQ(lib.statBatches.size(), 2u);
  EXPECT_EQ(Entry("a on x.ichat").state, State::kDone);
  EXPECT_EQ(Entry("a on x.ichat").reason, "");
}

TEST_F(ProcessorTest, SettingsChooseWhatIsDone) {
  struct Case {
    bool mail, urls, images, importing;
    size_t mails, links, images_;
  } cases[] = {
      {false, true, true, false, 0, 1, 1},
      {true, false, true, false, 1, 0, 1},
      {true, true, false, false, 1, 1, 0},
      {true, true, true, true, 0, 1, 1},  // an import never mails
  };
  for (const auto& c : cases) {
    fs::remove_all(root / "iChats");
    fs::remove(RecordPath(options.dataFolder));
    lib = FakeLibrary();
    Write("a on x.ichat", "1 open");  // an import takes open chats as ended
    options.sendEmails = c.mail;
    options.handleURLs = c.urls;
    options.handleImages = c.images;
    options.importing = c.importing;
    RunOnce();
    if (!c.importing) {
      Write("a on x.ichat", "1");
      RunOnce();
    }
    EXPECT_EQ(lib.mails.size(), c.mails);
    EXPECT_EQ(lib.linkBatches.size(), c.links);
    EXPECT_EQ(lib.imageBatches.size(), c.images_);
    EXPECT_EQ(lib.statBatches.size(), 1u);
  }
}

TEST_F(ProcessorTest, PendingMailIsDroppedWhenMailIsTurnedOff) {
  lib.serverUp = false;
  Write("a on x.ichat", "1");
  RunOnce();
  options.sendEmails = false;
  options.importing = true;
  RunOnce();  // an import leaves it pending
  EXPECT_EQ(Entry("a on x.ichat").state, State::kMailPending);
  options.importing = false;
  RunOnce();
  EXPECT_EQ(Entry("a on x.ichat").state, State::kDone);
  EXPECT_EQ(lib.mails.size(), 1u);
  EXPECT_EQ(lib.linkBatches.size(), 1u);
}

TEST_F(ProcessorTest, MovedTranscriptKeepsItsEntry) {
  Write("a on x.ichat", "3");
  RunOnce();
  fs::create_directories(root / "iChats" / "2005");
  fs::rename(root / "iChats" / "a on x.ichat", root / "iChats" / "2005" / "a on x.ichat");
  lib.loads.clear();
  RunSummary s = RunOnce();
  EXPECT_EQ(s.processed, 0);
  EXPECT_TRUE(lib.loads.empty());
  auto record = LoadRecord(RecordPath(options.dataFolder));
  EXPECT_EQ(record.transcripts.count("a on x.ichat"), 0u);
  EXPECT_EQ(record.transcripts.at("2005/a on x.ichat").handled, 3);
}

TEST_F(ProcessorTest, StopsBetweenTranscriptsWhenAskedAndResumes) {
  Write("a on x.ichat", "1");
  Write("b on x.ichat", "1");
  int calls = 0;
  size_t lastDone = 0;
  options.progress = [&](size_t done, size_t, const std::string&) {
    lastDone = done;
    if (++calls == 2) keepRunning = 0;
  };
  RunSummary s = RunOnce();
  EXPECT_TRUE(s.stopped);
  EXPECT_EQ(lastDone, 1u);  // the bar stays where the run stopped
  EXPECT_EQ(s.processed, 1);
  keepRunning = 1;
  options.progress = nullptr;
  s = RunOnce();
  EXPECT_EQ(s.processed, 1);
  EXPECT_EQ(lib.statBatches.size(), 2u);
}

TEST_F(ProcessorTest, LinksAndImagesOfARunAreGatheredTogether) {
  options.sendEmails = false;  // a mailed chat commits on its own
  Write("a on x.ichat", "2");
  Write("b on x.ichat", "3");
  RunSummary s = RunOnce();
  EXPECT_EQ(s.processed, 2);
  // One gathering for the run, in the order of the transcripts; statistics
  // count each chat on its own.
  EXPECT_EQ(lib.linkBatches, std::vector<std::string>{"01012"});
  EXPECT_EQ(lib.imageBatches, std::vector<std::string>{"01012"});
  EXPECT_EQ(lib.statBatches, (std::vector<std::string>{"01", "012"}));
}

TEST_F(ProcessorTest, TimeBudgetLeavesTheRestForTheNextRun) {
  options.timeBudgetSeconds = 1e-9;
  for (const char* name : {"a on x.ichat", "b on x.ichat", "c on x.ichat"}) Write(name, "1");
  for (int64_t left : {2, 1, 0}) {
    RunSummary s = RunOnce();
    EXPECT_EQ(s.processed, 1);
    EXPECT_EQ(s.deferred, left);
  }
  EXPECT_EQ(lib.statBatches.size(), 3u);
  EXPECT_EQ(lib.linkBatches.size(), 3u);
  EXPECT_EQ(RunOnce().processed, 0);
}

TEST_F(ProcessorTest, DamagedRecordIsKeptAsideAndWorkStartsAfresh) {
  Write("a on x.ichat", "1");
  std::ofstream(RecordPath(options.dataFolder)) << "this is no property list";
  RunSummary s = RunOnce();
  EXPECT_EQ(s.processed, 1);
  EXPECT_TRUE(fs::exists(RecordPath(options.dataFolder) + ".damaged"));
  EXPECT_EQ(Entry("a on x.ichat").handled, 1);
}

}  // namespace
}  // namespace gab::parser
