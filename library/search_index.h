#pragma once
// The full-text index of the transcripts: an SQLite database with FTS5 in the
// data folder.  It is a cache: everything in it comes from the transcripts,
// so a missing, unreadable or outdated index is simply built again.
//
// A transcript is known by its key: its path relative to the transcript
// folder, or an absolute path for one imported from elsewhere.  Messages are
// append-only in iChat, so a transcript that grew with its earlier messages
// unchanged only adds the new ones; any other change re-indexes it whole.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "library/chat_html.h"
#include "platform/dates.h"

struct sqlite3;

namespace gab {

class ICLPChatLog;
class ICLPInstantMessage;

// ~/Library/Gabfolio/search-index.sqlite (given the data folder).
std::string SearchIndexPath(const std::string& dataFolder);

// Around each matched word of a snippet.
inline constexpr char kMatchStart = '\x01';
inline constexpr char kMatchEnd = '\x02';

// The user's query as an FTS5 expression: words (all must match), "quoted
// phrases" and prefix* terms, with every other character taken literally, so
// no input is a syntax error.  Nothing when the query holds no term.
std::optional<std::string> FtsQuery(std::string_view userQuery);

// "YYYY", "YYYY-MM" or "YYYY-MM-DD" in local time: the first moment of that
// period, or (with `end`) its last.  Nothing for any other text.
std::optional<Date> ParseSearchDate(std::string_view text, bool end);

struct SearchQuery {
  std::string text;                  // as the user typed it
  std::string person;                // "" for everyone; else a chat's person or participant
  std::optional<Date> since, until;  // inclusive bounds on the message time
  bool byRelevance = false;          // else newest first
  int limit = 100;                   // 0: no limit
  int offset = 0;
};

struct SearchHit {
  std::string transcript;  // key
  int64_t position = 0;    // index of the message in the transcript
  Date time;
  std::string person, speaker;
  std::string snippet;  // plain text; matches between kMatchStart and kMatchEnd
};

struct PersonSummary {
  std::string name;  // the chats' other party (a group chat's own name)
  int64_t chats = 0;
  int64_t messages = 0;
  Date first, last;
  bool group = false;  // every chat with this name had several participants
};

struct ChatSummary {
  std::string transcript;  // key
  std::string person;
  std::vector<std::string> people;  // participants by display name
  Date first, last;
  int64_t messages = 0;
  std::string firstLine;
};

struct SyncSummary {
  int64_t found = 0, unchanged = 0, indexed = 0, removed = 0, unreadable = 0;
  bool finished = false;  // false when stopped or out of time
};

struct SyncOptions {
  // Before each transcript that is loaded (index, count, key).
  std::function<void(size_t, size_t, const std::string&)> progress;
  double budgetSeconds = 0;    // 0: no limit
  std::function<bool()> stop;  // polled between transcripts
};

class SearchIndex {
 public:
  // Opens the index at `path`, creating it when missing and building it
  // afresh (one log line) when it is unreadable or of another version.
  // Nothing only when not even a new one can be made (reason in `error`).
  static std::unique_ptr<SearchIndex> Open(const std::string& path, std::string* error = nullptr);
  ~SearchIndex();
  SearchIndex(const SearchIndex&) = delete;
  SearchIndex& operator=(const SearchIndex&) = delete;

  const std::string& path() const { return path_; }
  // True once a full pass over the transcript folder has finished.
  bool Complete();
  // The file was replaced (rebuilt by another process): open the new one.
  void ReopenIfReplaced();

  enum class Change { kUnchanged, kAdded, kGrown, kReindexed, kFailed };
  // Brings one loaded transcript into the index.
  Change Add(const std::string& key, int64_t size, int64_t mtimeNs, const ICLPChatLog& log);
  // Remembers a transcript that does not load, so it is not tried again
  // until the file changes.
  void AddUnreadable(const std::string& key, int64_t size, int64_t mtimeNs);
  void Remove(const std::string& key);
  // True when the index holds the transcript as it is on disk.
  bool IsCurrent(const std::string& key, int64_t size, int64_t mtimeNs);

  // Makes the index match the transcript folder: loads new and changed
  // transcripts, drops vanished ones (imported ones outside the folder too).
  SyncSummary Sync(const std::string& transcriptFolder, const SyncOptions& options = {});
  // Forgets everything (imported transcripts outside the folder are kept as
  // keys, to be loaded again by the next Sync).
  bool Clear();

  // Hits; an empty list with `error` set when the query holds no term.
  std::vector<SearchHit> Search(const SearchQuery& query, std::string* error = nullptr);
  std::vector<PersonSummary> People();
  std::vector<ChatSummary> Chats(const std::string& person);  // newest first
  std::optional<ChatSummary> Chat(const std::string& key);
  // Every message of a chat in order, status lines too.
  std::vector<ChatMessage> ChatMessages(const std::string& key);
  int64_t MessageCount();  // searchable messages
  // One-to-one chats in which no message comes from a speaker with the
  // party's name (its words counted as the user's).
  int64_t ChatsWithoutTheirParty();

 private:
  struct Statements;
  explicit SearchIndex(std::string path);
  bool OpenFile(std::string* error);
  void CloseFile();
  bool Recreate(const std::string& why);
  bool CheckDamage();  // after a failed statement: rebuilds a damaged file
  bool Exec(const char* sql);
  bool Begin();
  bool Commit();
  void Rollback();
  Change AddInTransaction(const std::string& key, int64_t size, int64_t mtimeNs,
                          const ICLPChatLog& log);
  void RemoveMessages(int64_t transcriptId, int64_t fromPosition);
  // The row of the transcript at `key`, -1 when it has none.
  int64_t TranscriptId(const std::string& key);
  // Drops the transcript's messages and people, keeping its row.
  void ForgetContents(int64_t transcriptId);
  int64_t NameId(const std::string& name);  // added when new
  SyncSummary SyncOnce(const std::string& transcriptFolder, const SyncOptions& options,
                       bool* rebuilt);

  std::string path_;
  sqlite3* db_ = nullptr;
  std::unique_ptr<Statements> st_;
  bool inTransaction_ = false;
  bool damaged_ = false;
  uint64_t device_ = 0, inode_ = 0;
};

// Keeps the index current beside a processing run (the parser worker and
// `gabfolio import`): each transcript the run loads is added as it stands,
// and the index is opened only then, so a run that loads nothing never
// touches it.
class SearchIndexKeeper {
 public:
  SearchIndexKeeper(std::string dataFolder, std::string transcriptFolder)
      : dataFolder_(std::move(dataFolder)), transcriptFolder_(std::move(transcriptFolder)) {}
  // `log` is null for a transcript that did not load.
  void Loaded(const std::string& key, int64_t size, int64_t mtimeNs, const ICLPChatLog* log);
  // After the run: when something changed or the index is not complete (or
  // `always`), brings the rest of the folder in line (vanished ones go).
  void Finish(const SyncOptions& options = {}, bool always = false);

 private:
  void OpenOnce();
  std::string dataFolder_, transcriptFolder_;
  std::unique_ptr<SearchIndex> index_;
  bool opened_ = false, changed_ = false;
};

}  // namespace gab
