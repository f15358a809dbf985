#pragma once
// Writes iChat transcripts from a short description, in the layouts Apple's
// archivers use: NSArchiver typedstreams of either byte order (iChat 2,
// ".chat") and NSKeyedArchiver binary plists (iChat 3, ".ichat").  For
// tests, benchmarks and demonstrations; the product never writes archives.
//
// The root is the array iChat stores: [service, "", messages,
// participants].  A speaker is archived once and shared by every message
// and participant list entry that names the same (service, id) pair, as
// iChat's own presentity objects are.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "archive/object.h"
#include "platform/dates.h"

namespace gab::fixtures {

struct Speaker {
  std::u16string service = u"AIM";  // "AIM", "SubNet", ...
  std::u16string id;                // account name
  bool person = false;              // archived as a Person, which is no presentity
  bool operator==(const Speaker&) const = default;
};

struct Link {
  Link() = default;
  Link(std::u16string t, bool url = true, std::optional<std::u16string> b = std::nullopt)
      : target(std::move(t)), asURL(url), base(std::move(b)) {}
  std::u16string target;
  bool asURL = true;                   // an NSURL object; otherwise a plain string
  std::optional<std::u16string> base;  // NSURL only: target is relative to it
};

struct Attachment {
  Attachment() = default;
  Attachment(std::u16string name, std::string data, bool utf8Name = true)
      : fileName(std::move(name)), bytes(std::move(data)), withUtf8Name(utf8Name) {}
  std::u16string fileName;
  std::string bytes;
  bool withUtf8Name = true;  // also write the UTF-8 preferred-name entry
};

// One run of styled text.  An attachment run's text is U+FFFC when empty.
struct TextRun {
  TextRun() = default;
  explicit TextRun(std::u16string t) : text(std::move(t)) {}
  std::u16string text;
  std::optional<std::u16string> fontName;
  double fontSize = 12;
  std::optional<std::array<double, 3>> rgb;  // calibrated RGB foreground
  std::optional<double> white;               // calibrated white foreground
  std::optional<Link> link;
  std::optional<Attachment> attachment;
};

struct Message {
  std::optional<Speaker> speaker;  // none: a status line
  Date time;
  std::vector<TextRun> runs;  // empty: empty text
  bool noText = false;        // nil instead of an attributed string
  uint32_t flags = 0;
  bool plainText = false;  // a plain string instead of an attributed string
};

struct Transcript {
  std::u16string service = u"AIM";
  std::vector<Message> messages;
  std::vector<Speaker> participants;
};

enum class Format {
  kTypedstreamBigEndian,     // "typedstream", as iChat 2 on PowerPC wrote
  kTypedstreamLittleEndian,  // "streamtyped"
  kKeyed,                    // bplist00 NSKeyedArchiver
};

std::string WriteTranscript(const Transcript& t, Format format);

// Pieces used by the transcript writers, exposed for tests of the decoders.

// NSFileWrapper's serialized representation of a regular file.
std::string SerializeRegularFile(const std::u16string& fileName, const std::string& contents,
                                 bool withUtf8Name = true);

// One object of the model as NSArchiver writes it: strings, integers,
// arrays, dictionaries and attributed strings.
std::string WriteTypedstreamObject(const ObjectPtr& root, bool bigEndian);

}  // namespace gab::fixtures
