#pragma once
// Transcripts built in memory with the object model, as a decoder would
// produce them: messages whose text runs carry links and attachments.
#include <memory>
#include <string>
#include <vector>

#include "archive/object.h"
#include "transcript/chat_log.h"

namespace gab::testing {

struct Piece {
  Piece(std::u16string t, ObjectPtr l = nullptr, std::shared_ptr<FileWrapper> a = nullptr)
      : text(std::move(t)), link(std::move(l)), attachment(std::move(a)) {}
  std::u16string text;
  ObjectPtr link;                           // String or URL, or null
  std::shared_ptr<FileWrapper> attachment;  // or null
};

inline ObjectPtr LinkString(std::u16string url) {
  return std::make_shared<String>(std::move(url));
}

inline std::shared_ptr<FileWrapper> FileNamed(std::optional<std::u16string> name, std::string bytes,
                                              bool regular = true) {
  auto w = std::make_shared<FileWrapper>();
  w->regular = regular;
  w->preferredFilename = std::move(name);
  w->contents = std::move(bytes);
  return w;
}

// A message from `sender` (a Jabber account, so the name is used as it is);
// an empty sender makes a status line.
inline std::shared_ptr<ICLPInstantMessage> Message(const std::u16string& sender, Date time,
                                                   const std::vector<Piece>& pieces) {
  auto m = std::make_shared<ICLPInstantMessage>();
  if (!sender.empty()) {
    m->speaker = std::make_shared<ICLPPresentity>();
    m->speaker->protocol = u"Jabber";
    m->speaker->name = sender;
  }
  m->timestamp = time;
  m->string = std::make_shared<AttributedString>();
  for (const auto& p : pieces) {
    std::shared_ptr<Dictionary> attrs;
    if (p.link || p.attachment) {
      attrs = std::make_shared<Dictionary>();
      if (p.link)
        attrs->entries.emplace_back(std::make_shared<String>(std::u16string(kLinkAttribute)),
                                    p.link);
      if (p.attachment) {
        auto a = std::make_shared<TextAttachment>();
        a->fileWrapper = p.attachment;
        attrs->entries.emplace_back(std::make_shared<String>(std::u16string(kAttachmentAttribute)),
                                    a);
      }
    }
    m->string->Append(p.text, attrs);
  }
  return m;
}

// 2005-03-08 15:07:42 in New York (the tests' zone) plus `minutes`.
inline Date March8(double minutes = 0) {
  return Date::FromUnix(1110312462 + minutes * 60);
}

}  // namespace gab::testing
