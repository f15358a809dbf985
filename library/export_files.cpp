#include "library/export_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "library/chat_html.h"
#include "platform/files.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab::exporting {
namespace {

constexpr const char* kRecordName = ".gabfolio-export";
constexpr const char* kRecordStart = "gabfolio export 1 ";

std::string Folded(const std::string& name) {
  std::string out = name;
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  return out;
}

std::string SystemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// The text of a tsv field again.
std::string TsvUnescaped(std::string_view field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\' || i + 1 == field.size()) {
      out += field[i];
      continue;
    }
    char c = field[++i];
    out += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
  }
  return out;
}

// A relative path that stays below its folder: no empty, "." or ".."
// component, no NUL.
bool StaysBelow(std::string_view relative) {
  if (relative.empty() || relative.front() == '/' || relative.find('\0') != std::string::npos)
    return false;
  size_t from = 0;
  for (;;) {
    size_t slash = relative.find('/', from);
    std::string_view part = relative.substr(from, slash - from);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == std::string_view::npos) return true;
    from = slash + 1;
  }
}

bool IsRealFolder(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// True when every folder on the way from `base` to `relative` is a real
// folder, not a link.
bool FoldersAreReal(const std::string& base, std::string_view relative) {
  for (size_t slash = relative.find('/'); slash != std::string_view::npos;
       slash = relative.find('/', slash + 1))
    if (!IsRealFolder(base + "/" + std::string(relative.substr(0, slash)))) return false;
  return true;
}

}  // namespace

std::optional<Format> ParseFormat(std::string_view name) {
  for (Format f :
       {Format::kMbox, Format::kMaildir, Format::kEml, Format::kHtml, Format::kText, Format::kTsv})
    if (name == FormatName(f)) return f;
  return std::nullopt;
}

const char* FormatName(Format format) {
  switch (format) {
    case Format::kMbox:
      return "mbox";
    case Format::kMaildir:
      return "maildir";
    case Format::kEml:
      return "eml";
    case Format::kHtml:
      return "html";
    case Format::kText:
      return "text";
    case Format::kTsv:
      return "tsv";
  }
  return "";
}

bool Selected(const Chat& chat, const Filter& filter) {
  const ICLPChatLog& log = *chat.log;
  if (!filter.people.empty()) {
    auto wanted = [&](const std::string& name) {
      for (const auto& p : filter.people)
        if (p == name) return true;
      return false;
    };
    bool match = wanted(ToUtf8(log.primaryOtherParty()));
    for (const auto& p : log.Participants()) {
      if (match) break;
      if (auto name = p ? p->Name() : std::nullopt) match = wanted(ToUtf8(*name));
    }
    if (!match) return false;
  }
  if (!filter.since && !filter.until) return true;
  auto inside = [&](Date t) {
    return (!filter.since || t >= *filter.since) && (!filter.until || t <= *filter.until);
  };
  bool timed = false;
  for (const auto& m : log.Messages()) {
    if (!m || !m->timestamp) continue;
    timed = true;
    if (inside(*m->timestamp)) return true;
  }
  return !timed && inside(chat.fileTime);
}

Counts CountChat(const ICLPChatLog& log) {
  Counts c;
  for (const auto& m : log.Messages()) {
    if (!m || m->isStatusMessage()) continue;
    ++c.messages;
    if (!m->string) continue;
    for (const auto& file : Attachments(*m->string))
      if (file && file->IsRegularFile()) ++c.attachments;
  }
  return c;
}

uint64_t Hash64(std::string_view bytes, uint64_t seed) {
  uint64_t h = 0xCBF29CE484222325ull ^ seed;
  for (unsigned char c : bytes) h = (h ^ c) * 0x100000001B3ull;
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  return h;
}

std::string Hex(uint64_t value, int digits) {
  static const char* kDigits = "0123456789abcdef";
  std::string out(size_t(digits), '0');
  for (int i = digits - 1; i >= 0; --i, value >>= 4) out[size_t(i)] = kDigits[value & 15];
  return out;
}

std::string WithSuffix(const std::string& name, const std::string& suffix) {
  size_t dot = name.rfind('.');
  bool extension = dot != std::string::npos && dot > 0 && name.size() - dot <= 8;
  if (!extension) return name + "-" + suffix;
  return name.substr(0, dot) + "-" + suffix + name.substr(dot);
}

std::string SafeName(std::string_view utf8, bool keepExtension) {
  std::string valid = IsValidUtf8(utf8) ? std::string(utf8) : ToUtf8(ToUtf16(utf8));
  bool altered = valid != utf8;
  std::string out;
  out.reserve(valid.size());
  for (char c : valid) {
    unsigned char u = static_cast<unsigned char>(c);
    bool bad = u < 0x20 || u == 0x7F || std::strchr("/\\:*?\"<>|", c) != nullptr;
    out += bad ? '_' : c;
    altered = altered || bad;
  }
  // A leading dot hides a file (and makes "." and ".."); some systems drop
  // trailing dots and spaces.
  for (size_t i = 0; i < out.size() && out[i] == '.'; ++i) out[i] = '_', altered = true;
  while (!out.empty() && (out.back() == '.' || out.back() == ' ')) out.pop_back(), altered = true;
  if (out.size() > 120) {
    size_t cut = 120;
    while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
    // A cut name keeps its extension.
    size_t dot = keepExtension ? out.rfind('.') : std::string::npos;
    std::string ext = dot != std::string::npos && out.size() - dot <= 8 ? out.substr(dot) : "";
    out = out.substr(0, cut - ext.size()) + ext;
    altered = true;
  }
  if (out.empty()) out = "_", altered = true;
  if (!altered) return out;
  std::string suffix = Hex(Hash64(utf8), 8);
  return keepExtension ? WithSuffix(out, suffix) : out + "-" + suffix;
}

std::string TsvField(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += c;
    }
  }
  return out;
}

NameSpace::NameSpace(std::vector<std::string> reserved, bool extensions) : extensions_(extensions) {
  for (const auto& r : reserved) taken_.insert(Folded(r));
}

std::string NameSpace::Claim(const std::string& name, const std::string& identity) {
  auto known = byIdentity_.find(identity);
  if (known != byIdentity_.end()) return known->second;
  std::string candidate = name;
  std::string suffix = Hex(Hash64(identity), 8);
  for (int n = 1; taken_.count(Folded(candidate)); ++n) {
    std::string tail = n == 1 ? suffix : suffix + "-" + std::to_string(n);
    candidate = extensions_ ? WithSuffix(name, tail) : name + "-" + tail;
  }
  taken_.insert(Folded(candidate));
  byIdentity_.emplace(identity, candidate);
  return candidate;
}

ChatPlaces::Place ChatPlaces::For(const Chat& chat) {
  std::string party = ToUtf8(chat.log->primaryOtherParty());
  Place place;
  place.folder = top_.Claim(SafeName(party), party);
  std::string_view stem = chat.key;
  if (size_t slash = stem.rfind('/'); slash != std::string_view::npos)
    stem.remove_prefix(slash + 1);
  if (size_t dot = stem.rfind('.'); dot != std::string_view::npos && dot > 0)
    stem = stem.substr(0, dot);
  auto& names = folders_.try_emplace(place.folder, reservedInFolder_).first->second;
  place.stem = names.Claim(SafeName(stem), chat.key + "\n" + Hex(Hash64(chat.bytes)));
  return place;
}

ReplacedFile::~ReplacedFile() {
  if (file_) std::fclose(file_);
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

bool ReplacedFile::Open(const std::string& path, std::string* error,
                        const std::string& temporaryFolder) {
  path_ = path;
  size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (!temporaryFolder.empty()) folder = temporaryFolder + "/";
  std::string tmpl = folder + "." + name.substr(0, 200) + ".tmp-XXXXXX";
  int fd = mkostemp(tmpl.data(), O_CLOEXEC);
  if (fd < 0) {
    if (error) *error = SystemError("cannot create a file in " + (folder.empty() ? "." : folder));
    return false;
  }
  temporary_ = tmpl;
  file_ = fdopen(fd, "wb");
  if (!file_) {
    ::close(fd);
    if (error) *error = SystemError("cannot write " + temporary_);
    return false;
  }
  return true;
}

bool ReplacedFile::Write(std::string_view bytes) {
  if (!file_ || failed_) return false;
  failed_ = std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size();
  return !failed_;
}

bool ReplacedFile::Commit(std::string* error, bool sync) {
  if (!file_) return false;
  bool ok = !failed_ && std::fflush(file_) == 0 && fchmod(fileno(file_), 0644) == 0 &&
            (!sync || fsync(fileno(file_)) == 0);
  if (std::fclose(file_) != 0) ok = false;
  file_ = nullptr;
  if (ok && ::rename(temporary_.c_str(), path_.c_str()) == 0) {
    temporary_.clear();
    return true;
  }
  if (error) *error = SystemError("cannot write " + path_);
  return false;
}

bool MayReplaceFile(const std::string& path, std::string_view start, std::string* error) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return true;
    if (error) *error = SystemError(path);
    return false;
  }
  std::string problem;
  if (S_ISDIR(st.st_mode)) {
    problem = path + " is a folder";
  } else if (!S_ISREG(st.st_mode)) {
    problem = path + " is not a regular file";
  } else if (st.st_size > 0) {
    std::string head(start.size(), '\0');
    FILE* f = std::fopen(path.c_str(), "rb");
    size_t n = f ? std::fread(head.data(), 1, head.size(), f) : 0;
    if (f) std::fclose(f);
    if (n != head.size() || head != start)
      problem = path + " exists and is not an export of Gabfolio; remove it or choose another name";
  }
  if (problem.empty()) return true;
  if (error) *error = problem;
  return false;
}

bool OutputFolder::Open(const std::string& path, Format format,
                        const std::function<bool(const std::string&)>& accept, std::string* error) {
  path_ = path;
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
  formatLine_ = std::string(kRecordStart) + FormatName(format);
  auto fail = [&](std::string why) {
    if (error) *error = std::move(why);
    return false;
  };
  struct stat st {};
  if (stat(path_.c_str(), &st) != 0) {
    std::error_code ec;
    std::filesystem::create_directories(path_, ec);
    if (ec) return fail("cannot make the folder " + path_ + ": " + ec.message());
    return SaveRecord(false, error);
  }
  if (!S_ISDIR(st.st_mode)) return fail(path_ + " is not a folder");
  std::string readError;
  auto record = ReadRegularFile(path_ + "/" + kRecordName, 64u << 20, &readError);
  if (record && record->rfind(kRecordStart, 0) == 0) {
    size_t from = record->find('\n');
    while (from != std::string::npos && from + 1 < record->size()) {
      size_t end = record->find('\n', from + 1);
      std::string_view line = std::string_view(*record).substr(
          from + 1, end == std::string::npos ? end : end - from - 1);
      size_t tab = line.find('\t');
      if (tab != std::string_view::npos) {
        std::string rel = TsvUnescaped(line.substr(tab + 1));
        earlier_.emplace_back(TsvUnescaped(line.substr(0, tab)), rel);
        earlierPaths_.insert(rel);
      }
      from = end;
    }
    return SaveRecord(false, error);
  }
  DIR* dir = opendir(path_.c_str());
  if (!dir) return fail(SystemError("cannot read the folder " + path_));
  bool empty = true;
  while (dirent* e = readdir(dir))
    if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) empty = false;
  closedir(dir);
  // The record is there from the start: a run killed half-way leaves a
  // folder the next export takes up.
  if (empty || (accept && accept(path_))) return SaveRecord(false, error);
  return fail(path_ +
              " is not empty and holds no export of Gabfolio; choose an empty or a new folder");
}

bool OutputFolder::SaveRecord(bool complete, std::string* error) {
  std::string record = formatLine_ + "\n";
  for (const auto& [rel, key] : written_) record += TsvField(key) + "\t" + TsvField(rel) + "\n";
  for (const auto& [key, rel] : earlier_) {
    if (written_.count(rel)) continue;
    if (!complete || kept_.count(key)) {
      record += TsvField(key) + "\t" + TsvField(rel) + "\n";
    } else {
      Remove(rel);
    }
  }
  ReplacedFile file;
  return file.Open(path_ + "/" + kRecordName, error) && file.Write(record) &&
         file.Commit(error, true);
}

bool OutputFolder::MakeFolders(const std::string& relative, std::string* error) {
  if (relative.empty()) return true;
  if (!StaysBelow(relative)) {
    if (error) *error = "bad folder name " + relative;
    return false;
  }
  for (size_t end = 0; end != std::string::npos;) {
    end = relative.find('/', end + 1);
    std::string p = path_ + "/" + relative.substr(0, end);
    if (::mkdir(p.c_str(), 0755) != 0 && errno != EEXIST) {
      if (error) *error = SystemError("cannot make the folder " + p);
      return false;
    }
    // An existing link is never followed: it could lead out of the folder.
    if (!IsRealFolder(p)) {
      if (error) *error = p + " is not a folder (or is a link)";
      return false;
    }
  }
  return true;
}

bool OutputFolder::Write(const std::string& relative, std::string_view bytes,
                         const std::string& key, std::string* error) {
  size_t slash = relative.rfind('/');
  if (!StaysBelow(relative) ||
      (slash != std::string::npos && !MakeFolders(relative.substr(0, slash), error)))
    return false;
  // Without an fsync per file: Finish syncs the file system once.
  ReplacedFile file;
  if (!file.Open(path_ + "/" + relative, error) || !file.Write(bytes) || !file.Commit(error))
    return false;
  Record(relative, key);
  return true;
}

void OutputFolder::Record(const std::string& relative, const std::string& key) {
  written_[relative] = key;
}

bool OutputFolder::EarlierHolds(const std::string& relative) const {
  return earlierPaths_.count(relative) > 0;
}

bool OutputFolder::Remove(const std::string& relative) {
  std::string where = locate ? locate(relative) : relative;
  if (!StaysBelow(where) || !FoldersAreReal(path_, where)) return false;
  std::string full = path_ + "/" + where;
  struct stat st {};
  if (lstat(full.c_str(), &st) != 0 || S_ISDIR(st.st_mode) || ::unlink(full.c_str()) != 0)
    return false;
  // Folders the export made and left empty go too.
  for (size_t slash = pruneFolders ? where.rfind('/') : std::string::npos;
       slash != std::string::npos && slash > 0; slash = where.rfind('/', slash - 1)) {
    if (::rmdir((path_ + "/" + where.substr(0, slash)).c_str()) != 0) break;
  }
  return true;
}

bool OutputFolder::Finish(bool complete, std::string* error) {
  bool ok = SaveRecord(complete, error);
  // One sync for every file written.
  int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    if (syncfs(fd) != 0 && ok) {
      if (error) *error = SystemError("cannot sync " + path_);
      ok = false;
    }
    ::close(fd);
  }
  return ok;
}

namespace {

class ChatFilesWriter : public Writer {
 public:
  ChatFilesWriter(std::string extension, std::function<std::string(const Chat&)> render)
      : places_({}, {}), extension_(std::move(extension)), render_(std::move(render)) {}
  bool Open(const std::string& out, Format format, std::string* error) {
    return folder_.Open(out, format, nullptr, error);
  }
  bool Add(const Chat& chat, std::string* error) override {
    ChatPlaces::Place place = places_.For(chat);
    return folder_.Write(place.folder + "/" + place.stem + extension_, render_(chat), chat.key,
                         error);
  }
  void Keep(const std::string& key) override { folder_.Keep(key); }
  bool Finish(bool complete, std::string* error) override {
    return folder_.Finish(complete, error);
  }

 private:
  OutputFolder folder_;
  ChatPlaces places_;
  std::string extension_;
  std::function<std::string(const Chat&)> render_;
};

}  // namespace

std::unique_ptr<Writer> MakeChatFilesWriter(const std::string& out, Format format,
                                            std::string extension, std::string* error,
                                            std::function<std::string(const Chat&)> render) {
  auto writer = std::make_unique<ChatFilesWriter>(std::move(extension), std::move(render));
  if (!writer->Open(out, format, error)) return nullptr;
  return writer;
}

std::unique_ptr<Writer> MakeWriter(Format format, const std::string& out,
                                   const MailAddresses& addresses, std::string* error) {
  switch (format) {
    case Format::kMbox:
      return MakeMboxWriter(out, addresses, error);
    case Format::kMaildir:
      return MakeMaildirWriter(out, addresses, error);
    case Format::kEml:
      return MakeEmlWriter(out, addresses, error);
    case Format::kHtml:
      return MakeSiteWriter(out, error);
    case Format::kText:
      return MakeTextWriter(out, error);
    case Format::kTsv:
      return MakeTsvFileWriter(out, error);
  }
  return nullptr;
}

}  // namespace gab::exporting
