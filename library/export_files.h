#pragma once
// What the export writers share: stable hashes and names, the output folder
// with its record of what an export wrote, and files replaced whole.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "library/export.h"

namespace gab::exporting {

// FNV-1a, mixed at the end; `seed` continues an earlier hash.
uint64_t Hash64(std::string_view bytes, uint64_t seed = 0);
std::string Hex(uint64_t value, int digits = 16);

// `name` with "-" and `suffix` before its extension (the text after its
// last dot when that is short and not at the start).
std::string WithSuffix(const std::string& name, const std::string& suffix);

// Names that stay unique in one folder, compared without ASCII case (as
// some file systems compare them).  The same identity always gets the same
// name; another identity that wants a taken name gets it with a short hash
// of itself.
class NameSpace {
 public:
  // With `extensions`, the hash goes before a name's extension.
  explicit NameSpace(std::vector<std::string> reserved = {}, bool extensions = false);
  std::string Claim(const std::string& name, const std::string& identity);

 private:
  bool extensions_;
  std::set<std::string> taken_;  // folded
  std::unordered_map<std::string, std::string> byIdentity_;
};

// Where a chat goes in the folder formats: a folder per person, a file stem
// per chat (both SafeNames, unique among their neighbours; two transcripts
// of the same key but other bytes, from two folders, get two stems).
class ChatPlaces {
 public:
  // `reservedTop` and `reservedInFolder` are names the format uses itself.
  ChatPlaces(std::vector<std::string> reservedTop, std::vector<std::string> reservedInFolder)
      : top_(std::move(reservedTop)), reservedInFolder_(std::move(reservedInFolder)) {}
  struct Place {
    std::string folder, stem;
  };
  Place For(const Chat& chat);

 private:
  NameSpace top_;
  std::vector<std::string> reservedInFolder_;
  std::map<std::string, NameSpace> folders_;  // by folder name
};

// A file replaced whole at the end: the bytes go to a hidden temporary file
// beside it, renamed over it by Commit; dropped when never committed.
class ReplacedFile {
 public:
  ReplacedFile() = default;
  ~ReplacedFile();
  ReplacedFile(const ReplacedFile&) = delete;
  ReplacedFile& operator=(const ReplacedFile&) = delete;
  // The temporary file goes into `temporaryFolder` when given (on the same
  // file system).
  bool Open(const std::string& path, std::string* error, const std::string& temporaryFolder = {});
  bool Write(std::string_view bytes);
  // With `sync`, the bytes reach the disk before the rename.
  bool Commit(std::string* error, bool sync = false);

 private:
  std::string path_, temporary_;
  FILE* file_ = nullptr;
  bool failed_ = false;
};

// An existing file that an export may replace: missing, empty, or starting
// with `start`.  False with the reason otherwise.
bool MayReplaceFile(const std::string& path, std::string_view start, std::string* error);

// The folder an export writes into.  It keeps a record of the files it
// wrote (".gabfolio-export"), so that the next export into it can remove
// what it does not write again; nothing else in the folder is touched, and
// nothing is ever written or removed through a link.
class OutputFolder {
 public:
  // Made when missing.  An existing folder must be empty, hold an earlier
  // export's record, or satisfy `accept`.
  bool Open(const std::string& path, Format format,
            const std::function<bool(const std::string&)>& accept, std::string* error);
  const std::string& path() const { return path_; }
  // Makes the folders of a relative path ("a/b") below the folder.
  bool MakeFolders(const std::string& relative, std::string* error);
  // Writes a file (relative path) whole, its folders made as needed, and
  // records it as written for the chat `key` ("" for the export's own).
  bool Write(const std::string& relative, std::string_view bytes, const std::string& key,
             std::string* error);
  void Record(const std::string& relative, const std::string& key);
  void Keep(const std::string& key) { kept_.insert(key); }
  // What the record of the earlier export holds for `relative`.
  bool EarlierHolds(const std::string& relative) const;
  // Where a recorded file is now ("" when gone); by default the recorded path.
  std::function<std::string(const std::string&)> locate;
  // Whether a folder left empty by a removal goes too.
  bool pruneFolders = true;
  // Completes the export: with `complete`, removes what the earlier export
  // wrote and this one did not (unless its chat was kept), then saves the
  // record; otherwise (stopped half-way) the record keeps both.
  bool Finish(bool complete, std::string* error);

 private:
  bool Remove(const std::string& relative);
  // Writes the record: what this export wrote, and what the earlier one
  // wrote that stays (all of it unless `complete`; the rest is removed).
  bool SaveRecord(bool complete, std::string* error);
  std::string path_, formatLine_;
  std::vector<std::pair<std::string, std::string>> earlier_;  // key, relative path
  std::set<std::string> earlierPaths_;
  std::map<std::string, std::string> written_;  // relative path -> key
  std::set<std::string> kept_;
};

// A writer of one file per chat, in a folder per person: `render` makes
// the file's bytes.
std::unique_ptr<Writer> MakeChatFilesWriter(const std::string& out, Format format,
                                            std::string extension, std::string* error,
                                            std::function<std::string(const Chat&)> render);

// The writers.
std::unique_ptr<Writer> MakeMboxWriter(const std::string& out, const MailAddresses& addresses,
                                       std::string* error);
std::unique_ptr<Writer> MakeMaildirWriter(const std::string& out, const MailAddresses& addresses,
                                          std::string* error);
std::unique_ptr<Writer> MakeEmlWriter(const std::string& out, const MailAddresses& addresses,
                                      std::string* error);
std::unique_ptr<Writer> MakeSiteWriter(const std::string& out, std::string* error);
std::unique_ptr<Writer> MakeTextWriter(const std::string& out, std::string* error);
std::unique_ptr<Writer> MakeTsvFileWriter(const std::string& out, std::string* error);

}  // namespace gab::exporting
