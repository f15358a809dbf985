#pragma once
#include <optional>
#include <string>

#include "archive/coder.h"
#include "archive/object.h"

namespace gab {

// One chat participant as iChat archived it ("Presentity"): a service and an
// account name on that service.
class ICLPPresentity : public Object {
 public:
  std::string ClassName() const override { return "ICLPPresentity"; }
  // initWithCoder: keyed "ServiceName", "ID"; sequential: two objects.
  static ObjectPtr InitWithCoder(Coder& coder);

  // The display name: SubNet " myself " -> $USER, other SubNet names cut at
  // "@", AIM through the contacts, anything else unchanged.  Nothing when the
  // raw name is missing.
  std::optional<std::u16string> Name() const;
  const std::optional<std::u16string>& rawName() const { return name; }
  // Name in bold 12-point Helvetica ("Helvetica-Bold", 12).
  AttributedString RichName() const;
  const std::optional<std::u16string>& Protocol() const { return protocol; }
  // The contacts' "First Last" for an AIM handle, or the handle itself.
  static std::u16string ResolveAIMName(const std::u16string& handle);
  // "%@ on protocol %@" with name and protocol.
  std::u16string Description() const override;

  std::optional<std::u16string> protocol;
  std::optional<std::u16string> name;
};

// iChat's archived "Person": nothing is read.
class ICLPPerson : public Object {
 public:
  std::string ClassName() const override { return "ICLPPerson"; }
  static ObjectPtr InitWithCoder(Coder& coder);
};

}  // namespace gab
