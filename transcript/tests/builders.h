#pragma once
// Small builders for transcripts made in memory.

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "archive/coder.h"
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

inline std::shared_ptr<Dictionary> Attributes(std::u16string_view key, ObjectPtr value) {
  auto d = std::make_shared<Dictionary>();
  d->entries.emplace_back(std::make_shared<String>(std::u16string(key)), std::move(value));
  return d;
}

inline std::shared_ptr<AttributedString> Text(std::u16string_view text) {
  auto s = std::make_shared<AttributedString>();
  s->Append(text, nullptr);
  return s;
}

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
                                                   std::u16string_view text,
                                                   std::optional<Date> time = Date{1000}) {
  return Message(std::move(speaker), Text(text), time);
}

inline std::shared_ptr<ICLPInstantMessage> Message(std::shared_ptr<ICLPPresentity> speaker,
                                                   std::nullptr_t,
                                                   std::optional<Date> time = Date{1000}) {
  return Message(std::move(speaker), std::shared_ptr<AttributedString>(), time);
}

// A coder that hands out prepared values: by key when keyed, in order when
// sequential.  Records what was asked for.
class FakeCoder : public Coder {
 public:
  explicit FakeCoder(bool keyed) : keyed_(keyed) {}
  bool AllowsKeyedCoding() const override { return keyed_; }
  ObjectPtr DecodeObjectForKey(std::string_view key) override {
    asked += std::string(key) + ";";
    auto it = objects.find(std::string(key));
    return it == objects.end() ? nullptr : it->second;
  }
  int32_t DecodeInt32ForKey(std::string_view key) override {
    asked += std::string(key) + ";";
    auto it = ints.find(std::string(key));
    return it == ints.end() ? 0 : it->second;
  }
  ObjectPtr DecodeObject() override {
    asked += "@;";
    if (sequence.empty()) return nullptr;
    ObjectPtr o = sequence.front();
    sequence.pop_front();
    return o;
  }
  std::optional<uint32_t> DecodeUnsigned32() override {
    asked += "I;";
    return unsignedValue;
  }

  std::map<std::string, ObjectPtr> objects;
  std::map<std::string, int32_t> ints;
  std::deque<ObjectPtr> sequence;
  std::optional<uint32_t> unsignedValue;
  std::string asked;

 private:
  bool keyed_;
};

// A transcript named for `party` with `others` AIM participants besides the user.
inline std::unique_ptr<ICLPChatLog> ChatWith(std::u16string party, int others) {
  std::vector<std::shared_ptr<ICLPPresentity>> people;
  for (int i = 0; i < others; ++i)
    people.push_back(Participant(u"AIM", u"buddy" + std::u16string(1, char16_t(u'0' + i))));
  return ICLPChatLog::FromParts(std::move(party), {}, std::move(people));
}

}  // namespace gab::testing
