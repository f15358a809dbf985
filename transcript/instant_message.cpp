#include "transcript/instant_message.h"

namespace gab {

bool IsScannerSkipCharacter(char16_t c) {
  if (c >= 0x0009 && c <= 0x000D) return true;
  switch (c) {
    case 0x0020:  // Zs
    case 0x0085:
    case 0x00A0:
    case 0x1680:
    case 0x202F:
    case 0x205F:
    case 0x3000:
    case 0x2028:  // Zl
    case 0x2029:  // Zp
      return true;
    default:
      return c >= 0x2000 && c <= 0x200A;  // Zs
  }
}

ObjectPtr ICLPInstantMessage::InitWithCoder(Coder& coder) {
  auto m = std::make_shared<ICLPInstantMessage>();
  ObjectPtr sender, time, text;
  if (coder.AllowsKeyedCoding()) {
    sender = coder.DecodeObjectForKey("Sender");
    time = coder.DecodeObjectForKey("Time");
    text = coder.DecodeObjectForKey("MessageText");
    m->mystery = static_cast<uint32_t>(coder.DecodeInt32ForKey("Flags"));
  } else {
    // Sequential archives have no keys: the order is the format.
    sender = coder.DecodeObject();
    time = coder.DecodeObject();
    text = coder.DecodeObject();
    auto flags = coder.DecodeUnsigned32();
    if (!flags) return nullptr;
    m->mystery = *flags;
  }
  // A member of an unexpected kind is left empty rather than trusted.
  m->speaker = As<ICLPPresentity>(sender);
  if (auto date = As<DateObject>(time)) m->timestamp = date->date;
  m->string = As<AttributedString>(text);
  if (!m->string) {
    if (auto plain = As<String>(text)) {
      m->string = std::make_shared<AttributedString>();
      m->string->Append(plain->value, nullptr);
    }
  }
  return m;
}

std::optional<std::u16string> ICLPInstantMessage::Speaker() const {
  if (!speaker) return std::nullopt;
  return speaker->Name();
}

std::optional<std::u16string> ICLPInstantMessage::rawSpeaker() const {
  if (!speaker) return std::nullopt;
  return speaker->rawName();
}

bool ICLPInstantMessage::isStatusMessage() const {
  return !speaker || !string || string->Length() == 0;
}

std::u16string ICLPInstantMessage::PlainString() const {
  if (!string) return u"";
  std::u16string line;
  line.reserve(string->Length() + 32);
  if (auto name = Speaker()) line += *name;
  line += u": ";
  line += string->text;
  line += u"\n";
  return line;
}

AttributedString ICLPInstantMessage::LoggedString() const {
  // Without a sender there is no bold name to start from, and the whole line
  // is nothing (as every message to a nil object is).
  if (!speaker) return AttributedString();
  AttributedString line = speaker->RichName();
  line.mutable_ = true;
  line.Append(u": ", nullptr);
  if (string) line.Append(*string);
  line.Append(u"\n\n", nullptr);
  return line;
}

namespace {

// The values of one attribute as the per-character walk meets them: at each
// index the value is taken unless it is absent or the very object taken
// last.  Within a run every character carries the same value, so looking at
// each run once gives the same sequence as looking at each character.
template <class F>
void WalkAttribute(const AttributedString& s, std::u16string_view key, F&& take) {
  const Object* last = nullptr;
  size_t covered = 0;
  for (const auto& run : s.runs) {
    if (covered >= s.Length()) break;
    if (run.length == 0) continue;
    covered += run.length;
    if (!run.attributes) continue;
    ObjectPtr value = run.attributes->Get(key);
    if (!value || value.get() == last) continue;
    last = value.get();
    take(value);
  }
}

}  // namespace

std::optional<LinkEntry> ICLPInstantMessage::allURLs() const {
  if (isStatusMessage()) return std::nullopt;
  auto name = Speaker();
  if (!name) return std::nullopt;
  LinkEntry entry{*name, timestamp, {}};
  if (!timestamp) return entry;  // the list is cut off before "urls"
  WalkAttribute(*string, kLinkAttribute, [&](const ObjectPtr& value) {
    if (auto s = As<String>(value)) {
      entry.urls.push_back(s->value);
    } else if (auto url = As<URL>(value)) {
      entry.urls.push_back(url->AbsoluteString());
    }
  });
  return entry;
}

std::optional<ImageEntry> ICLPInstantMessage::allImages() const {
  if (isStatusMessage()) return std::nullopt;
  auto name = Speaker();
  if (!name) return std::nullopt;
  ImageEntry entry{*name, timestamp, {}};
  if (!timestamp) return entry;
  WalkAttribute(*string, kAttachmentAttribute, [&](const ObjectPtr& value) {
    if (auto attachment = As<TextAttachment>(value); attachment && attachment->fileWrapper)
      entry.images.push_back(attachment->fileWrapper);
  });
  return entry;
}

int32_t ICLPInstantMessage::wordCountInSet(const WordSet* set) const {
  uint32_t count = 0;  // 32 bits as designed; wraps instead of overflowing
  ForEachWord([&](const std::u16string& word) {
    if (!set || set->count(word)) ++count;
  });
  return static_cast<int32_t>(count);
}

}  // namespace gab
