#pragma once
// MIME messages in the shape of the mail library the product was built on:
// a message with addresses, a subject and content that is either a single
// part or a multipart (whose parts may be multiparts and attachments).
// DataValue() produces the RFC 5322 bytes (CRLF line ends, no line longer
// than 998 octets, header values RFC 2047 encoded when they hold anything
// but printable ASCII).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace gab {

class CWInternetAddress {
 public:
  enum Type { kTo = 1, kCc = 2, kBcc = 3 };

  // initWithString:, e.g. "Anna <anna@example.org>" or "anna@example.org";
  // nothing gives an empty address.
  explicit CWInternetAddress(std::optional<std::string> text = std::nullopt);
  // A display name (any UTF-8) and a bare address, taken as they are.
  CWInternetAddress(std::string personal, std::string address)
      : personal_(std::move(personal)), address_(std::move(address)) {}

  void setType(int type) { type_ = type; }
  int type() const { return type_; }
  const std::string& personal() const { return personal_; }  // display name, UTF-8
  const std::string& address() const { return address_; }    // the bare address
  // The header form: the address, or an (encoded) name and "<address>".
  std::string HeaderValue() const;

 private:
  std::string personal_, address_;
  int type_ = kTo;
};

// Transfer encodings, with the mail library's values.
enum CWTransferEncoding { kEncodingNone = 0, kEncodingQuotedPrintable = 1, kEncodingBase64 = 2 };

class CWMIMEMultipart;

class CWPart {
 public:
  void setContentType(std::string type) { contentType_ = std::move(type); }
  // A string: the part declares the charset its bytes need (us-ascii or
  // utf-8) unless one is set.
  void setContent(std::u16string_view text);
  // Bytes, sent as they are in the declared charset.
  void setContent(std::string bytes);
  // Nested parts; the content type names the kind ("multipart/alternative").
  void setContent(CWMIMEMultipart parts);
  void setCharset(std::string charset) { charset_ = std::move(charset); }
  // An attachment: "Content-Disposition: attachment" with this file name.
  void setFilename(std::string utf8) { filename_ = std::move(utf8); }
  // kEncodingBase64 sends the bytes as base64; otherwise text travels as
  // 7bit when it can, else quoted-printable.
  void setContentTransferEncoding(int encoding) { transferEncoding_ = encoding; }

  const std::string& contentType() const { return contentType_; }
  const std::string& bytes() const { return bytes_; }
  // The charset written into the part's header (set, or chosen for a string).
  std::optional<std::string> EffectiveCharset() const;
  // Header lines and body of the part, CRLF line ends.  Boundaries of nested
  // parts come from `boundarySeed` when given (the same seed, the same
  // bytes), else at random.
  std::string DataValue(uint64_t* boundarySeed = nullptr) const;

 private:
  std::string contentType_ = "text/plain";
  std::string bytes_;
  bool isString_ = false;
  std::optional<std::string> charset_;
  std::optional<std::string> filename_;
  int transferEncoding_ = kEncodingNone;
  std::shared_ptr<const CWMIMEMultipart> multipart_;
};

class CWMIMEMultipart {
 public:
  void addPart(CWPart part) { parts_.push_back(std::move(part)); }
  const std::vector<CWPart>& parts() const { return parts_; }

 private:
  std::vector<CWPart> parts_;
};

class CWMessage {
 public:
  void setSubject(std::u16string_view subject);
  void setFrom(CWInternetAddress from) { from_ = std::move(from); }
  void addRecipient(CWInternetAddress to) { recipients_.push_back(std::move(to)); }
  void setContentType(std::string type) { contentType_ = std::move(type); }
  void setContentTransferEncoding(int encoding) { transferEncoding_ = encoding; }
  void setCharset(std::string charset) { charset_ = std::move(charset); }
  void setContent(CWMIMEMultipart content) { content_ = std::move(content); }
  void setContent(CWPart content) { content_ = std::move(content); }
  // Fixed header values instead of the time of sending and a random id; with
  // an id set, the boundaries derive from it, so the message's bytes are the
  // same every time.  The id is given without its angle brackets.
  void setDate(double unixSeconds) { date_ = unixSeconds; }
  void setMessageID(std::string id) { messageID_ = std::move(id); }

  const std::string& subject() const { return subject_; }  // UTF-8
  const std::optional<CWInternetAddress>& from() const { return from_; }
  const std::vector<CWInternetAddress>& recipients() const { return recipients_; }

  // The whole message: headers, blank line, body; CRLF line ends.
  std::string DataValue() const;

 private:
  std::string subject_;
  std::optional<CWInternetAddress> from_;
  std::vector<CWInternetAddress> recipients_;
  std::string contentType_ = "text/plain";
  int transferEncoding_ = kEncodingNone;
  std::optional<std::string> charset_;
  std::variant<std::monostate, CWPart, CWMIMEMultipart> content_;
  std::optional<double> date_;
  std::optional<std::string> messageID_;
};

// Building blocks, exposed for tests.
namespace mime {
// RFC 2047 "B" encoded words for a UTF-8 header value, folded with CRLF SP;
// the value as it is when it is printable ASCII and short enough.
std::string EncodeHeaderValue(std::string_view utf8);
// Quoted-printable with CRLF line ends and soft breaks before 76 columns.
std::string QuotedPrintable(std::string_view bytes);
// Base64 in lines of 76 characters, each ended by CR LF.
std::string Base64Lines(std::string_view bytes);
// A file name (its first 200 bytes) as a header parameter: name="..." when
// it is plain ASCII, else RFC 2231's name*=utf-8''%XX form.
std::string FilenameParameter(std::string_view name, std::string_view utf8);
// LF, CR and CR LF all become CR LF.
std::string NormalizeLineEnds(std::string_view text);
// RFC 5322 date in UTC: "Mon, 23 Nov 2026 09:14:35 +0000".
std::string RFC5322Date(double unixSeconds);
}  // namespace mime

}  // namespace gab
