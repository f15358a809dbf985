#include "transcript/chat_log.h"

#include <cctype>
#include <cerrno>
#include <cstring>

#include "archive/keyed.h"
#include "archive/typedstream.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/text.h"

namespace gab {

ICLPChatLog::ICLPChatLog() = default;
ICLPChatLog::~ICLPChatLog() = default;

namespace {

// iChat's own classes inside a transcript, decoded as ours.
const ClassSubstitutions& TranscriptClasses() {
  static const ClassSubstitutions classes = {
      {"InstantMessage", ICLPInstantMessage::InitWithCoder},
      {"Presentity", ICLPPresentity::InitWithCoder},
      {"Person", ICLPPerson::InitWithCoder},
  };
  return classes;
}

// The last path component, trailing slashes ignored.
std::string_view LastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (size_t slash = path.rfind('/'); slash != std::string_view::npos)
    path.remove_prefix(slash + 1);
  return path;
}

// The extension of a file name: the text after its last ".", "" without one.
std::string_view Extension(std::string_view name) {
  size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

bool LooksLikeKeyedArchive(std::string_view data) {
  return data.substr(0, 6) == "bplist";
}

// A typedstream starts with the streamer version and the signature, 11
// bytes long, in either byte order's spelling.
bool LooksLikeTypedstream(std::string_view data) {
  return data.size() >= 13 && data[1] == '\x0b' &&
         (data.substr(2, 11) == "typedstream" || data.substr(2, 11) == "streamtyped");
}

// Why a file that is plainly not what its extension says cannot load, in
// words that tell what to do about it; nothing when it may well be.
std::optional<std::string> WrongKind(std::string_view data, bool iChat2) {
  if (data.empty()) return "the file is empty: iChat never wrote an empty transcript";
  if (iChat2 && LooksLikeKeyedArchive(data))
    return "this is an iChat 3 transcript (a binary property list); its name must end in "
           ".ichat, not .chat";
  if (!iChat2 && LooksLikeTypedstream(data))
    return "this is an iChat 2 transcript (a typedstream); its name must end in .chat, not "
           ".ichat";
  if (!LooksLikeKeyedArchive(data) && !LooksLikeTypedstream(data))
    return "not an iChat transcript: an iChat 3 one (.ichat) starts with \"bplist\", an "
           "iChat 2 one (.chat) with a typedstream header";
  return std::nullopt;
}

// 32-bit sums as designed, wrapping instead of overflowing.
int32_t AddWrapping(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

}  // namespace

std::unique_ptr<ICLPChatLog> ICLPChatLog::InitWithFilePath(const std::string& path) {
  return InitWithFilePath(path, nullptr);
}

std::unique_ptr<ICLPChatLog> ICLPChatLog::InitWithFilePath(const std::string& path,
                                                           std::string* why) {
  return Init(path, nullptr, why);
}

std::unique_ptr<ICLPChatLog> ICLPChatLog::InitWithFileData(const std::string& path,
                                                           std::string_view data,
                                                           std::string* why) {
  return Init(path, &data, why);
}

std::unique_ptr<ICLPChatLog> ICLPChatLog::Init(const std::string& path,
                                               const std::string_view* given, std::string* why) {
  auto fail = [&](std::string reason) -> std::unique_ptr<ICLPChatLog> {
    if (why) *why = std::move(reason);
    return nullptr;
  };
  std::string_view name = LastComponent(path);
  std::string_view extension = Extension(name);
  // The kind of file is its extension alone, compared exactly.
  bool iChat2 = extension == "chat";
  if (!iChat2 && extension != "ichat") {
    std::string lower(extension);
    for (char& c : lower) c = char(std::tolower(static_cast<unsigned char>(c)));
    if (lower == "chat" || lower == "ichat")
      return fail("not taken as a transcript: the extension must be in lower case (." + lower +
                  ")");
    return fail("not a transcript: the extension is not \"chat\" or \"ichat\"");
  }

  auto log = std::make_unique<ICLPChatLog>();
  log->path_ = path;
  std::string readError;
  std::optional<std::string> read;
  if (!given) read = ReadRegularFile(path, UntrustedFileLimit(), &readError);
  bool loaded;
  if (!given && !read) {
    log->Fail(readError);
    loaded = false;
  } else {
    std::string_view data = given ? *given : std::string_view(*read);
    if (auto wrong = WrongKind(data, iChat2)) {
      log->Fail(*wrong);
      loaded = false;
    } else {
      loaded = iChat2 ? log->LoadiChat2Data(data) : log->LoadiChat3Data(data);
    }
  }
  if (!loaded) return fail(log->loadError_);

  // iChat names a transcript "<party> on <date>.<extension>"; the party may
  // itself hold " on ", so the last one counts.
  size_t on = name.rfind(" on ");
  if (on == std::string_view::npos) return fail("the file name holds no \" on \"");
  log->primaryOtherParty_ = ToUtf16(name.substr(0, on));
  return log;
}

bool ICLPChatLog::Fail(std::string reason) {
  loadError_ = std::move(reason);
  loadedArray_.reset();
  messages_.clear();
  participants_.clear();
  NSLog("Could not load transcript" + (path_.empty() ? std::string() : " " + path_) + ": " +
        loadError_);
  return false;
}

bool ICLPChatLog::LoadiChat2Data(std::string_view data) {
  DecodeResult result = DecodeTypedstream(data, TranscriptClasses());
  if (!result.ok()) return Fail("iChat 2 archive: " + result.error);
  return AdoptRoot(result.root);
}

bool ICLPChatLog::LoadiChat3Data(std::string_view data) {
  DecodeResult result = DecodeKeyedArchive(data, TranscriptClasses(), "root");
  if (!result.ok()) return Fail("iChat 3 archive: " + result.error);
  return AdoptRoot(result.root);
}

// The program uses the root by position, so its shape is checked once here
// instead of failing later at the point of use.
bool ICLPChatLog::AdoptRoot(const ObjectPtr& root) {
  auto array = As<Array>(root);
  if (!array) return Fail("the root object is not an array");
  if (array->items.size() < 4)
    return Fail("the root array has " + std::to_string(array->items.size()) +
                " elements, fewer than 4");
  auto messages = As<Array>(array->items[2]);
  if (!messages) return Fail("element 2 of the root array is not an array of messages");
  auto participants = As<Array>(array->items[3]);
  if (!participants) return Fail("element 3 of the root array is not an array of participants");

  std::vector<std::shared_ptr<ICLPInstantMessage>> decodedMessages;
  decodedMessages.reserve(messages->items.size());
  for (size_t i = 0; i < messages->items.size(); ++i) {
    auto m = As<ICLPInstantMessage>(messages->items[i]);
    if (!m) return Fail("message " + std::to_string(i) + " is not an instant message");
    decodedMessages.push_back(std::move(m));
  }
  std::vector<std::shared_ptr<ICLPPresentity>> decodedParticipants;
  decodedParticipants.reserve(participants->items.size());
  for (size_t i = 0; i < participants->items.size(); ++i) {
    auto p = As<ICLPPresentity>(participants->items[i]);
    if (!p) return Fail("participant " + std::to_string(i) + " is not a participant record");
    decodedParticipants.push_back(std::move(p));
  }
  loadedArray_ = root;
  messages_ = std::move(decodedMessages);
  participants_ = std::move(decodedParticipants);
  loadError_.clear();
  return true;
}

std::u16string ICLPChatLog::description() const {
  return loadedArray_ ? loadedArray_->Description() : std::u16string();
}

int32_t ICLPChatLog::NumberOfSpeakers() const {
  // The user is not among the participants.
  return static_cast<int32_t>(static_cast<uint32_t>(participants_.size()) + 1u);
}

std::optional<Date> ICLPChatLog::LastMessageDate() const {
  if (messages_.empty() || !messages_.back()) return std::nullopt;
  return messages_.back()->TimeStamp();
}

bool ICLPChatLog::NameInSpeakerList(std::u16string_view name) const {
  for (const auto& p : participants_)
    if (p && p->rawName() && *p->rawName() == name) return true;
  return false;
}

std::u16string ICLPChatLog::firstOtherPartyName() const {
  return primaryOtherParty_;
}

int32_t ICLPChatLog::CountWordsForUserInSet(const WordSet* set) const {
  int32_t total = 0;
  for (const auto& m : messages_) {
    if (!m) continue;
    auto speaker = m->Speaker();
    if (speaker && *speaker != primaryOtherParty_)
      total = AddWrapping(total, m->wordCountInSet(set));
  }
  return total;
}

int32_t ICLPChatLog::CountWordsForOthersInSet(const WordSet* set) const {
  int32_t total = 0;
  for (const auto& m : messages_) {
    if (!m) continue;
    auto speaker = m->Speaker();
    if (speaker && *speaker == primaryOtherParty_)
      total = AddWrapping(total, m->wordCountInSet(set));
  }
  return total;
}

ICLPChatLog::WordCounts ICLPChatLog::CountWords(const WordSet* curses, const WordSet* slang) const {
  // Unsigned sums wrap like the separate 32-bit counts.
  uint32_t sums[2][3] = {};  // [user, others][words, curses, slang]
  for (const auto& m : messages_) {
    if (!m) continue;
    auto speaker = m->Speaker();
    if (!speaker) continue;
    uint32_t* side = sums[*speaker == primaryOtherParty_ ? 1 : 0];
    m->ForEachWord([&](const std::u16string& word) {
      ++side[0];
      if (!curses || curses->count(word)) ++side[1];
      if (!slang || slang->count(word)) ++side[2];
    });
  }
  WordCounts counts;
  counts.userWords = static_cast<int32_t>(sums[0][0]);
  counts.userCurses = static_cast<int32_t>(sums[0][1]);
  counts.userSlang = static_cast<int32_t>(sums[0][2]);
  counts.otherWords = static_cast<int32_t>(sums[1][0]);
  counts.otherCurses = static_cast<int32_t>(sums[1][1]);
  counts.otherSlang = static_cast<int32_t>(sums[1][2]);
  return counts;
}

}  // namespace gab
