#pragma once
// The parser's own record of what it has done with each transcript, kept in
// ~/Library/Gabfolio/processed.plist.  Keys are paths relative to the
// transcript folder; an entry remembers the file's size and mtime when it was
// last looked at, how many of its messages reached the library, and why it is
// in its state.  A run compares the folder against this record, so that an
// unchanged folder costs one read and a stat per file.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace gab::parser {

enum class State {
  kDone,         // everything handled; looked at again only when the file changes
  kWaiting,      // the chat is still open; looked at again on every run
  kMailPending,  // gathered, but the mail failed; the mail is retried
  kUnreadable,   // could not be loaded; looked at again only when the file changes
};

const char* StateName(State state);
std::optional<State> StateFromName(std::string_view name);

struct RecordEntry {
  int64_t size = -1;
  int64_t mtimeNs = -1;  // nanoseconds since the epoch
  int64_t handled = 0;   // messages already gathered and counted
  State state = State::kDone;
  std::string reason;

  bool operator==(const RecordEntry&) const = default;
};

struct Record {
  std::map<std::string, RecordEntry> transcripts;
  // No mail is tried before this time (seconds since the epoch) after a
  // failure, so a pass over many entries does not hammer a dead server.
  int64_t mailRetryAfter = 0;

  bool operator==(const Record&) const = default;
};

// Reads the record; a missing file is an empty record.  A file that is not a
// record (or unparsable) is also empty, and `damaged` says so: the caller
// keeps a copy aside instead of losing it silently.
Record LoadRecord(const std::string& path, bool* damaged = nullptr);

// Writes the record atomically (XML property list, mode 0600).
bool SaveRecord(const std::string& path, const Record& record, std::string* error = nullptr);

}  // namespace gab::parser
