// The mail formats: every chat as the mail the product sends for it, in an
// mbox, a Maildir or one .eml file per chat.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>

#include "delivery/mail_layout.h"
#include "delivery/rendering.h"
#include "library/chat_html.h"
#include "library/export_files.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab::exporting {
namespace {

// The first line of every message of our mboxes: an existing mbox that
// starts otherwise is not ours to replace.
constexpr std::string_view kMboxFrom = "From gabfolio@export.invalid ";

// An address's local part made of a name: lower-case letters, digits, "-"
// and "_", anything else a single dot.
std::string LocalPart(std::string_view name) {
  std::string out;
  for (char c : name) {
    char l = c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
    if ((l >= 'a' && l <= 'z') || (l >= '0' && l <= '9') || l == '-' || l == '_')
      out += l;
    else if (!out.empty() && out.back() != '.')
      out += '.';
  }
  if (out.size() > 64) out.resize(64);
  while (!out.empty() && out.back() == '.') out.pop_back();
  return out.empty() ? "someone" : out;
}

// A person at NAME@ichat.invalid; control characters in the shown name
// become spaces (a reader may refuse a line end in a name).
CWInternetAddress Placeholder(const std::string& name) {
  std::string shown = name;
  for (char& c : shown)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  return CWInternetAddress(shown, LocalPart(name) + "@ichat.invalid");
}

// Whom a chat's mail is to when the preferences name nobody: the user (the
// speakers who are not among the participants) and, in a group chat, the
// participants other than the chat's own name.
std::vector<std::string> Recipients(const ICLPChatLog& log) {
  std::string party = ToUtf8(log.primaryOtherParty());
  std::vector<std::string> out;
  auto add = [&](const std::optional<std::u16string>& name) {
    if (!name || name->empty()) return;
    std::string n = ToUtf8(*name);
    if (n != party && std::find(out.begin(), out.end(), n) == out.end()) out.push_back(n);
  };
  std::set<const ICLPPresentity*> seen;
  for (const auto& m : log.Messages()) {
    if (!m || !m->speaker || !seen.insert(m->speaker.get()).second) continue;
    auto raw = m->rawSpeaker();
    if (raw && !log.NameInSpeakerList(*raw)) add(m->Speaker());
  }
  if (log.Participants().size() > 1)
    for (const auto& p : log.Participants())
      if (p && p->rawName() != log.primaryOtherParty()) add(p->Name());
  if (out.empty()) out.push_back("me");
  return out;
}

// The MIME type of an attachment, judged by its bytes.
std::string AttachmentType(std::string_view bytes) {
  std::string image = InlineImageType(bytes);
  if (!image.empty()) return image;
  auto starts = [&](std::string_view magic) { return bytes.substr(0, magic.size()) == magic; };
  if (starts("%PDF-")) return "application/pdf";
  if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4)))
    return "image/tiff";
  return "application/octet-stream";
}

std::vector<CWPart> AttachmentParts(const ICLPChatLog& log) {
  std::vector<CWPart> parts;
  for (const auto& m : log.Messages()) {
    if (!m || m->isStatusMessage() || !m->string) continue;
    for (const auto& file : Attachments(*m->string)) {
      if (!file || !file->IsRegularFile()) continue;
      CWPart part;
      part.setContentType(AttachmentType(file->contents));
      part.setContentTransferEncoding(kEncodingBase64);
      part.setFilename(file->preferredFilename && !file->preferredFilename->empty()
                           ? ToUtf8(*file->preferredFilename)
                           : "attachment-" + std::to_string(parts.size() + 1));
      part.setContent(file->contents);
      parts.push_back(std::move(part));
    }
  }
  return parts;
}

bool Plausible(Date d) {
  double t = d.Unix();
  return std::isfinite(t) && t >= 0 && t < 253402300800.0;  // before the year 10000
}

// The chat's last message time; the file's time when it has none.
Date MailDate(const Chat& chat) {
  if (auto last = chat.log->LastMessageDate(); last && Plausible(*last)) return *last;
  std::optional<Date> latest;
  for (const auto& m : chat.log->Messages())
    if (m && m->timestamp && Plausible(*m->timestamp) && (!latest || *m->timestamp > *latest))
      latest = m->timestamp;
  if (latest) return *latest;
  return Plausible(chat.fileTime) ? chat.fileTime : Date::FromUnix(0);
}

// CR LF line ends as LF, as mail stored on Unix has them.
std::string UnixLines(std::string_view crlf) {
  std::string out;
  out.reserve(crlf.size());
  for (size_t i = 0; i < crlf.size(); ++i)
    if (crlf[i] != '\r' || i + 1 == crlf.size() || crlf[i + 1] != '\n') out += crlf[i];
  return out;
}

class MboxWriter : public Writer {
 public:
  explicit MboxWriter(const MailAddresses& addresses) : addresses_(addresses) {}
  bool Open(const std::string& out, std::string* error) {
    out_ = out;
    return MayReplaceFile(out, kMboxFrom, error) && file_.Open(out, error);
  }
  bool Add(const Chat& chat, std::string* error) override {
    if (file_.Write(MboxEntry(ChatMail(chat, addresses_), MailDate(chat)))) return true;
    *error = "cannot write " + out_;
    return false;
  }
  // The mailbox is written whole: a chat not read this time is not in it.
  void Keep(const std::string&) override {}
  bool Finish(bool complete, std::string* error) override {
    return complete && file_.Commit(error, true);
  }

 private:
  MailAddresses addresses_;
  std::string out_;
  ReplacedFile file_;
};

bool IsMaildir(const std::string& path) {
  for (const char* sub : {"/cur", "/new", "/tmp"}) {
    struct stat st {};
    if (lstat((path + sub).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  }
  return true;
}

// A message's file name in a Maildir is "unique:2,flags"; the unique part
// comes from the transcript's path, so a chat that grew replaces its
// earlier file, and a file a mail client has flagged keeps its name.
class MaildirWriter : public Writer {
 public:
  explicit MaildirWriter(const MailAddresses& addresses) : addresses_(addresses) {}
  bool Open(const std::string& out, std::string* error) {
    if (!folder_.Open(out, Format::kMaildir, IsMaildir, error)) return false;
    for (const char* sub : {"cur", "new", "tmp"})
      if (!folder_.MakeFolders(sub, error)) return false;
    for (const char* sub : {"new", "cur"}) {
      DIR* dir = opendir((folder_.path() + "/" + sub).c_str());
      while (dirent* e = dir ? readdir(dir) : nullptr) {
        std::string name = e->d_name;
        if (name[0] != '.') files_[name.substr(0, name.find(':'))] = std::string(sub) + "/" + name;
      }
      if (dir) closedir(dir);
    }
    folder_.pruneFolders = false;  // a Maildir keeps cur, new and tmp
    folder_.locate = [this](const std::string& relative) {
      auto it = files_.find(relative.substr(relative.find('/') + 1));
      return it == files_.end() ? relative : it->second;
    };
    return true;
  }
  bool Add(const Chat& chat, std::string* error) override {
    uint64_t key = Hash64(chat.key);
    std::string unique = "gabfolio-" + Hex(key);
    if (!used_.insert(unique).second) unique += "-" + Hex(Hash64(chat.bytes, key), 8);
    auto earlier = files_.find(unique);
    std::string target = "cur/" + unique + ":2,S";
    if (earlier != files_.end() && earlier->second.rfind("cur/", 0) == 0) target = earlier->second;
    ReplacedFile file;
    if (!file.Open(folder_.path() + "/" + target, error, folder_.path() + "/tmp") ||
        !file.Write(UnixLines(ChatMail(chat, addresses_))) || !file.Commit(error))
      return false;
    if (earlier != files_.end() && earlier->second != target)
      ::unlink((folder_.path() + "/" + earlier->second).c_str());
    files_[unique] = target;
    folder_.Record("cur/" + unique, chat.key);
    return true;
  }
  void Keep(const std::string& key) override { folder_.Keep(key); }
  bool Finish(bool complete, std::string* error) override {
    return folder_.Finish(complete, error);
  }

 private:
  MailAddresses addresses_;
  OutputFolder folder_;
  std::map<std::string, std::string> files_;  // unique part -> "cur/NAME" or "new/NAME"
  std::set<std::string> used_;
};

}  // namespace

std::string ChatMail(const Chat& chat, const MailAddresses& addresses) {
  const ICLPChatLog& log = *chat.log;
  CWInternetAddress from = addresses.from ? CWInternetAddress(addresses.from)
                                          : Placeholder(ToUtf8(log.primaryOtherParty()));
  std::vector<CWInternetAddress> to;
  if (addresses.to) {
    to.emplace_back(addresses.to);
  } else {
    for (const auto& name : Recipients(log)) to.push_back(Placeholder(name));
  }
  CWMessage mail = BuildMail(PlainSubject(log), std::move(from), std::move(to), PlainChatLog(log),
                             HTMLChatLog(log), AttachmentParts(log));
  mail.setDate(MailDate(chat).Unix());
  uint64_t key = Hash64(chat.key);
  mail.setMessageID(Hex(key) + "." + Hex(Hash64(chat.bytes, key)) + "@gabfolio.invalid");
  return mail.DataValue();
}

std::string MboxEntry(std::string_view message, Date date) {
  time_t t = time_t(Plausible(date) ? date.Unix() : 0);
  tm utc{};
  gmtime_r(&t, &utc);
  char when[64];
  std::strftime(when, sizeof when, "%a %b %e %H:%M:%S %Y", &utc);
  std::string out;
  out.reserve(message.size() + 128);
  out.append(kMboxFrom);
  out += when;
  out += '\n';
  for (size_t pos = 0; pos < message.size();) {
    size_t end = message.find('\n', pos);
    size_t next = end == std::string_view::npos ? message.size() : end + 1;
    if (end == std::string_view::npos) end = message.size();
    if (end > pos && message[end - 1] == '\r') --end;
    std::string_view line = message.substr(pos, end - pos);
    // mboxrd: ">From " gets one more ">" too, so readers can take one off.
    size_t text = line.find_first_not_of('>');
    if (text != std::string_view::npos && line.substr(text, 5) == "From ") out += '>';
    out += line;
    out += '\n';
    pos = next;
  }
  out += '\n';
  return out;
}

std::unique_ptr<Writer> MakeMboxWriter(const std::string& out, const MailAddresses& addresses,
                                       std::string* error) {
  auto writer = std::make_unique<MboxWriter>(addresses);
  if (!writer->Open(out, error)) return nullptr;
  return writer;
}

std::unique_ptr<Writer> MakeMaildirWriter(const std::string& out, const MailAddresses& addresses,
                                          std::string* error) {
  auto writer = std::make_unique<MaildirWriter>(addresses);
  if (!writer->Open(out, error)) return nullptr;
  return writer;
}

std::unique_ptr<Writer> MakeEmlWriter(const std::string& out, const MailAddresses& addresses,
                                      std::string* error) {
  return MakeChatFilesWriter(out, Format::kEml, ".eml", error,
                             [addresses](const Chat& chat) { return ChatMail(chat, addresses); });
}

}  // namespace gab::exporting
