#pragma once
// The object model of decoded archives.  One archived object becomes one
// shared C++ object, so identity ("the same object") survives decoding, as
// the link and attachment walks over attributed strings depend on it.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/dates.h"

namespace gab {

class Object;
using ObjectPtr = std::shared_ptr<Object>;

class Object {
 public:
  virtual ~Object() = default;
  // The archived (or substituted) class name, e.g. "NSMutableString".
  virtual std::string ClassName() const = 0;
  // The platform's description, as NSArray's description would print it.
  virtual std::u16string Description() const;
  // The characters or bytes it holds: what a user of a shared object may copy.
  virtual size_t ContentSize() const { return 0; }
};

// Downcast helper: nullptr when the object is of another kind.
template <class T>
std::shared_ptr<T> As(const ObjectPtr& o) {
  return std::dynamic_pointer_cast<T>(o);
}

class String : public Object {
 public:
  explicit String(std::u16string v = {}, bool isMutable = false)
      : value(std::move(v)), mutable_(isMutable) {}
  std::string ClassName() const override { return mutable_ ? "NSMutableString" : "NSString"; }
  std::u16string Description() const override { return value; }
  size_t ContentSize() const override { return value.size(); }
  std::u16string value;
  bool mutable_ = false;
};

class Number : public Object {
 public:
  enum class Type { kBool, kInteger, kReal };
  static std::shared_ptr<Number> Integer(int64_t v);
  static std::shared_ptr<Number> Real(double v);
  static std::shared_ptr<Number> Bool(bool v);
  std::string ClassName() const override { return "NSNumber"; }
  std::u16string Description() const override;
  int64_t IntegerValue() const;  // reals truncated
  double DoubleValue() const;
  bool BoolValue() const { return IntegerValue() != 0 || DoubleValue() != 0; }
  Type type = Type::kInteger;
  int64_t i = 0;
  double d = 0;
};

class DateObject : public Object {
 public:
  explicit DateObject(Date d = {}) : date(d) {}
  std::string ClassName() const override { return "NSDate"; }
  std::u16string Description() const override;  // the default description
  Date date;
};

class Data : public Object {
 public:
  explicit Data(std::string b = {}, bool isMutable = false)
      : bytes(std::move(b)), mutable_(isMutable) {}
  std::string ClassName() const override { return mutable_ ? "NSMutableData" : "NSData"; }
  std::u16string Description() const override;  // <0a0b0c0d ...>
  size_t ContentSize() const override { return bytes.size(); }
  std::string bytes;
  bool mutable_ = false;
};

class Array : public Object {
 public:
  std::string ClassName() const override { return mutable_ ? "NSMutableArray" : "NSArray"; }
  std::u16string Description() const override;
  std::vector<ObjectPtr> items;  // a nil element is a null pointer
  bool mutable_ = false;
};

class Dictionary : public Object {
 public:
  std::string ClassName() const override {
    return mutable_ ? "NSMutableDictionary" : "NSDictionary";
  }
  std::u16string Description() const override;
  // The value for a string key (keys compared as strings); null when absent.
  ObjectPtr Get(std::u16string_view key) const;
  std::vector<std::pair<ObjectPtr, ObjectPtr>> entries;  // in archive order
  bool mutable_ = false;
};

class URL : public Object {
 public:
  std::string ClassName() const override { return "NSURL"; }
  std::u16string Description() const override { return AbsoluteString(); }
  // The relative string resolved against the base's absolute string (RFC 3986).
  std::u16string AbsoluteString() const;
  std::shared_ptr<URL> base;
  std::u16string relative;
};

class Font : public Object {
 public:
  std::string ClassName() const override { return "NSFont"; }
  std::u16string Description() const override;
  std::u16string name;  // PostScript name, e.g. "Helvetica-Bold"
  double pointSize = 0;
};

class Color : public Object {
 public:
  enum Space {
    kCalibratedRGB = 1,
    kDeviceRGB = 2,
    kCalibratedWhite = 3,
    kDeviceWhite = 4,
    kDeviceCMYK = 5,
    kNamed = 6,
    kPattern = 10,
  };
  std::string ClassName() const override { return "NSColor"; }
  std::u16string Description() const override;
  // colorUsingColorSpaceName:NSDeviceRGBColorSpace: grey and RGB spaces
  // convert; named colours convert through their equivalent; others do not.
  bool ToDeviceRGB(double& r, double& g, double& b) const;
  int space = kDeviceRGB;
  std::vector<double> components;         // as archived, alpha included when present
  std::u16string catalogName, colorName;  // named colours
  std::shared_ptr<Color> equivalent;      // named colours
};

class FileWrapper : public Object {
 public:
  std::string ClassName() const override { return "NSFileWrapper"; }
  std::u16string Description() const override;
  bool IsRegularFile() const { return regular; }
  bool regular = false;
  std::optional<std::u16string> preferredFilename;
  std::string contents;  // regularFileContents
  // Children of a directory wrapper, by entry name.
  std::vector<std::pair<std::u16string, std::shared_ptr<FileWrapper>>> children;
};

class TextAttachment : public Object {
 public:
  std::string ClassName() const override { return "NSTextAttachment"; }
  std::shared_ptr<FileWrapper> fileWrapper;  // may be null
};

// Attribute names as the archives spell them.
inline constexpr std::u16string_view kFontAttribute = u"NSFont";
inline constexpr std::u16string_view kColorAttribute = u"NSColor";
inline constexpr std::u16string_view kLinkAttribute = u"NSLink";
inline constexpr std::u16string_view kAttachmentAttribute = u"NSAttachment";

class AttributedString : public Object {
 public:
  struct Run {
    uint32_t length = 0;                     // UTF-16 units
    std::shared_ptr<Dictionary> attributes;  // shared; may be null (no attributes)
  };
  std::string ClassName() const override {
    return mutable_ ? "NSMutableAttributedString" : "NSAttributedString";
  }
  std::u16string Description() const override;
  size_t ContentSize() const override { return text.size(); }

  size_t Length() const { return text.size(); }
  // The attribute value at a character index, or null.
  ObjectPtr AttributeAt(size_t index, std::u16string_view key) const;
  // The run holding a character index and its start (effective range).
  const Run* RunAt(size_t index, size_t* runStart) const;

  // Appends text carrying one attribute dictionary (null: none); adjacent
  // runs with the same dictionary object merge.
  void Append(std::u16string_view more, std::shared_ptr<Dictionary> attributes);
  void Append(const AttributedString& other);

  std::u16string text;
  std::vector<Run> runs;  // lengths sum to text.size()
  bool mutable_ = false;
};

// An object of a class this program does not interpret, kept opaque.
class OpaqueObject : public Object {
 public:
  std::string ClassName() const override { return classChain.empty() ? "?" : classChain.front(); }
  std::vector<std::string> classChain;  // the class first, then its superclasses
};

}  // namespace gab
