#pragma once
// Transcripts made in memory with the object model, as the decoders would
// produce them.  Header only: a test program using it links the transcript
// layer anyway.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archive/object.h"
#include "transcript/chat_log.h"
#include "transcript/instant_message.h"
#include "transcript/presentity.h"

namespace gab::testing {

inline std::shared_ptr<ICLPPresentity> Participant(std::optional<std::u16string> protocol,
                                                   std::optional<std::u16string> name) {
  auto p = std::make_shared<ICLPPresentity>();
  p->protocol = std::move(protocol);
  p->name = std::move(name);
  return p;
}

inline std::shared_ptr<FileWrapper> FileNamed(std::optional<std::u16string> name, std::string bytes,
                                              bool regular = true) {
  auto w = std::make_shared<FileWrapper>();
  w->regular = regular;
  w->preferredFilename = std::move(name);
  w->contents = std::move(bytes);
  return w;
}

// A piece of a message's text: plain, linked (a String or URL object) or an
// attached file.
struct Piece {
  Piece(std::u16string t, ObjectPtr l = nullptr, std::shared_ptr<FileWrapper> f = nullptr)
      : text(std::move(t)), link(std::move(l)), file(std::move(f)) {}
  std::u16string text;
  ObjectPtr link;
  std::shared_ptr<FileWrapper> file;
};

inline ObjectPtr LinkString(std::u16string url) {
  return std::make_shared<String>(std::move(url));
}

inline std::shared_ptr<AttributedString> Text(const std::vector<Piece>& pieces) {
  auto s = std::make_shared<AttributedString>();
  for (const auto& p : pieces) {
    std::shared_ptr<Dictionary> attrs;
    auto add = [&](std::u16string_view key, ObjectPtr value) {
      if (!attrs) attrs = std::make_shared<Dictionary>();
      attrs->entries.emplace_back(std::make_shared<String>(std::u16string(key)), std::move(value));
    };
    if (p.link) add(kLinkAttribute, p.link);
    if (p.file) {
      auto a = std::make_shared<TextAttachment>();
      a->fileWrapper = p.file;
      add(kAttachmentAttribute, a);
    }
    s->Append(p.text, attrs);
  }
  return s;
}

// No speaker makes a status line; no text, a message without one.
inline std::shared_ptr<ICLPInstantMessage> Message(std::shared_ptr<ICLPPresentity> speaker,
                                                   std::shared_ptr<AttributedString> text,
                                                   std::optional<Date> time = Date{1000}) {
  auto m = std::make_shared<ICLPInstantMessage>();
  m->speaker = std::move(speaker);
  m->string = std::move(text);
  m->timestamp = time;
  return m;
}
inline std::shared_ptr<ICLPInstantMessage> Message(std::shared_ptr<ICLPPresentity> speaker,
                                                   std::u16string text,
                                                   std::optional<Date> time = Date{1000}) {
  return Message(std::move(speaker), Text({{std::move(text)}}), time);
}
inline std::shared_ptr<ICLPInstantMessage> Message(std::shared_ptr<ICLPPresentity> speaker,
                                                   std::nullptr_t,
                                                   std::optional<Date> time = Date{1000}) {
  return Message(std::move(speaker), std::shared_ptr<AttributedString>(), time);
}

// From a Jabber account, whose name is shown as it is; "" makes a status line.
inline std::shared_ptr<ICLPInstantMessage> Said(const std::u16string& sender, Date time,
                                                const std::vector<Piece>& pieces) {
  return Message(sender.empty() ? nullptr : Participant(u"Jabber", sender), Text(pieces), time);
}

// 2005-03-08 15:07:42 in New York (the tests' zone) plus `minutes`.
inline Date March8(double minutes = 0) {
  return Date::FromUnix(1110312462 + minutes * 60);
}

// A line of a chat for the statistics: its links follow the text, each a
// linked word, then `attachments` files.
struct Line {
  std::optional<std::u16string> speaker;  // nothing: a status line
  std::u16string text;
  double time = 0;  // seconds since 2001
  std::vector<std::u16string> links = {};
  int attachments = 0;
};

// A chat named for `party`, whose `participants` besides the user all bear
// its name.
inline std::unique_ptr<ICLPChatLog> Chat(std::u16string party, const std::vector<Line>& lines,
                                         int participants = 1) {
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
  for (const Line& l : lines) {
    std::vector<Piece> pieces = {{l.text}};
    for (const auto& link : l.links)
      pieces.insert(pieces.end(), {{u" "}, {link, LinkString(link)}});
    for (int i = 0; i < l.attachments; ++i)
      pieces.push_back({u"\uFFFC", nullptr, FileNamed(u"photo.jpg", "")});
    messages.push_back(Said(l.speaker.value_or(u""), Date{l.time}, pieces));
  }
  std::vector<std::shared_ptr<ICLPPresentity>> people;
  for (int i = 0; i < participants; ++i) people.push_back(Participant(u"Jabber", party));
  return ICLPChatLog::FromParts(std::move(party), std::move(messages), std::move(people));
}

}  // namespace gab::testing
