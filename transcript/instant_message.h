#pragma once
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "archive/coder.h"
#include "archive/object.h"
#include "transcript/presentity.h"

namespace gab {

// A word set for the counts; a null pointer means "no set": every word counts.
using WordSet = std::unordered_set<std::u16string>;

// allURLs: "speaker", "time", "urls".
struct LinkEntry {
  std::u16string speaker;
  std::optional<Date> time;  // a message without a time yields no list
  std::vector<std::u16string> urls;
};

// allImages: "speaker", "time", "images" (file wrappers of the attachments).
struct ImageEntry {
  std::u16string speaker;
  std::optional<Date> time;
  std::vector<std::shared_ptr<FileWrapper>> images;
};

// One logged line of a transcript ("InstantMessage").
class ICLPInstantMessage : public Object {
 public:
  std::string ClassName() const override { return "ICLPInstantMessage"; }
  // initWithCoder: keyed "Sender", "Time", "MessageText", "Flags";
  // sequential: object, object, object, then one "I" value.
  static ObjectPtr InitWithCoder(Coder& coder);

  std::optional<std::u16string> Speaker() const;     // Name of the sender
  std::optional<std::u16string> rawSpeaker() const;  // rawName of the sender
  std::optional<Date> TimeStamp() const { return timestamp; }
  AttributedString LoggedString() const;  // bold name, ": ", text, "\n\n"
  std::u16string PlainString() const;     // "" without text, else "name: text\n"
  bool isStatusMessage() const;           // no sender, or text of length 0
  // Empty dictionary (nullopt) for a status message or a sender without name.
  std::optional<LinkEntry> allURLs() const;
  std::optional<ImageEntry> allImages() const;
  int32_t wordCountInSet(const WordSet* set) const;

  std::shared_ptr<ICLPPresentity> speaker;   // null for status lines
  std::shared_ptr<AttributedString> string;  // may be null
  std::optional<Date> timestamp;
  uint32_t mystery = 0;  // iChat's flags word; read by nothing
};

}  // namespace gab
