// The whole product at work: gabfolio setup, the agent watching
// ~/Documents/iChats and running the real parser, mail through a real SMTP
// server on loopback, the library and statistics growing; and gabfolio
// import over a folder of many transcripts.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "parser/processor.h"
#include "parser/record.h"
#include "parser/run_lock.h"
#include "platform/files.h"
#include "platform/plist.h"
#include "platform/preferences.h"
#include "testing/images.h"
#include "testing/run_process.h"
#include "testing/smtp_server.h"
#include "testing/temp_home.h"
#include "tests/fixtures/chats.h"

namespace gab::product {
namespace {

namespace fs = std::filesystem;
using namespace testing;

std::string ReadFile(const fs::path& p) {
  return ReadWholeFile(p).value_or("");
}

using samples::Chat;
using samples::ChatLine;

constexpr double kMarch2005 = 1110294420;  // 2005-03-08 15:07 UTC

class ProductTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Result r = Tool({"setup"});
    ASSERT_EQ(r.status, 0) << r.err;
  }

  fs::path home() const { return home_.path(); }
  fs::path lib() const { return home() / "Library/Gabfolio"; }
  fs::path chats() const { return home() / "Documents/iChats"; }
  Result Tool(std::vector<std::string> args) {
    args.insert(args.begin(), kTool);
    return RunProgram(args);
  }
  parser::Record Record() const { return parser::LoadRecord((lib() / "processed.plist").string()); }
  std::optional<parser::State> StateOf(const Chat& c) const {
    auto r = Record();
    auto it = r.transcripts.find(samples::FileName(c));
    if (it == r.transcripts.end()) return std::nullopt;
    return it->second.state;
  }
  size_t Lines(const std::string& name) const { return CountOf(ReadFile(lib() / name), "\n"); }
  int64_t Statistic(const char* key) const {
    PlistPtr p = ReadPlistFile((lib() / "talkpulse.plist").string());
    plist_t v = p ? plist_dict_get_item(p.get(), key) : nullptr;
    uint64_t n = 0;
    if (v) plist_get_uint_val(v, &n);
    return int64_t(n);
  }
  // Writes a chat outside the folder and renames it in: how the chat client
  // saves, and a folder event the agent sees.
  void RenameIn(const Chat& c) {
    fs::create_directories(home() / "outside");
    std::string p = samples::WriteChat((home() / "outside").string(), c);
    fs::rename(p, chats() / samples::FileName(c));
  }
  void CopyIn(const Chat& c) {
    std::ofstream(chats() / samples::FileName(c), std::ios::binary) << samples::Archive(c);
  }

  testing::TempHome home_;
};

Chat Conversation(const std::string& party, double start, int lines, int links, int images,
                  bool iChat3) {
  Chat c;
  c.party = party;
  c.iChat3 = iChat3;
  c.start = start;
  c.others = {party};
  for (int i = 0; i < lines; ++i) {
    ChatLine l;
    l.account = i % 2 ? "me" : party;
    l.minute = i;
    l.text = "line " + std::to_string(i) + " of the chat with " + party;
    if (i < links) l.links.push_back("http://example.org/" + party + "/" + std::to_string(i));
    if (i < images)
      l.attachments.push_back({"photo" + std::to_string(i) + ".png", EncodedImage(4, 3)});
    c.lines.push_back(l);
  }
  return c;
}

// A line of the import's summary; the numbers line up in one column.
std::string Row(const std::string& label, int64_t n) {
  return label + std::string(28 - label.size(), ' ') + std::to_string(n) + "\n";
}

std::vector<std::string> Subjects(const SmtpServer& sink) {
  std::vector<std::string> out;
  for (int n = 1; n <= sink.MessageCount(); ++n) out.push_back(sink.Message(n, "subject"));
  return out;
}

TEST_F(ProductTest, AgentMailsGathersGrowsAndRetries) {
  if (!HaveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
  SmtpServer sink;
  ASSERT_NE(sink.port(), 0);
  Result r = Tool({"setup", "--server", "127.0.0.1", "--port", std::to_string(sink.port()), "--to",
                   "me@example.org", "--from", "gabfolio@example.org", "--no-login", "--no-test"});
  ASSERT_EQ(r.status, 0) << r.err;

  Process agent({kAgent}, {"GABFOLIO_MAIL_RETRY_SECONDS=0"});
  auto log = [&] { return agent.err() + agent.out(); };
  ASSERT_TRUE(WaitFor([&] { return fs::exists(lib() / "pidfile"); }, 10)) << log();
  // The first start greets the user.
  ASSERT_TRUE(WaitFor([&] { return sink.MessageCount() == 1; }, 15)) << log();
  EXPECT_EQ(Subjects(sink)[0], "[IM] Welcome to Gabfolio!");

  // Copied in: mailed with both parts, gathered, counted.
  Chat anna = Conversation("Anna", kMarch2005, 6, 2, 1, true);
  CopyIn(anna);
  ASSERT_TRUE(WaitFor([&] { return sink.MessageCount() == 2; })) << log();
  EXPECT_EQ(sink.Message(2, "subject"), "[IM] Anna");
  EXPECT_EQ(sink.Message(2, "part-1.type"), "text/html");
  // The record is written first, then the statistics, and the links and
  // images of the run are gathered last.
  ASSERT_TRUE(WaitFor([&] { return StateOf(anna) == parser::State::kDone; })) << log();
  ASSERT_TRUE(WaitFor([&] { return Statistic("chatcount") == 1; })) << log();
  EXPECT_TRUE(WaitFor([&] { return Lines("links.txt") == 2u; })) << Lines("links.txt");
  EXPECT_TRUE(WaitFor([&] { return Lines("images.txt") == 1u; })) << Lines("images.txt");
  EXPECT_TRUE(WaitFor([&] { return Statistic("linkcount") == 2; })) << Statistic("linkcount");
  EXPECT_TRUE(WaitFor([&] { return fs::exists(lib() / "gatheredImages.plist"); }));

  // Renamed in, the older format.
  Chat bo = Conversation("Bo", kMarch2005 + 86400, 4, 1, 0, false);
  RenameIn(bo);
  ASSERT_TRUE(WaitFor([&] { return sink.MessageCount() == 3; })) << log();
  EXPECT_EQ(Subjects(sink)[2], "[IM] Bo");
  ASSERT_TRUE(WaitFor([&] { return Statistic("chatcount") == 2; })) << log();
  EXPECT_TRUE(WaitFor([&] { return Lines("links.txt") == 3u; })) << Lines("links.txt");

  // Anna's chat grows by two lines with one more link and one more image:
  // only those are added, the mail carries the whole chat again.
  Chat grown = Conversation("Anna", kMarch2005, 8, 2, 1, true);
  grown.lines[6].links = {"http://example.org/Anna/late"};
  grown.lines[7].attachments = {{"late.png", EncodedImage(3, 4)}};
  RenameIn(grown);
  ASSERT_TRUE(WaitFor([&] { return sink.MessageCount() == 4; })) << log();
  EXPECT_EQ(Subjects(sink)[3], "[IM] Anna");
  ASSERT_TRUE(WaitFor([&] { return Statistic("chatcount") == 3; })) << log();
  EXPECT_TRUE(WaitFor([&] { return Lines("links.txt") == 4u; })) << Lines("links.txt");
  EXPECT_TRUE(WaitFor([&] { return Lines("images.txt") == 2u; })) << Lines("images.txt");
  EXPECT_TRUE(WaitFor([&] { return Statistic("linkcount") == 4; })) << Statistic("linkcount");
  EXPECT_EQ(CountOf(ReadFile(lib() / "links.txt"), "http://example.org/Anna/0"), 2u)
      << "the link and its label, once";
  EXPECT_EQ(Record().transcripts.at(samples::FileName(anna)).handled, 8);

  // The server goes away: the mail fails, stays pending, the library grows
  // all the same, and the error counter goes up.
  sink.Stop();
  Chat cy = Conversation("Cy", kMarch2005 + 2 * 86400, 3, 1, 0, true);
  RenameIn(cy);
  ASSERT_TRUE(WaitFor([&] { return StateOf(cy) == parser::State::kMailPending; })) << log();
  ASSERT_TRUE(WaitFor([&] { return Statistic("chatcount") == 4; })) << log();
  EXPECT_EQ(StringValue(ReadPref("reportThis")), "SMTP unreachable");
  EXPECT_EQ(IntValue(ReadPref("emailFails")), 1);
  EXPECT_TRUE(WaitFor([&] { return Lines("links.txt") == 5u; })) << Lines("links.txt");

  // Back again: the next folder event sends the pending mail and the new one.
  ASSERT_TRUE(sink.Start());
  Chat di = Conversation("Di", kMarch2005 + 3 * 86400, 3, 0, 0, true);
  RenameIn(di);
  ASSERT_TRUE(WaitFor([&] { return sink.MessageCount() == 6; })) << log();
  auto subjects = Subjects(sink);
  std::sort(subjects.begin() + 4, subjects.end());
  EXPECT_EQ(subjects[4], "[IM] Cy");
  EXPECT_EQ(subjects[5], "[IM] Di");
  ASSERT_TRUE(WaitFor([&] { return StateOf(cy) == parser::State::kDone; })) << log();
  EXPECT_EQ(IntValue(ReadPref("emailFails")), 0);

  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(10), 0);
  EXPECT_FALSE(fs::exists(lib() / "pidfile"));
  EXPECT_EQ(sink.MessageCount(), 6);
}

TEST_F(ProductTest, ImportAddsManyTranscriptsOnceWithoutMailAndResumes) {
  fs::path old = home() / "old chats";
  fs::create_directories(old / "2004");
  const int kCount = 60;
  for (int i = 0; i < kCount; ++i) {
    Chat c = samples::TypicalChat("friend" + std::to_string(i % 7), kMarch2005 + i * 3600, 10,
                                  i % 2 == 0);
    samples::WriteChat((old / (i % 3 ? "" : "2004")).string(), c);
  }
  std::ofstream(old / "Broken on 2005-01-01 at 10.00.ichat") << "not an archive";
  std::ofstream(old / "notes.chat") << "no party in the name";
  // Mail is on, but an import never mails.
  Preferences prefs(PrefsPath());
  prefs.SetAppValue("sendEmails", true);
  prefs.SetAppValue("emailServer", std::string("127.0.0.1"));
  prefs.SetAppValue("emailPort", int64_t(9));
  ASSERT_TRUE(prefs.AppSynchronize());

  // Stopped part-way (as with Ctrl-C) ...
  Process first({kTool, "import", old.string()});
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  first.Signal(SIGINT);
  auto st = first.Wait(120);
  ASSERT_TRUE(st == 130 || st == 0) << first.err();
  // The hint to go on names the folder that was given.
  if (st == 130) {
    EXPECT_NE(first.out().find("run: gabfolio import '" + old.string() + "'\n"), std::string::npos)
        << first.out();
  }
  int64_t afterFirst = Statistic("chatcount");

  // ... and run again: every transcript exactly once.
  Result r = Tool({"import", old.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find(Row("Transcripts found:", kCount + 2)), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(Row("Imported now:", kCount - afterFirst)), std::string::npos) << r.out;
  EXPECT_TRUE(WaitFor([&] { return Statistic("chatcount") == kCount; })) << Statistic("chatcount");
  // TypicalChat: a link on every third of 10 lines, an image on every fifth.
  EXPECT_TRUE(WaitFor([&] { return Statistic("linkcount") == kCount * 3; }))
      << Statistic("linkcount");
  EXPECT_TRUE(WaitFor([&] { return Statistic("imagecount") == kCount * 2; }))
      << Statistic("imagecount");
  EXPECT_TRUE(WaitFor([&] { return Lines("links.txt") == size_t(kCount * 3); }))
      << Lines("links.txt");
  EXPECT_EQ(IntValue(ReadPref("emailFails")), 0);
  EXPECT_FALSE(ReadPref("reportThis").has_value());
  if (afterFirst == 0) {
    // The first run was stopped before its first transcript: the unreadable
    // ones are reported by the second.
    EXPECT_NE(r.out.find("Broken on 2005-01-01 at 10.00.ichat: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("notes.chat: "), std::string::npos) << r.out;
  }

  r = Tool({"import", old.string()});
  ASSERT_EQ(r.status, 0);
  EXPECT_NE(r.out.find(Row("Imported now:", 0)), std::string::npos) << r.out;
  // The unreadable ones are named on every run, not counted as done.
  EXPECT_NE(r.out.find(Row("Already in the library:", kCount)), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(Row("Unreadable files:", 2) + "  Broken on 2005-01-01 at 10.00.ichat: "),
            std::string::npos)
      << r.out;
  EXPECT_TRUE(WaitFor([&] { return Statistic("chatcount") == kCount; })) << Statistic("chatcount");

  // Moved into the transcript folder afterwards, they are not new to the
  // parser either.
  fs::rename(old / "2004", chats() / "2004");
  Result parse = RunProgram({kParser, kParser});
  EXPECT_EQ(parse.status, 0) << parse.err;
  EXPECT_TRUE(WaitFor([&] { return Statistic("chatcount") == kCount; })) << Statistic("chatcount");
  EXPECT_EQ(parse.err.find("Processed"), std::string::npos) << parse.err;
}

// A chat's file names the other party as iChat showed them; the archive
// knows only the account.  Cards link the two only when the user says so,
// and the user's own cards stay byte for byte.
TEST_F(ProductTest, ImportLearnsContactsOnlyWhenAskedAndKeepsTheUsersCards) {
  const std::string userCards =
      "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Lind;Robert;;;\r\nX-AIM:bolind\r\nEND:VCARD";
  struct Case {
    std::vector<std::vector<std::string>> commands;
    bool learned;
    const char* says;  // in the last command's output
  };
  const Case cases[] = {
      {{{"import"}}, false, "'gabfolio contacts learn' adds cards for\n  1 account"},
      {{{"contacts", "learn", "--dry-run"}, {"import"}}, false, "Chats without their party:"},
      {{{"import", "--learn-contacts"}}, true, "Contact cards added:        1"},
      {{{"contacts", "learn"}, {"import", "--no-learn-contacts"}}, true, "Imported now:"},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.commands));
    fs::path h = home() / ("case" + std::to_string(n++));
    const std::vector<std::string> env = {"HOME=" + h.string()};
    ASSERT_EQ(RunProgram({kTool, "setup"}, env).status, 0);
    fs::path book = h / "Library/Application Support/AddressBook";
    fs::create_directories(book);
    std::ofstream(book / "Contacts.vcf", std::ios::binary) << userCards;
    fs::path folder = h / "Documents/iChats";
    for (const auto& [party, account] :
         {std::pair{"Anna Lee", "annalee"}, std::pair{"Bo Lind", "bolind"},
          std::pair{"Dana", "dana"}}) {
      Chat chat = Conversation(account, kMarch2005, 4, 0, 0, true);
      chat.party = party;
      samples::WriteChat(folder.string(), chat);
    }
    Result r;
    for (auto args : c.commands) {
      args.insert(args.begin(), kTool);
      r = RunProgram(args, env);
      ASSERT_EQ(r.status, 0) << r.err;
    }
    EXPECT_NE(r.out.find(c.says), std::string::npos) << r.out;
    std::string cards = ReadFile(book / "Contacts.vcf");
    EXPECT_EQ(cards.rfind(userCards, 0), 0u) << cards;
    EXPECT_EQ(cards.find("N:Lee;Anna;;;\r\n") != std::string::npos, c.learned) << cards;
    EXPECT_EQ(CountOf(cards, "BEGIN:VCARD"), c.learned ? 2 : 1) << cards;
    // Anna's two lines of seven words count as hers once her card is there.
    PlistPtr stats = ReadPlistFile((h / "Library/Gabfolio/talkpulse.plist").string());
    uint64_t others = 0;
    plist_get_uint_val(plist_dict_get_item(stats.get(), "othertextcount"), &others);
    EXPECT_EQ(others, c.learned ? 14u : 0u);
    Result status = RunProgram({kTool, "status"}, env);
    EXPECT_NE(status.out.find("chats without their party: " + std::string(c.learned ? "2" : "3")),
              std::string::npos)
        << status.out;
  }
}

// What failed is said, the exit status is 1, and only what was saved is
// counted.  (Folders stand where files must go: the tests may run as root,
// whom permissions do not stop.)
TEST_F(ProductTest, ImportAndRebuildSayWhatFailed) {
  struct Case {
    const char* blocked;  // made a folder in the library
    std::vector<std::string> args;
    int status;
    const char* err;
    const char* out;
  };
  const Case cases[] = {
      {"", {"rebuild"}, 0, "", "Wrote "},
      {"Links.html", {"rebuild"}, 1, "could not write the pages in", ""},
      {"processed.plist.lock", {"import"}, 1, "nothing imported: cannot open", ""},
      {"gatheredURLs.plist",
       {"import"},
       1,
       "could not save the library in",
       "Links added:                0\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.blocked);
    samples::WriteChat(chats().string(), Conversation("friend", kMarch2005, 6, 2, 0, true));
    if (*c.blocked) {
      fs::remove(lib() / c.blocked);
      fs::create_directories(lib() / c.blocked / "inside");
    }
    Result r = Tool(c.args);
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
    if (*c.blocked) fs::remove_all(lib() / c.blocked);
  }
}

TEST_F(ProductTest, ParserRunsCheaplyTwiceAndNeverOverlaps) {
  for (int i = 0; i < 5; ++i)
    samples::WriteChat(chats().string(),
                       samples::TypicalChat("p" + std::to_string(i), kMarch2005 + i * 60, 6, true));
  // A held lock makes a second run wait; when the holder ends it goes on.
  parser::RunLock lock;
  ASSERT_TRUE(lock.Acquire(parser::LockPath(lib().string()), 0));
  Process waiting({kParser, kParser});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_FALSE(fs::exists(lib() / "processed.plist")) << "ran while the lock was held";
  lock.Release();
  EXPECT_EQ(waiting.Wait(60), 0) << waiting.err();
  EXPECT_TRUE(WaitFor([&] { return Statistic("chatcount") == 5; })) << Statistic("chatcount");

  std::string before = ReadFile(lib() / "processed.plist");
  Result again = RunProgram({kParser, kParser});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "");
  EXPECT_EQ(ReadFile(lib() / "processed.plist"), before);
  EXPECT_TRUE(WaitFor([&] { return Statistic("chatcount") == 5; })) << Statistic("chatcount");
}

// Everything an import leaves in the library that must not depend on when a
// run was killed: the stores (statistics without their dates, which are the
// time of the first count), the text logs and the stored images.
std::string LibraryState(const fs::path& lib) {
  std::string state;
  for (const char* name :
       {"gatheredURLs.plist", "gatheredImages.plist", "links.txt", "images.txt", "processed.plist"})
    state += std::string("== ") + name + "\n" + ReadFile(lib / name);
  std::string stats = ReadFile(lib / "talkpulse.plist");
  for (size_t at = stats.find("<date>"); at != std::string::npos; at = stats.find("<date>", at))
    stats.erase(at, stats.find("</date>", at) + 7 - at);
  state += "== talkpulse.plist\n" + stats;
  std::vector<std::string> images;
  for (auto& e : fs::directory_iterator(lib / "Images"))
    // Hidden temporary files of killed writes are no part of the library.
    if (e.is_regular_file() && e.path().filename().string()[0] != '.')
      images.push_back(e.path().filename().string());
  std::sort(images.begin(), images.end());
  for (const auto& name : images)
    state += "== Images/" + name + "\n" + ReadFile(lib / "Images" / name);
  return state;
}

TEST_F(ProductTest, ImportKilledAtAnyMomentEndsAsAnUninterruptedOne) {
  fs::path old = home() / "old chats";
  fs::create_directories(old);
  for (int i = 0; i < 60; ++i)
    samples::WriteChat(old.string(), samples::TypicalChat("friend" + std::to_string(i % 9),
                                                          kMarch2005 + i * 3600, 15, i % 2 == 0));

  // The reference: one uninterrupted import into a home of its own.
  fs::path other = home() / "reference";
  fs::create_directories(other);
  const std::vector<std::string> otherEnv = {"HOME=" + other.string()};
  ASSERT_EQ(RunProgram({kTool, "setup"}, otherEnv).status, 0);
  auto started = std::chrono::steady_clock::now();
  Result reference = RunProgram({kTool, "import", old.string()}, otherEnv);
  ASSERT_EQ(reference.status, 0) << reference.err;
  auto took = std::chrono::steady_clock::now() - started;
  const std::string expected = LibraryState(other / "Library/Gabfolio");

  // Killed outright at random moments, then run to the end.
  std::mt19937 random(::testing::UnitTest::GetInstance()->random_seed());
  std::uniform_int_distribution<int64_t> moment(
      0, std::chrono::duration_cast<std::chrono::microseconds>(took).count());
  for (int kill = 0; kill < 8; ++kill) {
    Process p({kTool, "import", old.string()});
    std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
    p.Signal(SIGKILL);
    p.Wait(30);
  }
  Result last = Tool({"import", old.string()});
  ASSERT_EQ(last.status, 0) << last.err;
  EXPECT_EQ(LibraryState(lib()), expected);
  // The statistics start with the oldest imported chat, not on the day of
  // the import, so the page reads forward in time.
  std::string stats = ReadFile(lib() / "stats.html");
  EXPECT_NE(stats.find("2005</b> <span>to</span> <b>March"), std::string::npos) << stats;
  EXPECT_EQ(stats.find(">-"), std::string::npos) << stats;
}

// A full disk: an import saves nothing it cannot save whole, says what failed
// and exits 1; once there is room again, the next import ends as one that had
// room all along.  The small disk is a tmpfs mounted in a user namespace.
TEST_F(ProductTest, FullDiskLosesNothingAndTheNextRunFinishes) {
  // Mounting over /tmp touches only the namespace's own view of it.
  if (std::system("unshare --user --map-root-user --mount sh -c 'mount -t tmpfs -o size=1m tmpfs "
                  "/tmp' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "no user namespace to mount a small file system in";
  fs::path old = home() / "old chats";
  fs::create_directories(old);
  for (int i = 0; i < 100; ++i)
    samples::WriteChat(old.string(), samples::TypicalChat("friend" + std::to_string(i % 9),
                                                          kMarch2005 + i * 3600, 20, i % 2 == 0));
  fs::path other = home() / "reference";
  fs::create_directories(other);
  ASSERT_EQ(RunProgram({kTool, "setup"}, {"HOME=" + other.string()}).status, 0);
  ASSERT_EQ(RunProgram({kTool, "import", old.string()}, {"HOME=" + other.string()}).status, 0);

  fs::path small = home() / "small";
  fs::create_directories(small / "Library");
  const std::string script =
      "set -e; mount -t tmpfs -o size=1m tmpfs \"$HOME/Library\"; \"$0\" setup >/dev/null; "
      "set +e; \"$0\" import \"$1\" >\"$2/first.out\" 2>&1; echo $? >\"$2/first.status\"; set -e; "
      "mount -o remount,size=64m \"$HOME/Library\"; "
      "\"$0\" import \"$1\" >\"$2/second.out\" 2>&1; echo $? >\"$2/second.status\"; "
      "cp -a \"$HOME/Library/Gabfolio\" \"$2/result\"";
  Result r = RunProgram({"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh",
                         "-c", script, kTool, old.string(), home().string()},
                        {"HOME=" + small.string()});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  std::string first = ReadFile(home() / "first.out");
  EXPECT_EQ(ReadFile(home() / "first.status"), "1\n") << first;
  EXPECT_NE(first.find("No space left on device"), std::string::npos) << first;
  EXPECT_EQ(ReadFile(home() / "second.status"), "0\n") << ReadFile(home() / "second.out");
  EXPECT_EQ(LibraryState(home() / "result"), LibraryState(other / "Library/Gabfolio"));
}

// Kills (SIGKILL) every parser worker working for `home`; how many.
int KillWorkersOf(const fs::path& home) {
  const std::string wanted = "HOME=" + home.string();
  int killed = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    const std::string pid = entry.path().filename().string();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code exeError;
    fs::path exe = fs::read_symlink(entry.path() / "exe", exeError);
    if (exeError || exe.filename() != "gabfolio-parser-worker") continue;
    std::string environ = ReadFile(entry.path() / "environ");
    for (size_t at = 0; at < environ.size(); at = environ.find('\0', at) + 1) {
      if (environ.compare(at, wanted.size() + 1, wanted + '\0') == 0 ||
          (environ.compare(at, wanted.size(), wanted) == 0 &&
           at + wanted.size() == environ.size())) {
        killed += ::kill(pid_t(std::stoi(pid)), SIGKILL) == 0;
        break;
      }
      if (environ.find('\0', at) == std::string::npos) break;
    }
  }
  return killed;
}

// The parser worker killed at a random moment of an agent pass: the agent
// goes on with the next entry, whose run finishes the work, and one more
// pass leaves the library exactly as an uninterrupted pass does.
TEST_F(ProductTest, WorkerKilledUnderTheAgentEndsAsAnUninterruptedPass) {
  fs::path originals = home() / "originals";
  fs::create_directories(originals);
  for (int i = 0; i < 40; ++i)
    samples::WriteChat(originals.string(),
                       samples::TypicalChat("friend" + std::to_string(i % 9), kMarch2005 + i * 3600,
                                            15, i % 2 == 0));
  // A home of its own with the same transcripts, times included (the record
  // holds them).
  auto makeHome = [&](const std::string& name) {
    fs::path h = home() / name;
    fs::create_directories(h / "Documents/iChats");
    EXPECT_EQ(RunProgram({kTool, "setup"}, {"HOME=" + h.string()}).status, 0);
    for (const auto& f : fs::directory_iterator(originals)) {
      fs::path copy = h / "Documents/iChats" / f.path().filename();
      fs::copy_file(f.path(), copy);
      fs::last_write_time(copy, fs::last_write_time(f.path()));
    }
    return h;
  };
  fs::path reference = makeHome("reference");
  auto started = std::chrono::steady_clock::now();
  Result pass = RunProgram({kAgent, "-debug"}, {"HOME=" + reference.string()});
  ASSERT_EQ(pass.status, 0) << pass.err;
  auto took = std::chrono::steady_clock::now() - started;
  const std::string expected = LibraryState(reference / "Library/Gabfolio");

  std::mt19937 random(::testing::UnitTest::GetInstance()->random_seed());
  std::uniform_int_distribution<int64_t> moment(
      0, std::chrono::duration_cast<std::chrono::microseconds>(took).count());
  int kills = 0;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    fs::path h = makeHome("killed" + std::to_string(round));
    const std::vector<std::string> env = {"HOME=" + h.string()};
    {
      Process agent({kAgent, "-debug"}, env);
      std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
      kills += KillWorkersOf(h);
      ASSERT_TRUE(agent.Wait(120)) << agent.err();
    }
    Result last = RunProgram({kAgent, "-debug"}, env);
    ASSERT_EQ(last.status, 0) << last.err;
    EXPECT_EQ(LibraryState(h / "Library/Gabfolio"), expected);
  }
  RecordProperty("workers_killed", kills);
}

// A mail the server refuses after the connection (a recipient refused, a
// login rejected) stays pending and is sent, exactly once, by the first
// parser run after the server takes it.
TEST_F(ProductTest, MailRefusedAfterConnectingIsSentOnceTheServerTakesIt) {
  if (!HaveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
  struct Case {
    const char* name;
    std::vector<std::string> refusing;  // the server's options while it refuses
    std::string password;               // the password the preferences hold meanwhile
  };
  const Case cases[] = {
      {"recipient refused",
       {"--mode", "reject", "--reject-at", "rcpt", "--reject-reply", "550 5.1.1 no such mailbox"},
       ""},
      // This server answers a bad login late: the transfer ends in our time-out.
      {"login rejected", {"--user", "me", "--password", "right"}, "wrong"},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SmtpServer sink(c.refusing);
    ASSERT_NE(sink.port(), 0);
    const bool login = !c.password.empty();
    {
      Preferences prefs(PrefsPath());
      prefs.SetAppValue("sendEmails", true);
      prefs.SetAppValue("emailServer", std::string("127.0.0.1"));
      prefs.SetAppValue("emailPort", int64_t(sink.port()));
      prefs.SetAppValue("emailAddress", std::string("you@example.org"));
      prefs.SetAppValue("emailOutgoing", std::string("me@example.org"));
      prefs.SetAppValue("emailNeedsUsername", int64_t(login ? 1 : 0));
      prefs.SetAppValue("emailUsername", std::string("me"));
      prefs.SetAppValue("emailPassword", c.password);
      prefs.SetAppValue("emailFails", int64_t(0));
      ASSERT_TRUE(prefs.AppSynchronize());
    }
    Chat chat = samples::TypicalChat("Refused" + std::to_string(n++), kMarch2005, 4, true);
    samples::WriteChat(chats().string(), chat);
    const std::vector<std::string> env = {"GABFOLIO_MAIL_RETRY_SECONDS=0"};
    Result run = RunProgram({kParser, kParser}, env);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(StateOf(chat), parser::State::kMailPending) << run.err;
    EXPECT_EQ(IntValue(ReadPref("emailFails")), 1);
    EXPECT_EQ(sink.MessageCount(), 0);

    // The server takes it now: one mail, and no second on the next run.
    sink.Stop();
    if (login) {
      Preferences prefs(PrefsPath());
      prefs.SetAppValue("emailPassword", std::string("right"));
      ASSERT_TRUE(prefs.AppSynchronize());
    } else {
      sink.SetArgs({});
    }
    ASSERT_TRUE(sink.Start());
    run = RunProgram({kParser, kParser}, env);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(StateOf(chat), parser::State::kDone) << run.err;
    EXPECT_EQ(sink.MessageCount(), 1);
    EXPECT_EQ(IntValue(ReadPref("emailFails")), 0);
    RunProgram({kParser, kParser}, env);
    EXPECT_EQ(sink.MessageCount(), 1);
  }
}

}  // namespace
}  // namespace gab::product
