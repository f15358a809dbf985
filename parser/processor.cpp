#include "parser/processor.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <unordered_map>

#include "platform/contacts.h"
#include "platform/log.h"
#include "platform/report_error.h"
#include "platform/transcript_files.h"
#include "platform/write_batch.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

namespace gab::parser {
namespace {

// A batch of links and images is gathered after this many transcripts or
// this much time, whichever comes first.
constexpr size_t kBatchTranscripts = 200;
constexpr auto kBatchTime = std::chrono::seconds(10);

int64_t SystemNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool SameFile(const RecordEntry& e, const FoundTranscript& f) {
  return e.size == f.size && e.mtimeNs == f.mtimeNs;
}

// Entries of the record whose file is gone, by size and mtime: a transcript
// moved to another place in the folder (mv keeps both) takes its entry along
// instead of being counted again.
using Vanished = std::multimap<std::pair<int64_t, int64_t>, std::string>;

struct Found : FoundTranscript {
  std::string key;  // in the record
};

Vanished FindVanished(const Record& record, const std::vector<Found>& found) {
  std::unordered_map<std::string_view, bool> present;
  present.reserve(found.size());
  for (const auto& f : found) present.emplace(f.key, true);
  Vanished out;
  for (const auto& [path, e] : record.transcripts)
    if (!present.count(path)) out.emplace(std::make_pair(e.size, e.mtimeNs), path);
  return out;
}

class Run {
 public:
  Run(Library& library, const RunOptions& options)
      : library_(library), options_(options), recordPath_(RecordPath(options.dataFolder)) {}

  RunSummary Go();

 private:
  int64_t Now() const { return options_.now ? options_.now() : SystemNow(); }
  bool NeedsWork(const FoundTranscript& f, const RecordEntry* e) const;
  std::unique_ptr<ICLPChatLog> Handle(const FoundTranscript& f, RecordEntry& e);
  void Save();
  void Flush();  // a failure is kept in summary_.saveError
  void SaveFailed(const std::string& what, const std::string& why);

  // Counts of the batch not yet committed; they reach the summary with it.
  struct Added {
    int64_t processed = 0, messages = 0, links = 0, images = 0;
  };

  Library& library_;
  const RunOptions& options_;
  std::string recordPath_;
  Record record_;
  RunSummary summary_;
  std::vector<std::shared_ptr<ICLPInstantMessage>> batch_;  // new messages not yet gathered
  size_t batchTranscripts_ = 0;
  std::chrono::steady_clock::time_point lastFlush_ = std::chrono::steady_clock::now();
  Added added_;
  // An import's earliest counted message: the statistics start no later.
  std::optional<Date> earliest_;
  // Every write into the data folder (stores, pages, logs, images, the
  // record) is held here until the batch commits, so a run killed at any
  // moment leaves the library and the record as they were after the last
  // commit, and the next run does the rest exactly once.
  std::unique_ptr<WriteBatch> writes_;
};

bool Run::NeedsWork(const FoundTranscript& f, const RecordEntry* e) const {
  if (!e || !SameFile(*e, f)) return true;
  switch (e->state) {
    case State::kDone:
    case State::kUnreadable:
      return false;
    case State::kWaiting:
      return true;
    case State::kMailPending:
      // An import mails nothing, so it leaves a pending mail for the parser.
      return !options_.importing;
  }
  return false;
}

// Held by the batch with the library's writes; see Flush.
void Run::Save() {
  SaveRecord(recordPath_, record_);
}

// Returns the transcript when it loaded.
std::unique_ptr<ICLPChatLog> Run::Handle(const FoundTranscript& f, RecordEntry& e) {
  Contacts::Hold contacts;
  const std::string full = options_.transcriptFolder + "/" + f.relativePath;
  e.size = f.size;
  e.mtimeNs = f.mtimeNs;

  std::string reason;
  std::unique_ptr<ICLPChatLog> log = library_.Load(full, &reason);
  if (!log) {
    if (reason.empty()) reason = "not a transcript";
    // The loader has logged why (one line); the record keeps the reason.
    e.state = State::kUnreadable;
    e.reason = reason;
    summary_.unreadable.emplace_back(f.relativePath, reason);
    Save();
    return nullptr;
  }

  if (!options_.importing && !library_.ChatHasEnded(*log)) {
    e.state = State::kWaiting;
    e.reason = "the chat is still open";
    ++summary_.waiting;
    Save();
    return log;
  }

  const auto& messages = log->Messages();
  const int64_t count = int64_t(messages.size());
  // A transcript that shrank was rewritten; what it lost stays in the library
  // and only messages beyond the handled count are ever added.
  const int64_t from = std::min(e.handled, count);
  const bool hasNew = count > from;

  // Mail the whole chat when it has something new, or when an earlier mail
  // of it failed.
  bool mailNow = false, mailPending = false;
  if (!options_.importing && options_.sendEmails && (hasNew || e.state == State::kMailPending)) {
    if (Now() < record_.mailRetryAfter) {
      mailPending = true;
      e.reason = "mail waits for a retry";
    } else {
      mailNow = true;
    }
  }
  if (mailNow) {
    std::string error;
    if (library_.Mail(*log, &error)) {
      ++summary_.mailed;
      record_.mailRetryAfter = 0;
    } else {
      ++summary_.mailFailed;
      mailPending = true;
      e.reason = "mail failed: " + (error.empty() ? std::string("unknown error") : error);
      record_.mailRetryAfter = Now() + options_.mailRetryDelaySeconds;
    }
  }

  // The record's "handled" and the library's additions commit together.
  e.handled = count;
  e.state = mailPending ? State::kMailPending : State::kDone;
  if (!mailPending) e.reason.clear();
  Save();

  if (hasNew) {
    std::vector<std::shared_ptr<ICLPInstantMessage>> fresh(messages.begin() + from, messages.end());
    batch_.insert(batch_.end(), fresh.begin(), fresh.end());
    ++batchTranscripts_;
    auto part =
        ICLPChatLog::FromParts(log->primaryOtherParty(), std::move(fresh), log->Participants());
    library_.CountStatistics(*part);
    if (options_.importing)
      for (const auto& m : part->Messages())
        if (auto t = m ? m->TimeStamp() : std::nullopt;
            t && (!earliest_ || t->time < earliest_->time))
          earliest_ = t;
    ++added_.processed;
    added_.messages += count - from;
    if (!options_.progress)
      NSLog("Processed " + f.relativePath + ": " + std::to_string(count - from) + " new messages" +
            (mailNow && !mailPending ? ", mailed" : ""));
  }
  // A mail's outcome is committed at once, so a kill after the server took
  // the mail does not send it again.
  if (mailNow) Flush();
  return log;
}

// Links and images go into the stores, pages and text logs for many
// transcripts at once: every store and page write is a whole-file replace
// with an fsync, and one per transcript made a first run over a big folder
// crawl.  Each message keeps its own speaker and time, so the result is the
// same as adding the transcripts one by one.
void Run::Flush() {
  if (!batch_.empty()) {
    auto all = ICLPChatLog::FromParts(u"", std::move(batch_));
    batch_.clear();
    if (options_.handleURLs)
      added_.links += library_.GatherLinks(*all, options_.dataFolder + "/links.txt");
    if (options_.handleImages)
      added_.images += library_.GatherImages(*all, options_.dataFolder + "/images.txt");
  }
  if (earliest_) library_.BackdateStatistics(*earliest_);
  lastFlush_ = std::chrono::steady_clock::now();
  std::string error;
  if (writes_->Commit(&error)) {
    summary_.processed += added_.processed;
    summary_.messages += added_.messages;
    summary_.links += added_.links;
    summary_.images += added_.images;
    if (!options_.progress && (added_.links || added_.images))
      NSLog("Gathered " + std::to_string(added_.links) + " links and " +
            std::to_string(added_.images) + " images from " + std::to_string(batchTranscripts_) +
            " transcripts");
  } else {
    // Nothing of the batch counts as done: the record on disk still says
    // what the library holds, and a later run takes the work up again.
    SaveFailed("Unable to save the library in " + options_.dataFolder, error);
  }
  batchTranscripts_ = 0;
  added_ = {};
}

void Run::SaveFailed(const std::string& what, const std::string& why) {
  NSLog(what + ": " + why);
  reportError(ErrorCode::kFileSystem, u"permissions");
  summary_.saveError = why;
}

RunSummary Run::Go() {
  // A run killed while applying its last batch finishes that batch first.
  std::string recovery;
  if (!RecoverWriteBatch(options_.dataFolder, &recovery)) {
    SaveFailed("Unable to finish the last save of the library", recovery);
    return summary_;
  }
  writes_ = std::make_unique<WriteBatch>(options_.dataFolder);
  bool damaged = false;
  record_ = LoadRecord(recordPath_, &damaged);
  if (damaged) {
    // Keep the unreadable record for the user rather than overwrite it; the
    // transcripts are then handled afresh.
    std::string aside = recordPath_ + ".damaged";
    std::rename(recordPath_.c_str(), aside.c_str());
    NSLog("The record " + recordPath_ + " was unreadable; kept as " + aside);
  }

  std::vector<Found> found;
  for (auto& f : FindTranscripts(options_.transcriptFolder, &summary_.miscased)) {
    std::string key = options_.recordKeyPrefix + f.relativePath;
    found.push_back({std::move(f), std::move(key)});
  }
  summary_.found = int64_t(found.size());

  std::vector<size_t> work;
  for (size_t i = 0; i < found.size(); ++i) {
    auto it = record_.transcripts.find(found[i].key);
    const RecordEntry* e = it == record_.transcripts.end() ? nullptr : &it->second;
    if (NeedsWork(found[i], e))
      work.push_back(i);
    else if (e->state == State::kUnreadable)
      // Still unreadable as it was: named in every run, not counted as done.
      summary_.unreadable.emplace_back(found[i].relativePath, e->reason);
    else
      ++summary_.unchanged;
  }
  if (work.empty()) return summary_;

  const auto started = std::chrono::steady_clock::now();
  Vanished vanished;
  bool vanishedBuilt = false;
  for (size_t n = 0; n < work.size(); ++n) {
    const Found& f = found[work[n]];
    if (options_.progress) options_.progress(n, work.size(), f.relativePath);
    if (!keepRunning) {
      summary_.stopped = true;
      break;
    }
    auto now = std::chrono::steady_clock::now();
    // At least one transcript per run, so that every run makes progress.
    if (n > 0 && options_.timeBudgetSeconds > 0 &&
        now - started > std::chrono::duration<double>(options_.timeBudgetSeconds)) {
      summary_.deferred = int64_t(work.size() - n);
      NSLog(std::to_string(summary_.deferred) + " transcripts are left for the next run");
      break;
    }
    if (batchTranscripts_ >= kBatchTranscripts || now - lastFlush_ > kBatchTime) Flush();
    if (!summary_.saveError.empty()) break;  // here, or in the last transcript's mail commit
    auto it = record_.transcripts.find(f.key);
    if (it == record_.transcripts.end()) {
      if (!vanishedBuilt) {
        vanished = FindVanished(record_, found);
        vanishedBuilt = true;
      }
      RecordEntry fresh;
      auto moved = vanished.find({f.size, f.mtimeNs});
      if (moved != vanished.end()) {
        fresh = record_.transcripts[moved->second];
        record_.transcripts.erase(moved->second);
        vanished.erase(moved);
        if (fresh.state != State::kWaiting && fresh.state != State::kMailPending) {
          // Moved, not changed: nothing to do but remember the new place.
          record_.transcripts.emplace(f.key, fresh);
          ++summary_.unchanged;
          Save();
          continue;
        }
      }
      it = record_.transcripts.emplace(f.key, fresh).first;
    }
    RecordEntry& e = it->second;
    auto log = Handle(f, e);
    if (options_.loaded) options_.loaded(f.key, f.size, f.mtimeNs, log.get());
  }
  if (summary_.saveError.empty()) Flush();
  // An interrupted run's bar stays where it stopped.
  if (options_.progress && !summary_.stopped) options_.progress(work.size(), work.size(), "");
  return summary_;
}

}  // namespace

std::string RecordPath(const std::string& dataFolder) {
  return dataFolder + "/processed.plist";
}
std::string LockPath(const std::string& dataFolder) {
  return dataFolder + "/processed.plist.lock";
}

RunSummary ProcessTranscripts(Library& library, const RunOptions& options) {
  return Run(library, options).Go();
}

}  // namespace gab::parser
