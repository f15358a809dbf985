// gabfolio import [FOLDER]: adds transcripts that existed before Gabfolio to
// the library and the statistics, without mailing them.  It shares the
// parser's record, so it can be stopped (Ctrl-C) and run again without
// counting anything twice, and the parser never handles them again.

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "library/search_index.h"
#include "parser/library_adapter.h"
#include "parser/processor.h"
#include "parser/run_lock.h"
#include "platform/contacts.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "platform/text.h"
#include "tool/commands.h"
#include "tool/contact_learning.h"
#include "tool/progress.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

namespace gab::tool {
namespace {

namespace fs = std::filesystem;

const char* kHelp =
    "usage: gabfolio import [--learn-contacts | --no-learn-contacts] [FOLDER]\n"
    "\n"
    "Adds the transcripts under FOLDER (default ~/Documents/iChats, searched\n"
    "at any depth for .chat and .ichat files) to the library pages and the\n"
    "statistics, and records them as done.  Nothing is mailed.  Links and\n"
    "images are gathered as the preferences \"handleURLs\" and \"handleImages\"\n"
    "say.  Interrupt it at any time; running it again goes on where it stopped.\n"
    "\n"
    "A chat whose file names the other party (\"Anna Lee on ...\") while the\n"
    "archive knows only their account (\"annalee\") would count their words as\n"
    "yours.  On a terminal the import offers to add a contact card for such\n"
    "accounts first (see 'gabfolio contacts --help'):\n"
    "  --learn-contacts      add them without asking\n"
    "  --no-learn-contacts   never add them\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 bad usage, 130 interrupted.\n";

void Interrupt(int) {
  keepRunning = 0;
}

enum class Learning { kAsk, kYes, kNo };

// The parser's library, with a look at each loaded chat's party first: a
// card learned here is in Contacts.vcf before the chat is counted.
class ImportLibrary : public parser::TranscriptLibrary {
 public:
  ImportLibrary(Preferences& prefs, std::string folder, Learning learning,
                std::function<bool()> ask)
      : TranscriptLibrary(prefs),
        folder_(std::move(folder) + "/"),
        learning_(learning),
        ask_(std::move(ask)) {}

  std::unique_ptr<ICLPChatLog> Load(const std::string& path, std::string* reason) override {
    auto log = TranscriptLibrary::Load(path, reason);
    if (!log) return log;
    PartyCheck check = CheckParty(*log);
    // Named as the summary names unreadable files: below the folder.
    std::string_view where = path;
    if (where.rfind(folder_, 0) == 0) where.remove_prefix(folder_.size());
    learner_.Note(check, std::string(where));
    if (check.kind != PartyCheck::kLearnable) return log;
    if (learning_ == Learning::kAsk) learning_ = ask_() ? Learning::kYes : Learning::kNo;
    if (learning_ == Learning::kYes && error_.empty()) {
      std::vector<ContactLearner::Card> written;
      ContactLearner::Append({{check.account, check.given, check.family, 1}}, &written, &error_);
      for (auto& card : written) learned_.push_back(std::move(card));
    }
    return log;
  }

  const ContactLearner& learner() const { return learner_; }
  const std::vector<ContactLearner::Card>& learned() const { return learned_; }
  const std::string& learnError() const { return error_; }
  bool declined() const { return learning_ == Learning::kNo; }

 private:
  std::string folder_;
  Learning learning_;
  std::function<bool()> ask_;
  ContactLearner learner_;
  std::vector<ContactLearner::Card> learned_;
  std::string error_;
};

// A word the shell reads back as it is.
std::string ShellQuoted(const std::string& word) {
  bool plain = !word.empty();
  for (char c : word)
    plain = plain && (std::isalnum(static_cast<unsigned char>(c)) || std::strchr("_./-+:,@", c));
  if (plain) return word;
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

void Line(const char* label, long long value, const char* note = "") {
  std::printf("%-27s %lld%s\n", label, value, note);
}

}  // namespace

int RunImport(int argc, char** argv) {
  std::string folder;
  Learning learning =
      isatty(STDIN_FILENO) && isatty(STDERR_FILENO) ? Learning::kAsk : Learning::kNo;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kOk;
    }
    if (a == "--learn-contacts" || a == "--no-learn-contacts") {
      learning = a == "--learn-contacts" ? Learning::kYes : Learning::kNo;
      continue;
    }
    if (!a.empty() && a[0] == '-') {
      return UsageError("import", "unknown option '" + a + "'");
    }
    if (!folder.empty()) {
      return UsageError("import", "one folder at a time");
    }
    folder = a;
  }

  const std::string data = DataFolder();
  std::error_code ec;
  if (!fs::is_directory(data, ec)) {
    std::fprintf(stderr, "gabfolio import: %s is missing; run 'gabfolio setup' first\n",
                 data.c_str());
    return kFailure;
  }
  parser::RunOptions options;
  options.dataFolder = data;
  const std::string transcripts = TranscriptFolder();
  const std::string given = folder;
  if (folder.empty()) folder = transcripts;
  fs::path abs = fs::weakly_canonical(fs::absolute(folder, ec), ec);
  if (ec || !fs::is_directory(abs, ec)) {
    std::fprintf(stderr, "gabfolio import: %s is not a folder\n", folder.c_str());
    return kFailure;
  }
  options.transcriptFolder = abs.string();
  if (abs != fs::weakly_canonical(transcripts, ec)) options.recordKeyPrefix = abs.string() + "/";
  options.importing = true;

  keepRunning = 1;
  struct sigaction sa {};
  sa.sa_handler = Interrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  parser::RunLock lock;
  std::string lockError;
  if (!lock.Acquire(parser::LockPath(data), 0, &lockError)) {
    if (!lockError.empty()) {
      std::fprintf(stderr, "gabfolio import: nothing imported: %s\n",
                   EscapeControlCharacters(lockError).c_str());
      return kFailure;
    }
    std::fprintf(stderr, "gabfolio import: waiting for a parser run to finish...\n");
    if (!lock.Acquire(parser::LockPath(data), 600)) {
      std::fprintf(stderr, "gabfolio import: the transcripts are still busy; try again later\n");
      return kFailure;
    }
  }

  Preferences& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  options.handleURLs = prefs.Bool("handleURLs");
  options.handleImages = prefs.Bool("handleImages");

  ProgressBar bar("Importing");
  options.progress = [&](size_t done, size_t total, const std::string& item) {
    bar.Update(done, total, EscapeControlCharacters(item));
  };
  SearchIndexKeeper index(data, transcripts);
  options.loaded = [&](const std::string& key, int64_t size, int64_t mtimeNs,
                       const ICLPChatLog* log) { index.Loaded(key, size, mtimeNs, log); };
  auto ask = [&] {
    bar.Finish();
    std::fprintf(stderr,
                 "Some chats name the other party as iChat showed them, while their archive\n"
                 "knows only the account, so their words would count as yours.  Add a contact\n"
                 "card for each such account to %s/Contacts.vcf\n"
                 "(your own cards stay as they are)? [Y/n] ",
                 Contacts::Folder().c_str());
    char answer[16] = "";
    if (!std::fgets(answer, sizeof answer, stdin)) return false;
    return answer[0] != 'n' && answer[0] != 'N';
  };
  ImportLibrary library(prefs, options.transcriptFolder, learning, ask);
  parser::RunSummary s = parser::ProcessTranscripts(library, options);
  bar.Finish();
  if (!s.stopped) {
    ProgressBar indexing("Indexing");
    SyncOptions sync;
    sync.progress = [&](size_t done, size_t total, const std::string& item) {
      indexing.Update(done, total, EscapeControlCharacters(item));
    };
    sync.stop = [] { return !keepRunning; };
    index.Finish(sync, true);
  }

  if (!s.saveError.empty() && s.found == 0) {
    // The last run's unfinished save could not be completed: nothing was read.
    std::fprintf(stderr, "gabfolio import: nothing imported: the library in %s: %s\n", data.c_str(),
                 EscapeControlCharacters(s.saveError).c_str());
    return kFailure;
  }
  Line("Transcripts found:", s.found);
  Line("Imported now:", s.processed);
  Line("Already in the library:", s.unchanged);
  Line("Messages added:", s.messages);
  Line("Links added:", s.links, options.handleURLs ? "" : " (gathering links is off)");
  Line("Images added:", s.images, options.handleImages ? "" : " (gathering images is off)");
  Line("Unreadable files:", static_cast<long long>(s.unreadable.size()));
  for (const auto& [path, reason] : s.unreadable)
    std::printf("  %s: %s\n", EscapeControlCharacters(path).c_str(),
                EscapeControlCharacters(reason).c_str());
  if (!s.miscased.empty()) {
    Line("Skipped, extension's case:", static_cast<long long>(s.miscased.size()),
         " (rename them to end in .chat or .ichat)");
    for (const auto& path : s.miscased)
      std::printf("  %s\n", EscapeControlCharacters(path).c_str());
  }
  const ContactLearner& learner = library.learner();
  if (learner.unmatched() > 0) {
    Line("Chats without their party:", learner.unmatched(),
         library.learned().empty() ? " (no speaker has the name the file gives)"
                                   : " (until the cards below were added)");
    if (!library.learned().empty()) {
      Line("Contact cards added:", static_cast<long long>(library.learned().size()),
           (" to " + Contacts::Folder() + "/Contacts.vcf").c_str());
      for (const auto& card : library.learned())
        std::printf("  %s %s: AIM account %s\n",
                    EscapeControlCharacters(ToUtf8(card.given)).c_str(),
                    EscapeControlCharacters(ToUtf8(card.family)).c_str(),
                    EscapeControlCharacters(ToUtf8(card.account)).c_str());
    } else if (!learner.Cards().empty()) {
      std::printf(
          "  Their words were counted as yours.  'gabfolio contacts learn' adds cards for\n"
          "  %zu account(s), so that the chats counted after it count them right.\n",
          learner.Cards().size());
    }
    for (const auto& skipped : learner.skipped())
      std::printf("  %s: %s\n", EscapeControlCharacters(skipped.where).c_str(),
                  skipped.why.c_str());
  }
  if (!library.learnError().empty())
    std::fprintf(stderr, "gabfolio import: no contact cards added: %s\n",
                 EscapeControlCharacters(library.learnError()).c_str());
  if (s.stopped) {
    std::printf("Interrupted; to go on, run: gabfolio import%s\n",
                given.empty() ? "" : (" " + EscapeControlCharacters(ShellQuoted(given))).c_str());
    return 130;
  }
  if (!s.saveError.empty()) {
    std::fprintf(stderr,
                 "gabfolio import: could not save the library in %s: %s\n"
                 "The counts above are what was saved; the next run finishes the rest.\n",
                 data.c_str(), EscapeControlCharacters(s.saveError).c_str());
    return kFailure;
  }
  if (s.processed) std::printf("See the library with 'gabfolio view'.\n");
  return kOk;
}

}  // namespace gab::tool
