#pragma once
// Exporting transcripts in the formats other tools read: mailboxes (mbox,
// Maildir, one .eml per chat) holding the product's own mail, a static web
// site, plain text and tab-separated rows.  A writer takes the chats one at
// a time and completes its output at the end; every file lands below the
// output folder whatever the names hold, and an export into the same place
// replaces what the earlier one wrote there.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dates.h"

namespace gab {

class ICLPChatLog;

namespace exporting {

enum class Format { kMbox, kMaildir, kEml, kHtml, kText, kTsv };
std::optional<Format> ParseFormat(std::string_view name);
const char* FormatName(Format format);

// The preferences' "emailOutgoing" and "emailAddress"; without them a
// mail is from the chat's other party to its other people, each at
// NAME@ichat.invalid.
struct MailAddresses {
  std::optional<std::string> from, to;
};

// One loaded transcript.
struct Chat {
  std::string key;         // the path below the folder searched, or the file's name
  std::string_view bytes;  // the transcript file, for ids that change with it
  const ICLPChatLog* log = nullptr;
  Date fileTime;  // the file's modification time: the date of a chat without times
};

// Which chats to export: with one of `people` (the chat's name or one of
// its participants), and with a message between `since` and `until` (the
// file's time for a chat without times).
struct Filter {
  std::vector<std::string> people;
  std::optional<Date> since, until;
};
bool Selected(const Chat& chat, const Filter& filter);

// What a chat holds: its messages (status lines left out) and its files.
struct Counts {
  int64_t messages = 0, attachments = 0;
};
Counts CountChat(const ICLPChatLog& log);

class Writer {
 public:
  virtual ~Writer() = default;
  // Writes one chat; false with the reason when it could not be written.
  virtual bool Add(const Chat& chat, std::string* error) = 0;
  // A chat that could not be read this time: what an earlier export wrote
  // for it stays.
  virtual void Keep(const std::string& key) = 0;
  // Completes the output: the pages that list the chats, the mailbox moved
  // into place, the removal of what an earlier export wrote and this one
  // did not.  False with the reason.  Without `complete` (the export was
  // stopped) a file output stays as it was and a folder keeps what both
  // exports wrote.
  virtual bool Finish(bool complete, std::string* error) = 0;
};

// A writer into `out` (a file for mbox and tsv, else a folder, made when
// missing); null with the reason when `out` cannot take the export: an
// existing file or folder that an export of ours did not make.
std::unique_ptr<Writer> MakeWriter(Format format, const std::string& out,
                                   const MailAddresses& addresses, std::string* error);
// The tsv rows onto a stream (standard output).
std::unique_ptr<Writer> MakeTsvWriter(FILE* stream);

// Building blocks, exposed for tests.

// A chat's mail: the product's multipart/alternative layout, within a
// multipart/mixed with the attachments when it has any; a fixed Date
// (the last message's) and Message-ID (from key and bytes).  CRLF ends.
std::string ChatMail(const Chat& chat, const MailAddresses& addresses);

// A portable file name for any text: no "/", control characters or
// characters other systems forbid, no leading dot, at most 120 bytes.  A
// name that had to change carries a short hash of the original, so two
// names never end up the same.
// With `keepExtension`, a changed name keeps its extension at the end.
std::string SafeName(std::string_view utf8, bool keepExtension = false);

// A message in an mbox: the "From " line, the lines with LF ends, every line
// that starts with ">"s and "From " quoted with one more ">", a blank line.
std::string MboxEntry(std::string_view message, Date date);

// A field of a tsv row: backslash, tab, line feed and carriage return as
// \\, \t, \n and \r.
std::string TsvField(std::string_view text);

}  // namespace exporting
}  // namespace gab
