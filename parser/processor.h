#pragma once
// One processing run over the transcript folder: the work of the companion
// parser and of `gabfolio import`.  The library operations it drives sit
// behind Library so that the bookkeeping (what is new, what was handled, what
// is retried) can be tested on its own.

#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "parser/record.h"
#include "platform/dates.h"

namespace gab {
class ICLPChatLog;
}

namespace gab::parser {

// What a run asks of the transcript library.
class Library {
 public:
  virtual ~Library() = default;
  // Nothing, with the reason, when the file is unreadable or badly named.
  virtual std::unique_ptr<ICLPChatLog> Load(const std::string& path, std::string* reason) = 0;
  virtual bool ChatHasEnded(const ICLPChatLog& transcript) = 0;
  // Sends the whole transcript; false with a short reason when it failed.
  virtual bool Mail(ICLPChatLog& transcript, std::string* error) = 0;
  // Adds these messages' links (images) to the store, the pages and the text
  // log; returns how many were added.
  virtual int64_t GatherLinks(const ICLPChatLog& messages, const std::string& textLog) = 0;
  virtual int64_t GatherImages(const ICLPChatLog& messages, const std::string& textLog) = 0;
  virtual void CountStatistics(const ICLPChatLog& messages) = 0;
  // Moves the statistics' start back to the earliest imported message.
  virtual void BackdateStatistics(Date /*earliest*/) {}
};

struct RunOptions {
  std::string transcriptFolder;  // ~/Documents/iChats
  std::string dataFolder;        // ~/Library/Gabfolio
  bool sendEmails = false;
  bool handleURLs = true;
  bool handleImages = true;
  // Prefix of the record's keys: "" for the transcript folder; an import of
  // another folder uses the folder's absolute path and "/", so its entries
  // never collide with the transcript folder's.
  std::string recordKeyPrefix;
  // Import: every transcript counts as ended and nothing is mailed.
  bool importing = false;
  int64_t mailRetryDelaySeconds = 30;
  // Clock for the mail retry delay (seconds since the epoch); tests set it.
  std::function<int64_t()> now;
  // A run stops taking up transcripts after this many seconds (0: never), so
  // that the agent's 180-second limit never kills it in the middle; the next
  // run goes on with the rest.
  double timeBudgetSeconds = 0;
  // Called before each transcript that needs work (index, count, path).
  std::function<void(size_t, size_t, const std::string&)> progress;
  // Called with each transcript the run read, after its work on it (record
  // key, size and mtime as found; null when it did not load): the search
  // index follows here.
  std::function<void(const std::string&, int64_t, int64_t, const ICLPChatLog*)> loaded;
};

struct RunSummary {
  int64_t found = 0;      // transcripts in the folder
  int64_t unchanged = 0;  // skipped after a stat
  int64_t processed = 0;  // transcripts whose new messages were added
  int64_t messages = 0;   // new messages added
  int64_t links = 0;
  int64_t images = 0;
  int64_t mailed = 0;
  int64_t mailFailed = 0;
  int64_t waiting = 0;                                          // chats still open
  std::vector<std::pair<std::string, std::string>> unreadable;  // path, reason
  std::vector<std::string> miscased;  // "x.CHAT": skipped, the extension's case is wrong
  bool stopped = false;               // keepRunning was cleared
  int64_t deferred = 0;               // left for the next run (time budget)
  // Why the library and the record could not be saved ("" when they were);
  // what was not saved is done again by a later run.
  std::string saveError;
};

// Paths of the parser's files in the data folder.
std::string RecordPath(const std::string& dataFolder);
std::string LockPath(const std::string& dataFolder);

// One run; the caller holds the lock.  The record and the library's stores,
// pages and logs are committed together, batch by batch, so a run cut short
// at any moment neither loses nor doubles anything: the next run goes on
// from the last commit.
RunSummary ProcessTranscripts(Library& library, const RunOptions& options);

}  // namespace gab::parser
