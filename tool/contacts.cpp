// gabfolio contacts learn [FOLDER]: writes a contact card for each account
// whose chats name the person only by the name iChat showed, so that their
// words count as theirs.

#include "platform/contacts.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "library/search_index.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/transcript_files.h"
#include "tool/commands.h"
#include "tool/contact_learning.h"
#include "tool/progress.h"
#include "transcript/chat_log.h"

namespace gab::tool {
namespace {

namespace fs = std::filesystem;

const char kHelp[] =
    "usage: gabfolio contacts learn [--dry-run] [FOLDER]\n"
    "\n"
    "A transcript's file names the other party as iChat showed them (\"Anna Lee\n"
    "on 2005-03-01.ichat\"), while the archive knows them by their account\n"
    "(\"annalee\").  Without a contact card linking the two, every word of theirs\n"
    "counts as yours in the statistics.  This reads the one-to-one chats under\n"
    "FOLDER (default ~/Documents/iChats) and adds a card per such AIM account to\n"
    "~/Library/Application Support/AddressBook/Contacts.vcf: given and family\n"
    "name from the shown name, X-AIM the account.  Cards already in the file are\n"
    "never changed, and accounts they carry are left alone.\n"
    "\n"
    "  --dry-run   print the cards without writing them\n"
    "\n"
    "Chats counted before keep their counts; those counted from now on (run it\n"
    "before 'gabfolio import') use the cards.\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 bad usage.\n";

int Usage(const std::string& problem) {
  return UsageError("contacts", problem);
}

struct Affected {
  std::string key, path;
  int64_t size, mtimeNs;
  std::u16string account;
};

// Chats already in the search index show their speakers by the new names.
void RefreshIndex(const std::vector<Affected>& affected,
                  const std::vector<ContactLearner::Card>& written) {
  const std::string path = SearchIndexPath(DataFolder());
  if (affected.empty() || !fs::exists(path)) return;
  auto index = SearchIndex::Open(path);
  if (!index) return;
  for (const auto& a : affected) {
    bool learned = false;
    for (const auto& card : written) learned = learned || card.account == a.account;
    if (!learned || !index->IsCurrent(a.key, a.size, a.mtimeNs)) continue;
    if (auto log = ICLPChatLog::InitWithFilePath(a.path)) {
      index->Remove(a.key);
      index->Add(a.key, a.size, a.mtimeNs, *log);
    }
  }
}

int Learn(const std::string& given, bool dryRun) {
  std::error_code ec;
  const std::string transcripts = TranscriptFolder();
  std::string folder = given.empty() ? transcripts : given;
  fs::path abs = fs::weakly_canonical(fs::absolute(folder, ec), ec);
  if (ec || !fs::is_directory(abs, ec)) {
    std::fprintf(stderr, "gabfolio contacts: %s is not a folder\n",
                 EscapeControlCharacters(folder).c_str());
    return kFailure;
  }
  // Keys as the import and the search index know the transcripts.
  std::string prefix =
      abs == fs::weakly_canonical(transcripts, ec) ? std::string() : abs.string() + "/";

  ContactLearner learner;
  std::vector<Affected> affected;
  auto found = FindTranscripts(abs.string());
  int64_t read = 0;
  {
    ProgressBar bar("Reading");
    for (size_t i = 0; i < found.size(); ++i) {
      const auto& f = found[i];
      bar.Update(i, found.size(), EscapeControlCharacters(f.relativePath));
      std::string path = abs.string() + "/" + f.relativePath;
      auto log = ICLPChatLog::InitWithFilePath(path);
      if (!log) continue;
      ++read;
      PartyCheck check = CheckParty(*log);
      learner.Note(check, f.relativePath);
      if (check.kind == PartyCheck::kLearnable)
        affected.push_back({prefix + f.relativePath, path, f.size, f.mtimeNs, check.account});
    }
  }

  std::printf("Transcripts read:               %lld of %zu\n", static_cast<long long>(read),
              found.size());
  std::printf("Chats without their party:      %d (no speaker has the name the file gives)\n",
              learner.unmatched());
  std::vector<ContactLearner::Card> written;
  const std::string book = Contacts::Folder() + "/Contacts.vcf";
  if (dryRun) {
    written = learner.Cards();
  } else {
    std::string error;
    if (!ContactLearner::Append(learner.Cards(), &written, &error)) {
      std::fprintf(stderr, "gabfolio contacts: %s\n", EscapeControlCharacters(error).c_str());
      return kFailure;
    }
  }
  std::printf("%s %zu%s\n",
              dryRun ? "Cards to add (not written):    " : "Cards added:                   ",
              written.size(), written.empty() || dryRun ? "" : (" to " + book).c_str());
  for (const auto& card : written)
    std::printf("  %s %s: AIM account %s (%d chat%s)\n",
                EscapeControlCharacters(ToUtf8(card.given)).c_str(),
                EscapeControlCharacters(ToUtf8(card.family)).c_str(),
                EscapeControlCharacters(ToUtf8(card.account)).c_str(), card.chats,
                card.chats == 1 ? "" : "s");
  if (!learner.skipped().empty()) {
    std::printf("Not learned:                    %zu\n", learner.skipped().size());
    for (const auto& s : learner.skipped())
      std::printf("  %s: %s\n", EscapeControlCharacters(s.where).c_str(), s.why.c_str());
  }
  if (!dryRun) RefreshIndex(affected, written);
  return kOk;
}

}  // namespace

int RunContacts(int argc, char** argv) {
  std::string sub, folder;
  bool dryRun = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kOk;
    }
    if (a == "--dry-run" || a == "-n") {
      dryRun = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage("unknown option '" + EscapeControlCharacters(a) + "'");
    } else if (sub.empty()) {
      sub = a;
    } else if (folder.empty()) {
      folder = a;
    } else {
      return Usage("one folder at a time");
    }
  }
  if (sub != "learn")
    return Usage(sub.empty() ? "what to do? ('learn')"
                             : "unknown action '" + EscapeControlCharacters(sub) + "'");
  return Learn(folder, dryRun);
}

}  // namespace gab::tool
