#include "delivery/cw_message.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <random>

#include "platform/text.h"

namespace gab {

namespace {

bool IsPrintableAscii(std::string_view s) {
  for (unsigned char c : s)
    if (c < 0x20 || c >= 0x7f) return false;
  return true;
}

bool IsAscii(std::string_view s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

std::string Trim(std::string_view s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(" \t\r\n");
  return std::string(s.substr(b, e - b + 1));
}

std::string WithoutControls(std::string_view s) {
  std::string out;
  for (unsigned char c : s)
    if (c >= 0x20 && c != 0x7f) out += char(c);
  return out;
}

std::string Base64(std::string_view bytes) {
  static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8 |
                 uint8_t(bytes[i + 2]);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (i + 1 == bytes.size()) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == bytes.size()) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

// A name for Message-ID: the host name, reduced to characters that are safe
// in an id.
std::string HostPart() {
  char buf[256] = {};
  std::string host;
  if (gethostname(buf, sizeof buf - 1) == 0)
    for (char* p = buf; *p; ++p)
      if (isalnum(static_cast<unsigned char>(*p)) || *p == '.' || *p == '-') host += *p;
  return host.empty() ? "localhost" : host;
}

uint64_t RandomWord() {
  static std::atomic<uint64_t> counter{0};
  thread_local std::mt19937_64 rng{
      std::random_device{}() ^
      uint64_t(std::chrono::steady_clock::now().time_since_epoch().count())};
  return rng() ^ (counter++ << 48);
}

// The next word of a seeded sequence (splitmix64), or a random one.
uint64_t BoundaryWord(uint64_t* seed) {
  if (!seed) return RandomWord();
  uint64_t z = (*seed += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

std::string Hex(uint64_t v) {
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(v));
  return buf;
}

// The longest line of a text, line ends being LF, CR or CR LF.
size_t LongestLine(std::string_view s) {
  size_t longest = 0, current = 0;
  for (char c : s) {
    if (c == '\n' || c == '\r') {
      current = 0;
    } else if (++current > longest) {
      longest = current;
    }
  }
  return longest;
}

// A phrase (display name) for an address header.
std::string EncodePhrase(std::string_view name) {
  if (!IsPrintableAscii(name) || name.size() > 900) return mime::EncodeHeaderValue(name);
  // Atoms and spaces go as they are; anything else ("." and "@" too) is
  // quoted.
  bool plain = true;
  for (unsigned char c : name)
    if (!(isalnum(c) || c == ' ' ||
          std::string_view("!#$%&'*+-/=?^_`{|}~").find(char(c)) != std::string_view::npos)) {
      plain = false;
      break;
    }
  if (plain && name.find("=?") == std::string_view::npos) return std::string(name);
  std::string q = "\"";
  for (char c : name) {
    if (c == '"' || c == '\\') q += '\\';
    q += c;
  }
  return q + "\"";
}

std::string MultipartData(const std::string& contentType, const std::optional<std::string>& charset,
                          const CWMIMEMultipart& multipart, uint64_t* seed) {
  std::vector<std::string> bodies;
  for (const auto& p : multipart.parts()) bodies.push_back(p.DataValue(seed));
  std::string boundary;
  for (bool clash = true; clash;) {
    boundary = "=_gabfolio_" + Hex(BoundaryWord(seed));
    clash = false;
    for (const auto& b : bodies) clash = clash || b.find(boundary) != std::string::npos;
  }
  std::string type = WithoutControls(contentType);
  if (charset) type += "; charset=\"" + WithoutControls(*charset) + "\"";
  std::string out = "Content-Type: " + type + ";\r\n\tboundary=\"" + boundary + "\"\r\n";
  out += "Content-Transfer-Encoding: 7bit\r\n";
  out += "\r\n";
  for (const auto& b : bodies) {
    out += "--" + boundary + "\r\n";
    // The CR LF before a delimiter belongs to the delimiter, not the part.
    out += b + "\r\n";
  }
  out += "--" + boundary + "--\r\n";
  return out;
}

}  // namespace

namespace mime {

std::string Base64Lines(std::string_view bytes) {
  std::string encoded = Base64(bytes);
  std::string out;
  out.reserve(encoded.size() + encoded.size() / 38 + 2);
  for (size_t i = 0; i < encoded.size(); i += 76) {
    if (i) out += "\r\n";
    out.append(encoded, i, 76);
  }
  return out;
}

std::string FilenameParameter(std::string_view name, std::string_view utf8) {
  // At most 200 bytes, cut between characters: the line stays far below 998.
  if (utf8.size() > 200) {
    size_t cut = 200;
    while (cut > 0 && (uint8_t(utf8[cut]) & 0xC0) == 0x80) --cut;
    utf8 = utf8.substr(0, cut);
  }
  bool quotable = IsPrintableAscii(utf8) && utf8.find_first_of("\"\\") == std::string_view::npos;
  if (quotable) return std::string(name) + "=\"" + std::string(utf8) + "\"";
  static const char* kHex = "0123456789ABCDEF";
  std::string out = std::string(name) + "*=utf-8''";
  for (unsigned char c : utf8) {
    if (isalnum(c) || std::string_view("!#$&+-.^_`|~").find(char(c)) != std::string_view::npos) {
      out += char(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string EncodeHeaderValue(std::string_view utf8) {
  if (IsPrintableAscii(utf8) && utf8.size() <= 900) return std::string(utf8);
  // 45 bytes give 60 base64 characters: each word stays within 75 columns.
  constexpr size_t kChunk = 45;
  std::string out;
  size_t i = 0;
  while (i < utf8.size()) {
    size_t end = std::min(utf8.size(), i + kChunk);
    // Never split a UTF-8 sequence between two words.
    while (end < utf8.size() && end > i + 1 && (uint8_t(utf8[end]) & 0xC0) == 0x80) --end;
    if (!out.empty()) out += "\r\n ";
    out += "=?utf-8?B?" + Base64(utf8.substr(i, end - i)) + "?=";
    i = end;
  }
  return out;
}

std::string NormalizeLineEnds(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 16);
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\r') {
      out += "\r\n";
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else if (c == '\n') {
      out += "\r\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::string QuotedPrintable(std::string_view bytes) {
  static const char* kHex = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() * 11 / 10 + 16);
  size_t column = 0;
  auto put = [&](std::string_view piece) {
    // A soft break keeps every line at 76 columns or fewer, "=" included.
    if (column + piece.size() > 75) {
      out += "=\r\n";
      column = 0;
    }
    out += piece;
    column += piece.size();
  };
  for (size_t i = 0; i < bytes.size(); ++i) {
    unsigned char c = bytes[i];
    if (c == '\r' || c == '\n') {
      if (c == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
      out += "\r\n";
      column = 0;
      continue;
    }
    bool atLineEnd = i + 1 == bytes.size() || bytes[i + 1] == '\r' || bytes[i + 1] == '\n';
    if ((c >= 33 && c <= 126 && c != '=') || ((c == ' ' || c == '\t') && !atLineEnd)) {
      char one[2] = {char(c), 0};
      put(one);
    } else {
      char enc[4] = {'=', kHex[c >> 4], kHex[c & 15], 0};
      put(enc);
    }
  }
  return out;
}

std::string RFC5322Date(double unixSeconds) {
  static const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  time_t t = time_t(unixSeconds);
  tm u{};
  gmtime_r(&t, &u);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s, %02d %s %04d %02d:%02d:%02d +0000", kDays[u.tm_wday % 7],
                u.tm_mday, kMonths[u.tm_mon % 12], u.tm_year + 1900, u.tm_hour, u.tm_min, u.tm_sec);
  return buf;
}

}  // namespace mime

CWInternetAddress::CWInternetAddress(std::optional<std::string> text) {
  if (!text) return;
  std::string_view s = *text;
  size_t open = s.rfind('<');
  size_t close = open == std::string_view::npos ? open : s.find('>', open);
  if (open != std::string_view::npos && close != std::string_view::npos) {
    std::string name = Trim(s.substr(0, open));
    if (name.size() >= 2 && name.front() == '"' && name.back() == '"')
      name = name.substr(1, name.size() - 2);
    personal_ = name;
    address_ = WithoutControls(Trim(s.substr(open + 1, close - open - 1)));
  } else {
    address_ = WithoutControls(Trim(s));
  }
}

std::string CWInternetAddress::HeaderValue() const {
  if (personal_.empty()) return "<" + address_ + ">";
  return EncodePhrase(personal_) + " <" + address_ + ">";
}

void CWPart::setContent(std::u16string_view text) {
  bytes_ = ToUtf8(text);
  isString_ = true;
}

void CWPart::setContent(std::string bytes) {
  bytes_ = std::move(bytes);
  isString_ = false;
}

std::optional<std::string> CWPart::EffectiveCharset() const {
  if (charset_) return charset_;
  if (isString_) return IsAscii(bytes_) ? "us-ascii" : "utf-8";
  return std::nullopt;
}

void CWPart::setContent(CWMIMEMultipart parts) {
  multipart_ = std::make_shared<const CWMIMEMultipart>(std::move(parts));
  bytes_.clear();
  isString_ = false;
}

std::string CWPart::DataValue(uint64_t* boundarySeed) const {
  if (multipart_) return MultipartData(contentType_, charset_, *multipart_, boundarySeed);
  std::string type = WithoutControls(contentType_);
  if (auto cs = EffectiveCharset()) type += "; charset=\"" + WithoutControls(*cs) + "\"";
  if (filename_) type += ";\r\n\t" + mime::FilenameParameter("name", *filename_);
  // Plain 7-bit text travels as it is; anything else is quoted-printable,
  // which also folds lines that would pass the 998-octet limit.
  bool base64 = transferEncoding_ == kEncodingBase64;
  bool sevenBit = !base64 && IsAscii(bytes_) && bytes_.find('\0') == std::string::npos &&
                  LongestLine(bytes_) <= 998;
  std::string out = "Content-Type: " + type + "\r\n";
  out += base64     ? "Content-Transfer-Encoding: base64\r\n"
         : sevenBit ? "Content-Transfer-Encoding: 7bit\r\n"
                    : "Content-Transfer-Encoding: quoted-printable\r\n";
  if (filename_)
    out += "Content-Disposition: attachment;\r\n\t" +
           mime::FilenameParameter("filename", *filename_) + "\r\n";
  out += "\r\n";
  out += base64     ? mime::Base64Lines(bytes_)
         : sevenBit ? mime::NormalizeLineEnds(bytes_)
                    : mime::QuotedPrintable(bytes_);
  return out;
}

void CWMessage::setSubject(std::u16string_view subject) {
  subject_ = ToUtf8(subject);
}

std::string CWMessage::DataValue() const {
  std::string out;
  out += "Date: " + mime::RFC5322Date(date_.value_or(double(std::time(nullptr)))) + "\r\n";
  if (from_) out += "From: " + from_->HeaderValue() + "\r\n";
  std::string to, cc;
  for (const auto& r : recipients_) {
    std::string* list = r.type() == CWInternetAddress::kTo   ? &to
                        : r.type() == CWInternetAddress::kCc ? &cc
                                                             : nullptr;
    if (!list) continue;  // blind copies travel in the envelope only
    if (!list->empty()) *list += ",\r\n ";
    *list += r.HeaderValue();
  }
  if (!to.empty()) out += "To: " + to + "\r\n";
  if (!cc.empty()) out += "Cc: " + cc + "\r\n";
  out += "Subject: " + mime::EncodeHeaderValue(subject_) + "\r\n";
  std::string id = messageID_
                       ? WithoutControls(*messageID_)
                       : Hex(RandomWord()) + "." + std::to_string(getpid()) + "@" + HostPart();
  out += "Message-ID: <" + id + ">\r\n";
  out += "MIME-Version: 1.0\r\n";
  uint64_t fixedSeed = 0;
  for (unsigned char c : id) fixedSeed = (fixedSeed ^ c) * 0x100000001B3ull;
  uint64_t* seed = messageID_ ? &fixedSeed : nullptr;

  if (const auto* multipart = std::get_if<CWMIMEMultipart>(&content_)) {
    out += MultipartData(contentType_, charset_, *multipart, seed);
  } else if (const auto* part = std::get_if<CWPart>(&content_)) {
    out += part->DataValue(seed);
  } else {
    out += "Content-Type: text/plain; charset=\"us-ascii\"\r\n\r\n";
  }
  return out;
}

}  // namespace gab
