#include "transcript/presentity.h"

#include <cstdlib>

#include "platform/contacts.h"
#include "platform/text.h"

namespace gab {

namespace {

// A string member as archived; anything that is not a string leaves it empty.
std::optional<std::u16string> StringValue(const ObjectPtr& object) {
  if (auto s = As<String>(object)) return s->value;
  return std::nullopt;
}

}  // namespace

ObjectPtr ICLPPresentity::InitWithCoder(Coder& coder) {
  auto p = std::make_shared<ICLPPresentity>();
  if (coder.AllowsKeyedCoding()) {
    p->protocol = StringValue(coder.DecodeObjectForKey("ServiceName"));
    p->name = StringValue(coder.DecodeObjectForKey("ID"));
  } else {
    // Sequential archives have no keys: the order is the format.
    p->protocol = StringValue(coder.DecodeObject());
    p->name = StringValue(coder.DecodeObject());
  }
  return p;
}

std::optional<std::u16string> ICLPPresentity::Name() const {
  if (!name) return std::nullopt;
  if (protocol == u"SubNet") {
    // The local network service archives the user's own entry as " myself ".
    if (*name == u" myself ") {
      const char* user = std::getenv("USER");
      if (!user) return std::nullopt;
      return ToUtf16(user);
    }
    return name->substr(0, name->find(u'@'));
  }
  if (protocol == u"AIM") {
    auto me = Contacts::Shared().Me();
    auto ownHandle = me ? me->PrimaryAIMHandle() : std::nullopt;
    if (ownHandle && *ownHandle == *name) {
      if (auto full = me->FullName()) return full;
      return name;
    }
    return ResolveAIMName(*name);
  }
  return name;
}

std::u16string ICLPPresentity::ResolveAIMName(const std::u16string& handle) {
  auto card = Contacts::Shared().FindByAIMHandle(handle);
  if (!card) return handle;
  return card->FullName().value_or(handle);
}

AttributedString ICLPPresentity::RichName() const {
  auto font = std::make_shared<Font>();
  font->name = u"Helvetica-Bold";
  font->pointSize = 12.0;
  auto attributes = std::make_shared<Dictionary>();
  attributes->entries.emplace_back(std::make_shared<String>(std::u16string(kFontAttribute)), font);
  AttributedString rich;
  rich.mutable_ = true;
  rich.Append(Name().value_or(u""), attributes);
  return rich;
}

std::u16string ICLPPresentity::Description() const {
  // A missing member prints as a format prints nil.
  return name.value_or(u"(null)") + u" on protocol " + protocol.value_or(u"(null)");
}

ObjectPtr ICLPPerson::InitWithCoder(Coder&) {
  return std::make_shared<ICLPPerson>();
}

}  // namespace gab
