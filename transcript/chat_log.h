#pragma once
// ICLPChatLog: one iChat transcript loaded into memory, with the queries over
// a whole chat.  It is data: rendering, mail, gathering and statistics are
// functions of the layers above that take a transcript.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/object.h"
#include "transcript/instant_message.h"
#include "transcript/presentity.h"

namespace gab {

class ICLPChatLog {
 public:
  // An empty transcript.
  ICLPChatLog();
  ~ICLPChatLog();
  ICLPChatLog(const ICLPChatLog&) = delete;
  ICLPChatLog& operator=(const ICLPChatLog&) = delete;

  // ---- Loading and queries (transcript/chat_log.cpp) ----
  // Yields nothing for an unknown extension, a name without " on ", or an
  // archive that does not decode to a transcript (the reason is logged).
  static std::unique_ptr<ICLPChatLog> InitWithFilePath(const std::string& path);
  // The same; when nothing is yielded, `why` (if given) says why.
  static std::unique_ptr<ICLPChatLog> InitWithFilePath(const std::string& path, std::string* why);
  // The same for a file's bytes already read (`path` gives its name).
  static std::unique_ptr<ICLPChatLog> InitWithFileData(const std::string& path,
                                                       std::string_view data, std::string* why);
  // Decoders; false (reason logged, nothing kept) when the archive is bad.
  bool LoadiChat2Data(std::string_view data);
  bool LoadiChat3Data(std::string_view data);
  // The reason the last load failed ("" after success).
  const std::string& loadError() const { return loadError_; }

  std::u16string description() const;
  int32_t NumberOfSpeakers() const;
  std::optional<Date> LastMessageDate() const;
  bool NameInSpeakerList(std::u16string_view name) const;
  std::u16string firstOtherPartyName() const;
  int32_t CountWordsForUserInSet(const WordSet* set) const;
  int32_t CountWordsForOthersInSet(const WordSet* set) const;

  // All six counts of the statistics in one pass over the messages; each
  // equals the matching CountWordsFor...InSet (null set: all words).
  struct WordCounts {
    int32_t userWords = 0, userCurses = 0, userSlang = 0;
    int32_t otherWords = 0, otherCurses = 0, otherSlang = 0;
  };
  WordCounts CountWords(const WordSet* curses, const WordSet* slang) const;

  // Element 2 and element 3 of the root array (checked at load).
  const std::vector<std::shared_ptr<ICLPInstantMessage>>& Messages() const { return messages_; }
  const std::vector<std::shared_ptr<ICLPPresentity>>& Participants() const { return participants_; }
  const std::u16string& primaryOtherParty() const { return primaryOtherParty_; }
  const ObjectPtr& loadedArray() const { return loadedArray_; }

  // For tests and tools: a transcript made of already decoded parts.
  static std::unique_ptr<ICLPChatLog> FromParts(
      std::u16string party, std::vector<std::shared_ptr<ICLPInstantMessage>> messages,
      std::vector<std::shared_ptr<ICLPPresentity>> participants = {}) {
    auto log = std::make_unique<ICLPChatLog>();
    log->primaryOtherParty_ = std::move(party);
    log->messages_ = std::move(messages);
    log->participants_ = std::move(participants);
    return log;
  }

 private:
  // Loads `path`, or `data` when given.
  static std::unique_ptr<ICLPChatLog> Init(const std::string& path, const std::string_view* data,
                                           std::string* why);
  bool AdoptRoot(const ObjectPtr& root);
  bool Fail(std::string reason);  // logs, keeps the reason, drops what was loaded

  ObjectPtr loadedArray_;
  std::u16string protocol_;
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages_;
  std::vector<std::shared_ptr<ICLPPresentity>> participants_;
  std::u16string primaryOtherParty_;
  std::string loadError_;
  std::string path_;  // the file being loaded, for log lines
};

}  // namespace gab
