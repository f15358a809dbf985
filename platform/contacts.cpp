#include "platform/contacts.h"

#include <sys/stat.h>

#include <cctype>

#include "platform/files.h"
#include "platform/home.h"
#include "platform/text.h"

namespace gab {

namespace {

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && EqualsNoCase(s.substr(0, prefix.size()), prefix);
}

// Address Book exports of some system versions are UTF-16; everything else
// is UTF-8.  Returns UTF-8 text without a byte-order mark.
std::string ToUtf8Text(std::string_view bytes) {
  auto utf16 = [&](size_t start, bool bigEndian) {
    std::u16string units;
    units.reserve((bytes.size() - start) / 2);
    for (size_t i = start; i + 1 < bytes.size(); i += 2) {
      auto hi = static_cast<unsigned char>(bytes[bigEndian ? i : i + 1]);
      auto lo = static_cast<unsigned char>(bytes[bigEndian ? i + 1 : i]);
      units.push_back(static_cast<char16_t>(hi << 8 | lo));
    }
    return ToUtf8(units);
  };
  if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF")
    return std::string(bytes.substr(3));
  if (bytes.size() >= 2 && bytes.substr(0, 2) == "\xFE\xFF") return utf16(2, true);
  if (bytes.size() >= 2 && bytes.substr(0, 2) == "\xFF\xFE") return utf16(2, false);
  // No mark: a card starts with ASCII "BEGIN", so a NUL byte in the first two
  // tells the byte order.
  if (bytes.size() >= 2 && bytes[0] == '\0' && bytes[1] != '\0') return utf16(0, true);
  if (bytes.size() >= 2 && bytes[0] != '\0' && bytes[1] == '\0') return utf16(0, false);
  return std::string(bytes);
}

// Logical lines: CRLF, LF or CR end a line; a line starting with a space or
// a tab continues the previous one (the fold's white space is removed).
std::vector<std::string> UnfoldLines(std::string_view text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find_first_of("\r\n", pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end;
    if (pos < text.size()) pos += text.compare(pos, 2, "\r\n") == 0 ? 2 : 1;
    if (!line.empty() && (line[0] == ' ' || line[0] == '\t') && !lines.empty()) {
      lines.back().append(line.substr(1));
    } else if (!line.empty()) {
      lines.emplace_back(line);
    }
  }
  return lines;
}

struct Property {
  std::string name;                                         // upper case, group removed
  std::vector<std::pair<std::string, std::string>> params;  // name upper case
  std::string value;
};

// [group "."] name *(";" param) ":" value; parameter values may be quoted
// and hold ";", ":" and ",".
std::optional<Property> ParseProperty(const std::string& line) {
  Property p;
  size_t i = 0;
  while (i < line.size() && line[i] != ';' && line[i] != ':') ++i;
  if (i == line.size()) return std::nullopt;
  std::string_view name(line.data(), i);
  if (size_t dot = name.rfind('.'); dot != std::string_view::npos) name.remove_prefix(dot + 1);
  for (char c : name) p.name += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  while (i < line.size() && line[i] == ';') {
    ++i;
    std::string param;
    bool quoted = false;
    while (i < line.size() && (quoted || (line[i] != ';' && line[i] != ':'))) {
      if (line[i] == '"') quoted = !quoted;
      param += line[i++];
    }
    std::string key, value;
    if (size_t eq = param.find('='); eq != std::string::npos) {
      key = param.substr(0, eq);
      value = param.substr(eq + 1);
    } else {
      // vCard 2.1 writes a bare type: "X-AIM;HOME;PREF:..."
      key = "TYPE";
      value = param;
    }
    for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    p.params.emplace_back(std::move(key), std::move(value));
  }
  if (i >= line.size() || line[i] != ':') return std::nullopt;
  p.value = line.substr(i + 1);
  return p;
}

// TYPE=pref (in any case, alone or in a list such as TYPE=HOME,pref, quoted
// or not), or a vCard 4.0 PREF parameter.
bool IsPreferred(const Property& p) {
  for (const auto& [key, value] : p.params) {
    if (key == "PREF") return true;
    if (key != "TYPE") continue;
    size_t start = 0;
    while (start <= value.size()) {
      size_t comma = value.find(',', start);
      if (comma == std::string::npos) comma = value.size();
      std::string_view item(value.data() + start, comma - start);
      while (!item.empty() && item.front() == '"') item.remove_prefix(1);
      while (!item.empty() && item.back() == '"') item.remove_suffix(1);
      if (EqualsNoCase(item, "pref")) return true;
      start = comma + 1;
    }
  }
  return false;
}

// Text value escapes: \n or \N line feed, \, \; \: \\ the character itself.
std::string Unescape(std::string_view v) {
  std::string out;
  out.reserve(v.size());
  for (size_t i = 0; i < v.size(); ++i) {
    if (v[i] != '\\' || i + 1 == v.size()) {
      out += v[i];
      continue;
    }
    char next = v[++i];
    if (next == 'n' || next == 'N') {
      out += '\n';
    } else if (next == ',' || next == ';' || next == ':' || next == '\\') {
      out += next;
    } else {
      out += '\\';
      out += next;
    }
  }
  return out;
}

// Splits a structured value at unescaped ";".
std::vector<std::string_view> SplitComponents(std::string_view v) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  for (size_t i = 0; i < v.size(); ++i) {
    if (v[i] == '\\') {
      ++i;
    } else if (v[i] == ';') {
      parts.push_back(v.substr(start, i - start));
      start = i + 1;
    }
  }
  parts.push_back(v.substr(start));
  return parts;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string PercentDecode(std::string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    int hi, lo;
    if (s[i] == '%' && i + 2 < s.size() && (hi = HexDigit(s[i + 1])) >= 0 &&
        (lo = HexDigit(s[i + 2])) >= 0) {
      out += static_cast<char>(hi << 4 | lo);
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

// The handle of an "aim:" URI: "aim:handle", or the screenname of the AIM
// scheme's "aim:goim?screenname=handle" form.  Nothing for other schemes.
std::optional<std::string> AIMHandleFromURI(std::string_view uri) {
  if (!StartsWithNoCase(uri, "aim:")) return std::nullopt;
  std::string_view rest = uri.substr(4);
  if (size_t q = rest.find('?'); q != std::string_view::npos) {
    std::string_view query = rest.substr(q + 1);
    while (!query.empty()) {
      size_t amp = query.find('&');
      std::string_view pair = query.substr(0, amp);
      if (StartsWithNoCase(pair, "screenname=")) return PercentDecode(pair.substr(11));
      if (amp == std::string_view::npos) break;
      query.remove_prefix(amp + 1);
    }
    return std::nullopt;
  }
  return PercentDecode(rest);
}

}  // namespace

std::optional<std::u16string> ContactCard::PrimaryAIMHandle() const {
  if (aimHandles.empty()) return std::nullopt;
  return aimHandles[preferredAIM.value_or(0)];
}

std::optional<std::u16string> ContactCard::FullName() const {
  if (!firstName || !lastName) return std::nullopt;
  return *firstName + u" " + *lastName;
}

std::vector<ContactCard> ParseVCards(std::string_view bytes) {
  std::vector<ContactCard> cards;
  std::string text = ToUtf8Text(bytes);
  ContactCard card;
  int depth = 0;  // nested cards (vCard 2.1 AGENT) are skipped whole
  bool haveName = false;
  for (const std::string& line : UnfoldLines(text)) {
    auto prop = ParseProperty(line);
    if (!prop) continue;
    if (prop->name == "BEGIN" && EqualsNoCase(prop->value, "VCARD")) {
      if (++depth == 1) {
        card = ContactCard{};
        haveName = false;
      }
      continue;
    }
    if (prop->name == "END" && EqualsNoCase(prop->value, "VCARD")) {
      if (depth == 1) cards.push_back(std::move(card));
      if (depth > 0) --depth;
      continue;
    }
    if (depth != 1) continue;
    auto addHandle = [&](std::string handle) {
      if (handle.empty()) return;
      if (IsPreferred(*prop) && !card.preferredAIM) card.preferredAIM = card.aimHandles.size();
      card.aimHandles.push_back(ToUtf16(handle));
    };
    if (prop->name == "N" && !haveName) {
      haveName = true;
      auto parts = SplitComponents(prop->value);
      std::string family = Unescape(parts[0]);
      std::string given = parts.size() > 1 ? Unescape(parts[1]) : std::string();
      if (!given.empty()) card.firstName = ToUtf16(given);
      if (!family.empty()) card.lastName = ToUtf16(family);
    } else if (prop->name == "X-AIM") {
      addHandle(Unescape(prop->value));
    } else if (prop->name == "IMPP") {
      if (auto handle = AIMHandleFromURI(prop->value)) addHandle(std::move(*handle));
    }
  }
  if (depth >= 1) cards.push_back(std::move(card));  // cut off before END
  return cards;
}

std::string Contacts::Folder() {
  return HomeDirectory() + "/Library/Application Support/AddressBook";
}

Contacts& Contacts::Shared() {
  static Contacts* contacts = new Contacts;  // lives for the process
  return *contacts;
}

std::shared_ptr<const ContactFile> Contacts::Load(Cached& cache, const std::string& path) {
  struct stat st {};
  bool present = ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
  if (cache.file && cache.path == path && cache.present == present &&
      (!present ||
       (cache.device == st.st_dev && cache.inode == st.st_ino && cache.size == st.st_size &&
        cache.mtimeSec == st.st_mtim.tv_sec && cache.mtimeNsec == st.st_mtim.tv_nsec &&
        cache.ctimeSec == st.st_ctim.tv_sec && cache.ctimeNsec == st.st_ctim.tv_nsec)))
    return cache.file;
  auto file = std::make_shared<ContactFile>();
  if (present) {
    if (auto bytes = ReadWholeFile(path)) file->cards = ParseVCards(*bytes);
    for (size_t i = 0; i < file->cards.size(); ++i)
      for (const auto& handle : file->cards[i].aimHandles) file->byAIM.emplace(handle, i);
  }
  cache.path = path;
  cache.present = present;
  cache.device = present ? st.st_dev : 0;
  cache.inode = present ? st.st_ino : 0;
  cache.size = present ? st.st_size : -1;
  cache.mtimeSec = present ? st.st_mtim.tv_sec : 0;
  cache.mtimeNsec = present ? st.st_mtim.tv_nsec : 0;
  cache.ctimeSec = present ? st.st_ctim.tv_sec : 0;
  cache.ctimeNsec = present ? st.st_ctim.tv_nsec : 0;
  cache.file = std::move(file);
  return cache.file;
}

namespace {

// What the innermost Holds of this thread have looked at.
struct Held {
  int depth = 0;
  std::shared_ptr<const ContactFile> me, cards;
};
thread_local Held held;

}  // namespace

Contacts::Hold::Hold() {
  ++held.depth;
}

Contacts::Hold::~Hold() {
  if (--held.depth == 0) held = Held{};
}

void Contacts::Hold::Refresh() {
  held.me.reset();
  held.cards.reset();
}

std::shared_ptr<const ContactFile> Contacts::LoadHeld(Cached& cache, const char* name, bool me) {
  auto& slot = me ? held.me : held.cards;
  if (held.depth > 0 && slot) return slot;
  std::shared_ptr<const ContactFile> file;
  {
    std::lock_guard lock(mutex_);
    file = Load(cache, Folder() + "/" + name);
  }
  if (held.depth > 0) slot = file;
  return file;
}

std::shared_ptr<const ContactCard> Contacts::Me() {
  auto file = LoadHeld(me_, "Me.vcf", true);
  if (file->cards.empty()) return nullptr;
  return std::shared_ptr<const ContactCard>(file, &file->cards.front());
}

std::shared_ptr<const ContactCard> Contacts::FindByAIMHandle(const std::u16string& handle) {
  auto file = LoadHeld(cards_, "Contacts.vcf", false);
  auto it = file->byAIM.find(handle);
  if (it == file->byAIM.end()) return nullptr;
  return std::shared_ptr<const ContactCard>(file, &file->cards[it->second]);
}

}  // namespace gab
