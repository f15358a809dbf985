#include "library/search_index.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <unordered_map>

#include "library/chat_html.h"
#include "platform/contacts.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/transcript_files.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

// Bumped whenever the tables change: an index of another version is rebuilt.
constexpr int kVersion = 1;

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS transcripts(
  id INTEGER PRIMARY KEY,
  path TEXT NOT NULL UNIQUE,
  size INTEGER NOT NULL,
  mtime INTEGER NOT NULL,
  unreadable INTEGER NOT NULL DEFAULT 0,
  person TEXT NOT NULL DEFAULT '',
  grp INTEGER NOT NULL DEFAULT 0,
  first_time REAL NOT NULL DEFAULT 0,
  last_time REAL NOT NULL DEFAULT 0,
  messages INTEGER NOT NULL DEFAULT 0,
  hash INTEGER NOT NULL DEFAULT 0,
  first_line TEXT NOT NULL DEFAULT '');
CREATE INDEX IF NOT EXISTS transcripts_by_person ON transcripts(person, first_time);
CREATE TABLE IF NOT EXISTS people(transcript INTEGER NOT NULL, name TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS people_by_transcript ON people(transcript);
CREATE TABLE IF NOT EXISTS messages(
  id INTEGER PRIMARY KEY,
  transcript INTEGER NOT NULL,
  position INTEGER NOT NULL,
  time REAL NOT NULL,
  speaker TEXT NOT NULL,
  side INTEGER NOT NULL,
  html TEXT);
CREATE INDEX IF NOT EXISTS messages_by_transcript ON messages(transcript, position);
CREATE TABLE IF NOT EXISTS names(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE COLLATE NOCASE);
CREATE VIRTUAL TABLE IF NOT EXISTS message_text
  USING fts5(text, who, tokenize = 'unicode61 remove_diacritics 2', prefix = '3');
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value) WITHOUT ROWID;
)sql";

// A message's row id orders messages by time: the Unix second above 20 bits
// of room for the messages of one second.  Newest-first search and date
// ranges then run in FTS5's own row id order and stop at the limit instead
// of sorting every match.
constexpr int kSecondShift = 20;
constexpr int kUserSide = ChatMessage::kUser, kOtherSide = ChatMessage::kOther,
              kStatusSide = ChatMessage::kStatus;
constexpr int64_t kMaxSecond = int64_t(1) << 42;

int64_t RowIdFloor(Date d) {
  double s = std::floor(d.Unix());
  if (!(s > 0)) return 0;  // before 1970, or NaN
  if (s >= double(kMaxSecond)) return (kMaxSecond - 1) << kSecondShift;
  return int64_t(s) << kSecondShift;
}

bool IsDamage(int rc) {
  rc &= 0xFF;
  return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
}

// FNV-1a over the parts that make a message itself.
struct Fingerprint {
  uint64_t h = 1469598103934665603ull;
  void Add(const void* data, size_t n) {
    auto* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
  }
  void Add(const ICLPInstantMessage& m) {
    static const char16_t none = 0xFFFF;
    const auto& who = m.speaker ? m.speaker->rawName() : std::nullopt;
    if (who)
      Add(who->data(), who->size() * 2);
    else
      Add(&none, 2);
    double t = m.timestamp ? m.timestamp->time : -1e300;
    Add(&t, sizeof t);
    if (m.string) Add(m.string->text.data(), m.string->text.size() * 2);
    Add(&none, 2);
  }
};

class Stmt {
 public:
  Stmt(sqlite3* db, const char* sql) {
    rc_ = sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &s_, nullptr);
  }
  ~Stmt() { sqlite3_finalize(s_); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
  bool ok() const { return rc_ == SQLITE_OK && s_; }
  int prepareError() const { return rc_; }
  Stmt& Bind(int i, int64_t v) {
    sqlite3_bind_int64(s_, i, v);
    return *this;
  }
  Stmt& Bind(int i, double v) {
    sqlite3_bind_double(s_, i, v);
    return *this;
  }
  Stmt& Bind(int i, std::string_view v) {
    sqlite3_bind_text(s_, i, v.data(), int(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Stmt& BindNull(int i) {
    sqlite3_bind_null(s_, i);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error (the statement is reset after it).
  int Step() {
    int rc = sqlite3_step(s_);
    if (rc != SQLITE_ROW) {
      sqlite3_reset(s_);
      if (rc != SQLITE_DONE) lastError_ = rc;
    }
    return rc;
  }
  void Reset() {
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
  }
  int64_t Int(int c) const { return sqlite3_column_int64(s_, c); }
  double Real(int c) const { return sqlite3_column_double(s_, c); }
  std::string Text(int c) const {
    auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s_, c));
    return p ? std::string(p, size_t(sqlite3_column_bytes(s_, c))) : std::string();
  }
  int lastError() const { return lastError_; }

 private:
  sqlite3_stmt* s_ = nullptr;
  int rc_ = SQLITE_OK;
  int lastError_ = SQLITE_OK;
};

std::string Utf8Name(const std::optional<std::u16string>& name) {
  return name ? ToUtf8(*name) : std::string();
}

bool IsTermCharacter(unsigned char c) {
  return c >= 0x80 || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

std::string SearchIndexPath(const std::string& dataFolder) {
  return dataFolder + "/search-index.sqlite";
}

std::optional<std::string> FtsQuery(std::string_view q) {
  std::string out;
  size_t i = 0;
  while (i < q.size()) {
    if (q[i] == ' ' || q[i] == '\t' || q[i] == '\n' || q[i] == '\r') {
      ++i;
      continue;
    }
    std::string_view term;
    if (q[i] == '"') {
      size_t close = q.find('"', i + 1);
      if (close == std::string_view::npos) close = q.size();
      term = q.substr(i + 1, close - i - 1);
      i = std::min(close + 1, q.size());
    } else {
      size_t end = q.find_first_of(" \t\n\r\"", i);
      if (end == std::string_view::npos) end = q.size();
      term = q.substr(i, end - i);
      i = end;
    }
    bool prefix = false;
    while (!term.empty() && term.back() == '*') {
      term.remove_suffix(1);
      prefix = true;
    }
    if (i < q.size() && q[i] == '*') {  // "a phrase"*
      prefix = true;
      while (i < q.size() && q[i] == '*') ++i;
    }
    // A term of punctuation alone holds no token and would match nothing.
    bool hasToken = false;
    for (char c : term) hasToken |= IsTermCharacter(static_cast<unsigned char>(c));
    if (!hasToken) continue;
    if (!out.empty()) out += " AND ";
    out += '"';
    for (char c : term) {
      if (c == '"') out += '"';
      out += c;
    }
    out += prefix ? "\" *" : "\"";
  }
  if (out.empty()) return std::nullopt;
  return out;
}

std::optional<Date> ParseSearchDate(std::string_view text, bool end) {
  int parts[3] = {0, 1, 1};
  size_t n = 0, i = 0;
  const size_t widths[3] = {4, 2, 2};
  while (n < 3) {
    size_t start = i;
    int value = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < widths[n])
      value = value * 10 + (text[i++] - '0');
    if (i - start != widths[n]) return std::nullopt;
    parts[n++] = value;
    if (i == text.size()) break;
    if (text[i++] != '-') return std::nullopt;
  }
  if (i != text.size() || parts[1] < 1 || parts[1] > 12 || parts[2] < 1 || parts[2] > 31)
    return std::nullopt;
  tm t{};
  t.tm_year = parts[0] - 1900;
  t.tm_mon = parts[1] - 1;
  t.tm_mday = parts[2];
  t.tm_isdst = -1;
  if (end) {
    // The first moment of the next period, less a millisecond.
    if (n == 1) ++t.tm_year;
    if (n == 2) ++t.tm_mon;
    if (n == 3) ++t.tm_mday;
  }
  time_t seconds = mktime(&t);
  if (seconds == time_t(-1)) return std::nullopt;
  return Date::FromUnix(double(seconds) - (end ? 0.001 : 0));
}

// ---- Opening -----------------------------------------------------------------

struct SearchIndex::Statements {
  explicit Statements(sqlite3* db)
      : find(db,
             "SELECT id, size, mtime, messages, hash, unreadable FROM transcripts WHERE path = ?1"),
        insertTranscript(db, "INSERT INTO transcripts(path, size, mtime) VALUES(?1, ?2, ?3)"),
        updateTranscript(db,
                         "UPDATE transcripts SET size = ?2, mtime = ?3, unreadable = 0, person = "
                         "?4, grp = ?5, first_time = ?6, last_time = ?7, messages = ?8, hash = ?9, "
                         "first_line = ?10 WHERE id = ?1"),
        markUnreadable(db,
                       "UPDATE transcripts SET size = ?2, mtime = ?3, unreadable = 1, messages = "
                       "0, hash = 0, first_line = '' WHERE id = ?1"),
        deleteTranscript(db, "DELETE FROM transcripts WHERE id = ?1"),
        deletePeople(db, "DELETE FROM people WHERE transcript = ?1"),
        insertPerson(db, "INSERT INTO people(transcript, name) VALUES(?1, ?2)"),
        insertMessage(db,
                      "INSERT INTO messages(id, transcript, position, time, speaker, side, "
                      "html) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
        insertText(db, "INSERT INTO message_text(rowid, text, who) VALUES(?1, ?2, ?3)"),
        deleteTexts(db,
                    "DELETE FROM message_text WHERE rowid IN (SELECT id FROM messages WHERE "
                    "transcript = ?1 AND position >= ?2)"),
        deleteMessages(db, "DELETE FROM messages WHERE transcript = ?1 AND position >= ?2"),
        findName(db, "SELECT id FROM names WHERE name = ?1"),
        insertName(db, "INSERT INTO names(name) VALUES(?1)") {}
  bool ok() const {
    for (const Stmt* s : {&find, &insertTranscript, &updateTranscript, &markUnreadable,
                          &deleteTranscript, &deletePeople, &insertPerson, &insertMessage,
                          &insertText, &deleteTexts, &deleteMessages, &findName, &insertName})
      if (!s->ok()) return false;
    return true;
  }
  Stmt find, insertTranscript, updateTranscript, markUnreadable, deleteTranscript, deletePeople,
      insertPerson, insertMessage, insertText, deleteTexts, deleteMessages, findName, insertName;
};

SearchIndex::SearchIndex(std::string path) : path_(std::move(path)) {}

SearchIndex::~SearchIndex() {
  CloseFile();
}

void SearchIndex::CloseFile() {
  st_.reset();
  if (db_) sqlite3_close_v2(db_);
  db_ = nullptr;
  inTransaction_ = false;
}

bool SearchIndex::Exec(const char* sql) {
  int rc = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK && IsDamage(rc)) damaged_ = true;
  return rc == SQLITE_OK;
}

// Opens the file, creates the tables when it is new, and prepares the
// statements.  False with damaged_ set when the file is not a usable index.
bool SearchIndex::OpenFile(std::string* error) {
  CloseFile();
  damaged_ = false;
  int rc =
      sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    if (error) *error = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    damaged_ = IsDamage(rc);
    CloseFile();
    return false;
  }
  sqlite3_busy_timeout(db_, 10000);
  sqlite3_extended_result_codes(db_, 1);
  struct stat st {};
  if (stat(path_.c_str(), &st) == 0) device_ = st.st_dev, inode_ = st.st_ino;

  auto fail = [&](const char* what) {
    if (error) *error = std::string(what) + ": " + sqlite3_errmsg(db_);
    damaged_ = damaged_ || IsDamage(sqlite3_extended_errcode(db_));
    CloseFile();
    return false;
  };
  int version = -1;
  {
    Stmt v(db_, "PRAGMA user_version");
    if (!v.ok() || v.Step() != SQLITE_ROW) return fail("cannot read the index");
    version = int(v.Int(0));
    v.Reset();
  }
  if (version != 0 && version != kVersion) {
    if (error) *error = "the index is of another version (" + std::to_string(version) + ")";
    damaged_ = true;
    CloseFile();
    return false;
  }
  if (!Exec("PRAGMA journal_mode = WAL") || !Exec("PRAGMA synchronous = NORMAL"))
    return fail("cannot set up the index");
  if (version == 0) {
    // Another process may be creating it at the same time.
    if (!Exec("BEGIN IMMEDIATE")) return fail("cannot create the index");
    std::string sql = std::string(kSchema) + "PRAGMA user_version = " + std::to_string(kVersion);
    if (!Exec(sql.c_str())) {
      Exec("ROLLBACK");
      return fail("cannot create the index");
    }
    if (!Exec("COMMIT")) return fail("cannot create the index");
  }
  st_ = std::make_unique<Statements>(db_);
  // Tables that are not ours (or not all there) are as good as damaged.
  if (!st_->ok()) {
    damaged_ = true;
    return fail("the index's tables are not as expected");
  }
  return true;
}

bool SearchIndex::Recreate(const std::string& why) {
  CloseFile();
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path_ + suffix).c_str());
  NSLog("The search index " + path_ + " " + why + "; it is built again from the transcripts.");
  std::string error;
  if (!OpenFile(&error)) {
    NSLog("Cannot create the search index " + path_ + ": " + error);
    return false;
  }
  return true;
}

std::unique_ptr<SearchIndex> SearchIndex::Open(const std::string& path, std::string* error) {
  std::unique_ptr<SearchIndex> index(new SearchIndex(path));
  struct stat st {};
  bool existed = stat(path.c_str(), &st) == 0 && st.st_size > 0;
  std::string why;
  if (index->OpenFile(&why)) {
    if (!existed) NSLog("The search index " + path + " is new; it is filled from the transcripts.");
    return index;
  }
  // Only a file that is there but no index of ours is replaced; a folder we
  // cannot write to is reported.
  if (!index->damaged_) {
    if (error) *error = why;
    return nullptr;
  }
  if (!index->Recreate("was unreadable (" + why + ")")) {
    if (error) *error = "cannot create " + path;
    return nullptr;
  }
  return index;
}

void SearchIndex::ReopenIfReplaced() {
  struct stat st {};
  if (db_ && stat(path_.c_str(), &st) == 0 && uint64_t(st.st_dev) == device_ &&
      uint64_t(st.st_ino) == inode_)
    return;
  std::string why;
  if (!OpenFile(&why) && damaged_) Recreate("was unreadable (" + why + ")");
}

bool SearchIndex::CheckDamage() {
  if (!damaged_) return false;
  Recreate("is damaged");
  return true;
}

bool SearchIndex::Begin() {
  if (inTransaction_) return true;
  inTransaction_ = Exec("BEGIN IMMEDIATE");
  return inTransaction_;
}

bool SearchIndex::Commit() {
  if (!inTransaction_) return true;
  inTransaction_ = false;
  if (Exec("COMMIT")) return true;
  Exec("ROLLBACK");
  return false;
}

void SearchIndex::Rollback() {
  if (inTransaction_) Exec("ROLLBACK");
  inTransaction_ = false;
}

bool SearchIndex::Complete() {
  if (!db_) return false;
  Stmt s(db_, "SELECT value FROM meta WHERE key = 'complete'");
  bool complete = s.ok() && s.Step() == SQLITE_ROW && s.Int(0) == 1;
  s.Reset();
  return complete;
}

// ---- Writing -----------------------------------------------------------------

void SearchIndex::RemoveMessages(int64_t id, int64_t from) {
  if (st_->deleteTexts.Bind(1, id).Bind(2, from).Step() != SQLITE_DONE ||
      st_->deleteMessages.Bind(1, id).Bind(2, from).Step() != SQLITE_DONE)
    damaged_ |= IsDamage(sqlite3_extended_errcode(db_));
  st_->deleteTexts.Reset();
  st_->deleteMessages.Reset();
}

int64_t SearchIndex::NameId(const std::string& name) {
  int64_t id = -1;
  if (st_->findName.Bind(1, name).Step() == SQLITE_ROW) id = st_->findName.Int(0);
  st_->findName.Reset();
  if (id >= 0) return id;
  st_->insertName.Bind(1, name).Step();
  st_->insertName.Reset();
  return sqlite3_last_insert_rowid(db_);
}

SearchIndex::Change SearchIndex::AddInTransaction(const std::string& key, int64_t size,
                                                  int64_t mtimeNs, const ICLPChatLog& log) {
  Contacts::Hold contacts;
  Statements& s = *st_;
  int64_t id = -1, oldCount = 0;
  uint64_t oldHash = 0;
  bool wasUnreadable = false;
  if (s.find.Bind(1, key).Step() == SQLITE_ROW) {
    id = s.find.Int(0);
    if (s.find.Int(1) == size && s.find.Int(2) == mtimeNs) {
      s.find.Reset();
      return Change::kUnchanged;
    }
    oldCount = s.find.Int(3);
    oldHash = uint64_t(s.find.Int(4));
    wasUnreadable = s.find.Int(5) != 0;
  }
  s.find.Reset();

  const auto& messages = log.Messages();
  const int64_t count = int64_t(messages.size());
  // The fingerprint of the first oldCount messages tells whether the file
  // only grew.
  Fingerprint fp;
  uint64_t prefixHash = count == 0 || oldCount == 0 ? fp.h : 0;
  std::optional<Date> first, last;
  for (int64_t i = 0; i < count; ++i) {
    const auto& m = messages[size_t(i)];
    if (m) {
      fp.Add(*m);
      if (m->timestamp) {
        if (!first) first = *m->timestamp;
        last = *m->timestamp;
      }
    }
    if (i + 1 == oldCount) prefixHash = fp.h;
  }
  Date fallback = Date::FromUnix(double(mtimeNs) / 1e9);

  Change change;
  int64_t from = 0;
  if (id < 0) {
    if (s.insertTranscript.Bind(1, key).Bind(2, size).Bind(3, mtimeNs).Step() != SQLITE_DONE) {
      s.insertTranscript.Reset();
      damaged_ |= IsDamage(sqlite3_extended_errcode(db_));
      return Change::kFailed;
    }
    s.insertTranscript.Reset();
    id = sqlite3_last_insert_rowid(db_);
    change = Change::kAdded;
  } else if (!wasUnreadable && count >= oldCount && prefixHash == oldHash) {
    from = oldCount;
    change = count > oldCount ? Change::kGrown : Change::kUnchanged;
  } else {
    RemoveMessages(id, 0);
    change = Change::kReindexed;
  }

  std::string firstLine;
  Date time = first.value_or(fallback);
  // Speakers are shared objects: each is named (a contacts lookup) once.
  struct Who {
    std::string name;
    int side;
  };
  std::unordered_map<const ICLPPresentity*, Who> speakers;
  // The chat's person and participants as name tokens ("p12 p40") in a
  // column of their own: a person filter is then one more term of the
  // full-text query instead of a look at every match's transcript.
  std::string who = "p" + std::to_string(NameId(ToUtf8(log.primaryOtherParty())));
  for (const auto& p : log.Participants()) {
    std::string name = p ? Utf8Name(p->Name()) : std::string();
    if (!name.empty()) who += " p" + std::to_string(NameId(name));
  }
  const std::string attachmentBase = "attachment?t=" + QueryValue(key) + "&m=";
  for (int64_t i = 0; i < count; ++i) {
    const auto& m = messages[size_t(i)];
    if (!m) continue;
    if (m->timestamp) time = *m->timestamp;
    bool status = m->isStatusMessage();
    if (i < from) {
      if (firstLine.empty() && !status) firstLine = FirstLine(SearchableText(*m), 120);
      continue;
    }
    // Status lines are kept for the chat page but not searched.
    std::u16string text = SearchableText(*m);
    std::string utf8 = ToUtf8(text);
    std::string html;
    Who speaker{"", kStatusSide};
    if (status) {
      AppendTextHtml(html, utf8);
    } else {
      if (firstLine.empty()) firstLine = FirstLine(text, 120);
      auto it = speakers.find(m->speaker.get());
      if (it == speakers.end()) {
        auto raw = m->rawSpeaker();
        it = speakers
                 .emplace(m->speaker.get(),
                          Who{Utf8Name(m->Speaker()),
                              raw && log.NameInSpeakerList(*raw) ? kOtherSide : kUserSide})
                 .first;
      }
      speaker = it->second;
      if (m->string) html = MessageBodyHtml(*m->string, attachmentBase + std::to_string(i) + "&a=");
    }
    int64_t row = RowIdFloor(time) | (i & ((int64_t(1) << kSecondShift) - 1));
    for (;;) {
      s.insertMessage.Bind(1, row)
          .Bind(2, id)
          .Bind(3, i)
          .Bind(4, time.time)
          .Bind(5, speaker.name)
          .Bind(6, int64_t(speaker.side));
      if (html.empty())
        s.insertMessage.BindNull(7);
      else
        s.insertMessage.Bind(7, html);
      int rc = s.insertMessage.Step();
      if (rc == SQLITE_DONE) break;
      if ((rc & 0xFF) != SQLITE_CONSTRAINT) {
        damaged_ |= IsDamage(rc);
        s.insertMessage.Reset();
        return Change::kFailed;
      }
      ++row;  // another message holds this second's slot
    }
    s.insertMessage.Reset();
    if (status) continue;
    if (s.insertText.Bind(1, row).Bind(2, utf8).Bind(3, who).Step() != SQLITE_DONE) {
      damaged_ |= IsDamage(sqlite3_extended_errcode(db_));
      s.insertText.Reset();
      return Change::kFailed;
    }
    s.insertText.Reset();
  }

  s.deletePeople.Bind(1, id).Step();
  s.deletePeople.Reset();
  for (const auto& p : log.Participants()) {
    if (!p) continue;
    std::string name = Utf8Name(p->Name());
    if (name.empty()) continue;
    s.insertPerson.Bind(1, id).Bind(2, name).Step();
    s.insertPerson.Reset();
  }
  int rc = s.updateTranscript.Bind(1, id)
               .Bind(2, size)
               .Bind(3, mtimeNs)
               .Bind(4, ToUtf8(log.primaryOtherParty()))
               .Bind(5, int64_t(log.Participants().size() > 1))
               .Bind(6, first.value_or(fallback).time)
               .Bind(7, last.value_or(fallback).time)
               .Bind(8, count)
               .Bind(9, int64_t(fp.h))
               .Bind(10, firstLine)
               .Step();
  s.updateTranscript.Reset();
  if (rc != SQLITE_DONE) {
    damaged_ |= IsDamage(rc);
    return Change::kFailed;
  }
  return change;
}

SearchIndex::Change SearchIndex::Add(const std::string& key, int64_t size, int64_t mtimeNs,
                                     const ICLPChatLog& log) {
  ReopenIfReplaced();
  if (!db_) return Change::kFailed;
  bool own = !inTransaction_;
  if (own && !Begin()) {
    CheckDamage();
    return Change::kFailed;
  }
  Change c = AddInTransaction(key, size, mtimeNs, log);
  if (c == Change::kFailed) {
    Rollback();
    CheckDamage();
    return c;
  }
  if (own && !Commit()) {
    CheckDamage();
    return Change::kFailed;
  }
  return c;
}

int64_t SearchIndex::TranscriptId(const std::string& key) {
  Stmt& find = st_->find;
  int64_t id = find.Bind(1, key).Step() == SQLITE_ROW ? find.Int(0) : -1;
  find.Reset();
  return id;
}

void SearchIndex::ForgetContents(int64_t id) {
  RemoveMessages(id, 0);
  st_->deletePeople.Bind(1, id).Step();
  st_->deletePeople.Reset();
}

void SearchIndex::AddUnreadable(const std::string& key, int64_t size, int64_t mtimeNs) {
  if (!db_) return;
  Statements& s = *st_;
  bool own = !inTransaction_;
  if (own && !Begin()) return;
  int64_t id = TranscriptId(key);
  if (id < 0) {
    s.insertTranscript.Bind(1, key).Bind(2, size).Bind(3, mtimeNs).Step();
    s.insertTranscript.Reset();
    id = sqlite3_last_insert_rowid(db_);
  } else {
    ForgetContents(id);
  }
  s.markUnreadable.Bind(1, id).Bind(2, size).Bind(3, mtimeNs).Step();
  s.markUnreadable.Reset();
  if (own) Commit();
}

void SearchIndex::Remove(const std::string& key) {
  if (!db_) return;
  Statements& s = *st_;
  bool own = !inTransaction_;
  if (own && !Begin()) return;
  int64_t id = TranscriptId(key);
  if (id >= 0) {
    ForgetContents(id);
    s.deleteTranscript.Bind(1, id).Step();
    s.deleteTranscript.Reset();
  }
  if (own) Commit();
}

bool SearchIndex::IsCurrent(const std::string& key, int64_t size, int64_t mtimeNs) {
  if (!db_) return false;
  bool current = st_->find.Bind(1, key).Step() == SQLITE_ROW && st_->find.Int(1) == size &&
                 st_->find.Int(2) == mtimeNs;
  st_->find.Reset();
  return current;
}

SyncSummary SearchIndex::Sync(const std::string& folder, const SyncOptions& options) {
  // A file found damaged on the way is built again once, from the start.
  bool rebuilt = false;
  SyncSummary summary = SyncOnce(folder, options, &rebuilt);
  if (rebuilt) summary = SyncOnce(folder, options, &rebuilt);
  return summary;
}

SyncSummary SearchIndex::SyncOnce(const std::string& folder, const SyncOptions& options,
                                  bool* rebuilt) {
  SyncSummary summary;
  *rebuilt = false;
  ReopenIfReplaced();
  if (!db_) return summary;
  struct OnDisk {
    std::string path;
    int64_t size, mtimeNs;
  };
  std::unordered_map<std::string, OnDisk> disk;
  for (auto& f : FindTranscripts(folder))
    disk.emplace(f.relativePath, OnDisk{folder + "/" + f.relativePath, f.size, f.mtimeNs});

  std::vector<std::string> gone;
  std::vector<std::pair<std::string, OnDisk>> work;
  {
    Stmt rows(db_, "SELECT path, size, mtime FROM transcripts");
    while (rows.ok() && rows.Step() == SQLITE_ROW) {
      std::string key = rows.Text(0);
      int64_t size = rows.Int(1), mtime = rows.Int(2);
      if (!key.empty() && key[0] == '/') {
        // Imported from outside the folder: the file itself says.
        struct stat st {};
        if (stat(key.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
          gone.push_back(key);
          continue;
        }
        int64_t m = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
        ++summary.found;
        if (int64_t(st.st_size) == size && m == mtime)
          ++summary.unchanged;
        else
          work.push_back({key, OnDisk{key, int64_t(st.st_size), m}});
        continue;
      }
      auto it = disk.find(key);
      if (it == disk.end()) {
        gone.push_back(key);
      } else if (it->second.size == size && it->second.mtimeNs == mtime) {
        ++summary.unchanged;
        ++summary.found;
        disk.erase(it);
      }
    }
    if (rows.lastError() != SQLITE_OK) damaged_ |= IsDamage(rows.lastError());
  }
  if (CheckDamage()) return *rebuilt = true, summary;
  for (auto& [key, f] : disk) {
    ++summary.found;
    work.push_back({key, std::move(f)});
  }
  std::sort(work.begin(), work.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });

  if (!gone.empty()) {
    Begin();
    for (const auto& key : gone) Remove(key);
    Commit();
    summary.removed = int64_t(gone.size());
  }

  // Commit every few transcripts, so that a long first pass shows progress
  // to readers and a stop loses little.
  const auto started = std::chrono::steady_clock::now();
  auto lastCommit = started;
  size_t done = 0;
  bool stopped = false;
  for (; done < work.size(); ++done) {
    const auto& [key, f] = work[done];
    auto now = std::chrono::steady_clock::now();
    if ((options.stop && options.stop()) ||
        (options.budgetSeconds > 0 &&
         now - started > std::chrono::duration<double>(options.budgetSeconds))) {
      stopped = true;
      break;
    }
    if (options.progress) options.progress(done, work.size(), key);
    if (!inTransaction_ && !Begin()) break;
    std::string why;
    auto log = ICLPChatLog::InitWithFilePath(f.path, &why);
    if (!log) {
      AddUnreadable(key, f.size, f.mtimeNs);
      ++summary.unreadable;
    } else if (AddInTransaction(key, f.size, f.mtimeNs, *log) == Change::kFailed) {
      Rollback();
      if (CheckDamage()) return *rebuilt = true, summary;
      break;
    } else {
      ++summary.indexed;
    }
    if (now - lastCommit > std::chrono::seconds(1)) {
      Commit();
      lastCommit = now;
    }
  }
  Commit();
  if (CheckDamage()) return *rebuilt = true, summary;
  if (options.progress) options.progress(work.size(), work.size(), "");
  summary.finished = !stopped && done == work.size();
  if (summary.finished) Exec("INSERT OR REPLACE INTO meta(key, value) VALUES('complete', 1)");
  return summary;
}

bool SearchIndex::Clear() {
  ReopenIfReplaced();
  if (!db_) return false;
  std::vector<std::string> outside;
  {
    Stmt rows(db_, "SELECT path FROM transcripts WHERE substr(path, 1, 1) = '/'");
    while (rows.ok() && rows.Step() == SQLITE_ROW) outside.push_back(rows.Text(0));
  }
  if (!Begin()) return false;
  bool ok = Exec(
      "DELETE FROM message_text; DELETE FROM messages; DELETE FROM people; DELETE FROM names; "
      "DELETE FROM transcripts; DELETE FROM meta;");
  // Placeholders (size -1) that the next Sync loads again.
  for (const auto& key : outside) {
    st_->insertTranscript.Bind(1, key).Bind(2, int64_t(-1)).Bind(3, int64_t(-1)).Step();
    st_->insertTranscript.Reset();
  }
  if (!ok) {
    Rollback();
    CheckDamage();
    return false;
  }
  return Commit();
}

// ---- Reading -----------------------------------------------------------------

std::vector<SearchHit> SearchIndex::Search(const SearchQuery& q, std::string* error) {
  std::vector<SearchHit> hits;
  auto fts = FtsQuery(q.text);
  if (!fts) {
    if (error) *error = "nothing to search for: give a word, a \"phrase\" or a prefix*";
    return hits;
  }
  ReopenIfReplaced();
  if (!db_) {
    if (error) *error = "the search index cannot be opened";
    return hits;
  }
  std::string match = "text : (" + *fts + ")";
  if (!q.person.empty()) {
    int64_t person = -1;
    if (st_->findName.Bind(1, q.person).Step() == SQLITE_ROW) person = st_->findName.Int(0);
    st_->findName.Reset();
    if (person < 0) return hits;  // nobody of that name
    match += " AND who : \"p" + std::to_string(person) + "\"";
  }
  std::string sql =
      "SELECT m.position, m.time, m.speaker, t.path, t.person, "
      "snippet(message_text, 0, char(1), char(2), '\u2026', 24) "
      "FROM message_text JOIN messages m ON m.id = message_text.rowid "
      "JOIN transcripts t ON t.id = m.transcript "
      "WHERE message_text MATCH ?1 AND message_text.rowid BETWEEN ?2 AND ?3 "
      "AND m.time BETWEEN ?7 AND ?8 ";
  sql += q.byRelevance ? "ORDER BY bm25(message_text, 1, 0), message_text.rowid DESC "
                       : "ORDER BY message_text.rowid DESC ";
  sql += "LIMIT ?5 OFFSET ?6";
  Stmt s(db_, sql.c_str());
  if (!s.ok()) {
    damaged_ |= IsDamage(s.prepareError());
    if (error) *error = sqlite3_errmsg(db_);
    CheckDamage();
    return hits;
  }
  int64_t lo = q.since ? RowIdFloor(*q.since) : 0;
  int64_t hi = q.until ? (RowIdFloor(*q.until) | ((int64_t(1) << kSecondShift) - 1))
                       : std::numeric_limits<int64_t>::max();
  s.Bind(1, match).Bind(2, lo).Bind(3, hi);
  s.Bind(5, int64_t(q.limit > 0 ? q.limit : -1)).Bind(6, int64_t(std::max(0, q.offset)));
  s.Bind(7, q.since ? q.since->time : -1e300).Bind(8, q.until ? q.until->time : 1e300);
  int rc;
  while ((rc = s.Step()) == SQLITE_ROW) {
    SearchHit h;
    h.position = s.Int(0);
    h.time = Date{s.Real(1)};
    h.speaker = s.Text(2);
    h.transcript = s.Text(3);
    h.person = s.Text(4);
    h.snippet = s.Text(5);
    hits.push_back(std::move(h));
  }
  if (rc != SQLITE_DONE) {
    damaged_ |= IsDamage(rc);
    if (error) *error = sqlite3_errstr(rc);
    if (CheckDamage()) hits.clear();
  }
  return hits;
}

std::vector<PersonSummary> SearchIndex::People() {
  std::vector<PersonSummary> out;
  ReopenIfReplaced();
  if (!db_) return out;
  Stmt s(db_,
         "SELECT person, count(*), sum(messages), min(first_time), max(last_time), min(grp) "
         "FROM transcripts WHERE unreadable = 0 AND size >= 0 GROUP BY person "
         "ORDER BY person COLLATE NOCASE, person");
  while (s.ok() && s.Step() == SQLITE_ROW) {
    PersonSummary p;
    p.name = s.Text(0);
    p.chats = s.Int(1);
    p.messages = s.Int(2);
    p.first = Date{s.Real(3)};
    p.last = Date{s.Real(4)};
    p.group = s.Int(5) != 0;
    out.push_back(std::move(p));
  }
  damaged_ |= IsDamage(s.lastError());
  CheckDamage();
  return out;
}

namespace {

constexpr const char* kChatColumns =
    "SELECT id, path, person, first_time, last_time, messages, first_line FROM transcripts ";

ChatSummary ReadChat(sqlite3* db, Stmt& s) {
  ChatSummary c;
  int64_t id = s.Int(0);
  c.transcript = s.Text(1);
  c.person = s.Text(2);
  c.first = Date{s.Real(3)};
  c.last = Date{s.Real(4)};
  c.messages = s.Int(5);
  c.firstLine = s.Text(6);
  Stmt people(db, "SELECT name FROM people WHERE transcript = ?1");
  people.Bind(1, id);
  while (people.ok() && people.Step() == SQLITE_ROW) c.people.push_back(people.Text(0));
  return c;
}

}  // namespace

std::vector<ChatSummary> SearchIndex::Chats(const std::string& person) {
  std::vector<ChatSummary> out;
  ReopenIfReplaced();
  if (!db_) return out;
  Stmt s(db_, (std::string(kChatColumns) +
               "WHERE person = ?1 AND unreadable = 0 AND size >= 0 ORDER BY first_time DESC")
                  .c_str());
  s.Bind(1, person);
  while (s.ok() && s.Step() == SQLITE_ROW) out.push_back(ReadChat(db_, s));
  damaged_ |= IsDamage(s.lastError());
  CheckDamage();
  return out;
}

std::optional<ChatSummary> SearchIndex::Chat(const std::string& key) {
  ReopenIfReplaced();
  if (!db_) return std::nullopt;
  Stmt s(db_,
         (std::string(kChatColumns) + "WHERE path = ?1 AND unreadable = 0 AND size >= 0").c_str());
  s.Bind(1, key);
  std::optional<ChatSummary> out;
  if (s.ok() && s.Step() == SQLITE_ROW) out = ReadChat(db_, s);
  s.Reset();
  return out;
}

std::vector<ChatMessage> SearchIndex::ChatMessages(const std::string& key) {
  std::vector<ChatMessage> out;
  if (!db_) return out;
  Stmt s(db_,
         "SELECT m.position, m.time, m.speaker, m.side, coalesce(m.html, ''), m.html IS NULL, "
         "f.text FROM transcripts t JOIN messages m ON m.transcript = t.id "
         "LEFT JOIN message_text f ON f.rowid = m.id WHERE t.path = ?1 ORDER BY m.position");
  s.Bind(1, key);
  while (s.ok() && s.Step() == SQLITE_ROW) {
    ChatMessage m;
    m.position = s.Int(0);
    m.time = Date{s.Real(1)};
    m.speaker = s.Text(2);
    m.side = ChatMessage::Side(s.Int(3));
    if (s.Int(5))
      AppendTextHtml(m.html, s.Text(6));
    else
      m.html = s.Text(4);
    out.push_back(std::move(m));
  }
  damaged_ |= IsDamage(s.lastError());
  CheckDamage();
  return out;
}

int64_t SearchIndex::MessageCount() {
  if (!db_) return 0;
  Stmt s(db_, "SELECT count(*) FROM message_text");
  int64_t n = s.ok() && s.Step() == SQLITE_ROW ? s.Int(0) : 0;
  s.Reset();
  return n;
}

int64_t SearchIndex::ChatsWithoutTheirParty() {
  if (!db_) return 0;
  Stmt s(db_,
         "SELECT count(*) FROM transcripts t WHERE t.unreadable = 0 AND t.grp = 0 AND "
         "NOT EXISTS (SELECT 1 FROM messages m WHERE m.transcript = t.id AND m.side != ?1 "
         "AND m.speaker = t.person)");
  int64_t n = s.ok() && s.Bind(1, int64_t(kStatusSide)).Step() == SQLITE_ROW ? s.Int(0) : 0;
  s.Reset();
  return n;
}

// ---- Beside a processing run -------------------------------------------------

void SearchIndexKeeper::OpenOnce() {
  if (opened_) return;
  opened_ = true;
  std::string error;
  index_ = SearchIndex::Open(SearchIndexPath(dataFolder_), &error);
  if (!index_) NSLog("Cannot open the search index: " + error);
}

void SearchIndexKeeper::Loaded(const std::string& key, int64_t size, int64_t mtimeNs,
                               const ICLPChatLog* log) {
  OpenOnce();
  if (!index_) return;
  if (!log) {
    index_->AddUnreadable(key, size, mtimeNs);
    return;
  }
  auto change = index_->Add(key, size, mtimeNs, *log);
  changed_ |= change != SearchIndex::Change::kUnchanged;
}

void SearchIndexKeeper::Finish(const SyncOptions& options, bool always) {
  if (always) OpenOnce();
  if (!index_) return;
  if (always || changed_ || !index_->Complete()) index_->Sync(transcriptFolder_, options);
}

}  // namespace gab
