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
  // Bold name, ": ", text, "\n\n"; empty without a sender.
  AttributedString LoggedString() const;
  std::u16string PlainString() const;  // "" without text, else "name: text\n"
  bool isStatusMessage() const;        // no sender, or text of length 0
  // Empty dictionary (nullopt) for a status message or a sender without name.
  std::optional<LinkEntry> allURLs() const;
  std::optional<ImageEntry> allImages() const;
  int32_t wordCountInSet(const WordSet* set) const;
  // Calls `word` for each word that wordCountInSet counts (before the set
  // test), in order.  The string passed is reused between calls.
  template <class F>
  void ForEachWord(F&& word) const;

  std::shared_ptr<ICLPPresentity> speaker;   // null for status lines
  std::shared_ptr<AttributedString> string;  // may be null
  std::optional<Date> timestamp;
  uint32_t mystery = 0;  // iChat's flags word; read by nothing
};

// The default scanner's skip set: white space and line ends.
bool IsScannerSkipCharacter(char16_t c);

template <class F>
void ICLPInstantMessage::ForEachWord(F&& word) const {
  if (!speaker || !string) return;
  // A word is what the scanner reads up to the next single " " after skipping
  // white space and line ends: only U+0020 ends a word, so a line feed or a
  // tab inside a run of text does not split it.
  const std::u16string& text = string->text;
  std::u16string current;
  size_t pos = 0;
  for (;;) {
    while (pos < text.size() && IsScannerSkipCharacter(text[pos])) ++pos;
    if (pos == text.size()) return;
    size_t end = text.find(u' ', pos);
    if (end == std::u16string::npos) end = text.size();
    current.assign(text, pos, end - pos);
    word(static_cast<const std::u16string&>(current));
    pos = end < text.size() ? end + 1 : end;
  }
}

}  // namespace gab
