#include "archive/keyed.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <new>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "archive/bplist_check.h"
#include "archive/builtin_classes.h"
#include "archive/decode_guard.h"
#include "archive/serialized_wrapper.h"
#include "platform/plist.h"
#include "platform/text.h"

namespace gab {

namespace {

constexpr int kMaxDepth = 200;

struct DecodeError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void Fail(const std::string& what) {
  throw DecodeError(what);
}

using archive_detail::Handler;

// How one class record is read.
struct ClassInfo {
  bool resolved = false;
  Handler handler = Handler::kOpaque;
  std::string interpreted;  // the built-in class name that reads it
  std::vector<std::string> chain;
  const ClassFactory* factory = nullptr;
};

std::string_view StringOf(plist_t node) {
  uint64_t len = 0;
  const char* s = plist_get_string_ptr(node, &len);
  return s ? std::string_view(s, len) : std::string_view();
}

bool IsType(plist_t node, plist_type t) {
  return node && plist_get_node_type(node) == t;
}

// A number node (integer, real or boolean) as a double.
std::optional<double> NumberOf(plist_t node) {
  if (!node) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return static_cast<double>(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
      double v = 0;
      plist_get_real_val(node, &v);
      return v;
    }
    case PLIST_BOOLEAN: {
      uint8_t v = 0;
      plist_get_bool_val(node, &v);
      return v ? 1.0 : 0.0;
    }
    default:
      return std::nullopt;
  }
}

std::string_view DataOf(plist_t node) {
  uint64_t len = 0;
  const char* d = plist_get_data_ptr(node, &len);
  return d ? std::string_view(d, len) : std::string_view();
}

// A UID node, or an XML-style {CF$UID = n} dictionary.
std::optional<uint64_t> UidOf(plist_t node) {
  if (IsType(node, PLIST_UID)) {
    uint64_t v = 0;
    plist_get_uid_val(node, &v);
    return v;
  }
  if (IsType(node, PLIST_DICT) && plist_dict_get_size(node) == 1) {
    plist_t n = plist_dict_get_item(node, "CF$UID");
    if (IsType(n, PLIST_UINT)) {
      uint64_t v = 0;
      plist_get_uint_val(n, &v);
      return v;
    }
  }
  return std::nullopt;
}

// Colour components as Apple writes them: ASCII decimals separated by
// spaces, ended by a NUL.
std::vector<double> ParseComponents(std::string_view text) {
  std::vector<double> out;
  size_t nul = text.find('\0');
  if (nul != std::string_view::npos) text = text.substr(0, nul);
  const char* p = text.data();
  const char* end = p + text.size();
  while (p < end && out.size() < 16) {
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\n')) ++p;
    if (p == end) break;
    double v = 0;
    auto r = std::from_chars(p, end, v);
    if (r.ec != std::errc()) break;
    out.push_back(v);
    p = r.ptr;
  }
  return out;
}

// libplist indexes the arrays it builds but not the arrays it parses:
// reading item k of a parsed array walks k nodes, so reading them all is
// quadratic.  Appending one item makes libplist index the array (once,
// linearly); the items are then read by index and kept here.
class ArrayItems {
 public:
  const std::vector<plist_t>& Of(plist_t array) {
    auto [it, fresh] = cache_.try_emplace(array);
    if (fresh) {
      uint32_t n = plist_array_get_size(array);
      if (n > 16) plist_array_append_item(array, plist_new_bool(0));
      it->second.reserve(n);
      for (uint32_t k = 0; k < n; ++k) it->second.push_back(plist_array_get_item(array, k));
    }
    return it->second;
  }

 private:
  std::unordered_map<plist_t, std::vector<plist_t>> cache_;
};

class Resolver;

class KeyedCoder : public Coder {
 public:
  KeyedCoder(Resolver& r, plist_t dict) : r_(r), dict_(dict) {}
  bool AllowsKeyedCoding() const override { return true; }
  ObjectPtr DecodeObjectForKey(std::string_view key) override;
  int32_t DecodeInt32ForKey(std::string_view key) override;
  // Values encoded without a key sit under "$0", "$1", ...
  ObjectPtr DecodeObject() override { return DecodeObjectForKey("$" + std::to_string(next_++)); }
  std::optional<uint32_t> DecodeUnsigned32() override {
    return static_cast<uint32_t>(DecodeInt32ForKey("$" + std::to_string(next_++)));
  }
  std::optional<std::string> error;

 private:
  plist_t Value(std::string_view key) const;
  Resolver& r_;
  plist_t dict_;
  int next_ = 0;
};

class Resolver {
 public:
  Resolver(plist_t objects, const ClassSubstitutions& classes) : classes_(classes) {
    objects_ = &items_.Of(objects);
    count_ = static_cast<uint32_t>(objects_->size());
    memo_.resize(count_);
    state_.resize(count_, 0);
  }

  // The object a UID refers to; null for $null and for an object still
  // being decoded (a cycle).
  ObjectPtr Decode(uint64_t uid) {
    if (uid >= count_) Fail("reference " + std::to_string(uid) + " beyond $objects");
    if (state_[uid] == 2) return memo_[uid];
    if (state_[uid] == 1) return nullptr;
    if (++depth_ > kMaxDepth) Fail("objects nested too deeply");
    state_[uid] = 1;
    ObjectPtr o = DecodeNode((*objects_)[uid], uid);
    memo_[uid] = o;
    state_[uid] = 2;
    --depth_;
    return o;
  }

  // The object a dictionary value refers to (a UID); null when absent.
  ObjectPtr DecodeRef(plist_t node, const char* what) {
    if (!node) return nullptr;
    auto uid = UidOf(node);
    if (!uid) Fail(std::string(what) + " is not an object reference");
    return Decode(*uid);
  }

 private:
  ObjectPtr DecodeNode(plist_t node, uint64_t uid) {
    switch (plist_get_node_type(node)) {
      case PLIST_STRING: {
        std::string_view s = StringOf(node);
        if (uid == 0 && s == "$null") return nullptr;
        return std::make_shared<String>(ToUtf16(s));
      }
      case PLIST_UINT:
      case PLIST_BOOLEAN:
      case PLIST_REAL:
        return ScalarNumber(node);
      case PLIST_DATA:
        return std::make_shared<Data>(std::string(DataOf(node)));
      case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return std::make_shared<DateObject>(Date{sec + usec / 1e6});
      }
      case PLIST_DICT:
        return DecodeObjectDict(node);
      default:
        Fail("object " + std::to_string(uid) + " has an unexpected type");
    }
  }

  static ObjectPtr ScalarNumber(plist_t node) {
    switch (plist_get_node_type(node)) {
      case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return Number::Integer(static_cast<int64_t>(v));
      }
      case PLIST_BOOLEAN: {
        uint8_t v = 0;
        plist_get_bool_val(node, &v);
        return Number::Bool(v != 0);
      }
      default: {
        double v = 0;
        plist_get_real_val(node, &v);
        return Number::Real(v);
      }
    }
  }

  const ClassInfo& ClassOf(plist_t dict) {
    plist_t ref = plist_dict_get_item(dict, "$class");
    if (!ref) Fail("object without $class");
    auto uid = UidOf(ref);
    if (!uid) Fail("$class is not a reference");
    if (*uid >= count_) Fail("$class reference beyond $objects");
    if (auto it = classInfo_.find(*uid); it != classInfo_.end()) return it->second;
    plist_t cls = (*objects_)[*uid];
    if (!IsType(cls, PLIST_DICT)) Fail("$class does not refer to a class record");
    plist_t name = plist_dict_get_item(cls, "$classname");
    if (!IsType(name, PLIST_STRING)) Fail("class record without a string $classname");
    ClassInfo info;
    info.chain.emplace_back(StringOf(name));
    if (plist_t classes = plist_dict_get_item(cls, "$classes")) {
      if (!IsType(classes, PLIST_ARRAY)) Fail("$classes is not an array");
      const std::vector<plist_t>& list = items_.Of(classes);
      for (size_t k = 0; k < list.size(); ++k) {
        plist_t c = list[k];
        if (!IsType(c, PLIST_STRING)) Fail("$classes holds a non-string");
        std::string_view s = StringOf(c);
        if (k == 0 && s == info.chain.front()) continue;
        info.chain.emplace_back(s);
      }
    }
    // The first name that is substituted or built in decides.
    for (const std::string& n : info.chain) {
      if (auto it = classes_.find(n); it != classes_.end()) {
        info.handler = Handler::kFactory;
        info.factory = &it->second;
        break;
      }
      if (auto h = archive_detail::BuiltInHandler(n, false)) {
        info.handler = *h;
        info.interpreted = n;
        break;
      }
    }
    return classInfo_.emplace(*uid, std::move(info)).first->second;
  }

  ObjectPtr DecodeObjectDict(plist_t d) {
    const ClassInfo& info = ClassOf(d);
    bool isMutable = info.interpreted.starts_with("NSMutable");
    switch (info.handler) {
      case Handler::kFactory: {
        KeyedCoder coder(*this, d);
        ObjectPtr o = (*info.factory)(coder);
        if (coder.error) throw DecodeError(*coder.error);
        if (!o) Fail("class " + info.chain.front() + " could not be decoded");
        return o;
      }
      case Handler::kUnresolved:  // class records are always resolved here
      case Handler::kOpaque: {
        auto o = std::make_shared<OpaqueObject>();
        o->classChain = info.chain;
        return o;
      }
      case Handler::kString:
        return DecodeString(d, isMutable);
      case Handler::kNumber: {
        plist_t v = plist_dict_get_item(d, "NS.number");
        if (!v || !NumberOf(v)) Fail("NSNumber without a value");
        return ScalarNumber(v);
      }
      case Handler::kArray:
        return DecodeArray(d, isMutable);
      case Handler::kDictionary:
        return DecodeDictionary(d, isMutable);
      case Handler::kDate: {
        auto t = NumberOf(plist_dict_get_item(d, "NS.time"));
        return std::make_shared<DateObject>(Date{t.value_or(0)});
      }
      case Handler::kData:
        return std::make_shared<Data>(std::string(DataField(d)), isMutable);
      case Handler::kURL:
        return DecodeURL(d);
      case Handler::kAttributedString:
        return DecodeAttributedString(d, isMutable);
      case Handler::kFont: {
        auto f = std::make_shared<Font>();
        if (auto name = As<String>(DecodeRef(plist_dict_get_item(d, "NSName"), "NSName")))
          f->name = name->value;
        f->pointSize = NumberOf(plist_dict_get_item(d, "NSSize")).value_or(0);
        return f;
      }
      case Handler::kColor:
        return DecodeColor(d);
      case Handler::kTextAttachment: {
        auto t = std::make_shared<TextAttachment>();
        t->fileWrapper =
            As<FileWrapper>(DecodeRef(plist_dict_get_item(d, "NSFileWrapper"), "NSFileWrapper"));
        return t;
      }
      case Handler::kFileWrapper:
        return DecodeFileWrapper(d);
    }
    Fail("no reader for this class");
  }

  ObjectPtr DecodeString(plist_t d, bool isMutable) {
    plist_t s = plist_dict_get_item(d, "NS.string");
    if (IsType(s, PLIST_STRING)) return std::make_shared<String>(ToUtf16(StringOf(s)), isMutable);
    if (s && UidOf(s)) {
      auto inner = As<String>(DecodeRef(s, "NS.string"));
      if (!inner) Fail("NS.string does not refer to a string");
      return std::make_shared<String>(inner->value, isMutable);
    }
    plist_t b = plist_dict_get_item(d, "NS.bytes");
    if (IsType(b, PLIST_DATA)) return std::make_shared<String>(ToUtf16(DataOf(b)), isMutable);
    if (s || b) Fail("string contents of the wrong type");
    return std::make_shared<String>(std::u16string(), isMutable);
  }

  // NS.data or NS.bytes: inline data, or a reference to a data object.
  std::string_view DataField(plist_t d) {
    plist_t v = plist_dict_get_item(d, "NS.data");
    if (!v) v = plist_dict_get_item(d, "NS.bytes");
    if (!v) return {};
    if (IsType(v, PLIST_DATA)) return DataOf(v);
    auto data = As<Data>(DecodeRef(v, "NS.data"));
    if (!data) Fail("NS.data is not data");
    keep_.push_back(data);
    return data->bytes;
  }

  // An array of UIDs under `key`, or nib-style `prefix`0, `prefix`1, ...
  std::vector<ObjectPtr> RefArray(plist_t d, const char* key, const char* prefix) {
    std::vector<ObjectPtr> out;
    plist_t a = plist_dict_get_item(d, key);
    if (a) {
      if (!IsType(a, PLIST_ARRAY)) Fail(std::string(key) + " is not an array");
      const std::vector<plist_t>& list = items_.Of(a);
      out.reserve(list.size());
      for (plist_t item : list) out.push_back(DecodeRef(item, key));
      return out;
    }
    for (uint32_t k = 0;; ++k) {
      plist_t v = plist_dict_get_item(d, (prefix + std::to_string(k)).c_str());
      if (!v) break;
      out.push_back(DecodeRef(v, prefix));
    }
    return out;
  }

  ObjectPtr DecodeArray(plist_t d, bool isMutable) {
    auto a = std::make_shared<Array>();
    a->mutable_ = isMutable;
    a->items = RefArray(d, "NS.objects", "NS.object.");
    return a;
  }

  ObjectPtr DecodeDictionary(plist_t d, bool isMutable) {
    auto out = std::make_shared<Dictionary>();
    out->mutable_ = isMutable;
    std::vector<ObjectPtr> keys = RefArray(d, "NS.keys", "NS.key.");
    std::vector<ObjectPtr> values = RefArray(d, "NS.objects", "NS.object.");
    if (keys.size() != values.size()) Fail("dictionary keys and values differ in number");
    out->entries.reserve(keys.size());
    for (size_t k = 0; k < keys.size(); ++k)
      out->entries.emplace_back(std::move(keys[k]), std::move(values[k]));
    return out;
  }

  ObjectPtr DecodeURL(plist_t d) {
    auto u = std::make_shared<URL>();
    ObjectPtr base = DecodeRef(plist_dict_get_item(d, "NS.base"), "NS.base");
    if (base && !As<URL>(base)) Fail("URL base is not a URL");
    u->base = As<URL>(base);
    auto rel = As<String>(DecodeRef(plist_dict_get_item(d, "NS.relative"), "NS.relative"));
    if (!rel) Fail("URL without a string");
    u->relative = rel->value;
    return u;
  }

  // One unsigned LEB128 number of NSAttributeInfo.
  static bool ReadVarint(std::string_view b, size_t& at, uint64_t& v) {
    v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (at >= b.size()) return false;
      auto byte = static_cast<uint8_t>(b[at++]);
      v |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if (!(byte & 0x80)) return true;
    }
    return false;
  }

  ObjectPtr DecodeAttributedString(plist_t d, bool isMutable) {
    auto a = std::make_shared<AttributedString>();
    a->mutable_ = isMutable;
    ObjectPtr textObj = DecodeRef(plist_dict_get_item(d, "NSString"), "NSString");
    auto text = As<String>(textObj);
    if (textObj && !text) Fail("attributed string text is not a string");
    const std::u16string empty;
    const std::u16string& t = text ? text->value : empty;
    ObjectPtr attrs = DecodeRef(plist_dict_get_item(d, "NSAttributes"), "NSAttributes");
    plist_t infoNode = plist_dict_get_item(d, "NSAttributeInfo");
    if (!infoNode) {
      // One run over the whole text (or none for empty text).
      auto dict = As<Dictionary>(attrs);
      if (attrs && !dict) Fail("NSAttributes is not a dictionary");
      a->Append(t, dict);
      return a;
    }
    auto list = As<Array>(attrs);
    if (!list) Fail("NSAttributes is not an array of dictionaries");
    std::string_view info;
    std::shared_ptr<Data> infoData;
    if (IsType(infoNode, PLIST_DATA)) {
      info = DataOf(infoNode);
    } else {
      infoData = As<Data>(DecodeRef(infoNode, "NSAttributeInfo"));
      if (!infoData) Fail("NSAttributeInfo is not data");
      info = infoData->bytes;
    }
    size_t at = 0, pos = 0;
    while (at < info.size()) {
      uint64_t length, index;
      if (!ReadVarint(info, at, length) || !ReadVarint(info, at, index))
        Fail("NSAttributeInfo is truncated");
      if (index >= list->items.size()) Fail("run refers to a missing attribute dictionary");
      if (length > t.size() - pos) Fail("runs exceed the text");
      auto dict = As<Dictionary>(list->items[index]);
      if (list->items[index] && !dict) Fail("run attributes are not a dictionary");
      a->Append(std::u16string_view(t).substr(pos, length), dict);
      pos += length;
    }
    if (pos != t.size()) Fail("runs do not cover the text");
    return a;
  }

  ObjectPtr DecodeColor(plist_t d) {
    auto c = std::make_shared<Color>();
    // Any number may stand here; out-of-range ones become no known space.
    double space = NumberOf(plist_dict_get_item(d, "NSColorSpace")).value_or(0);
    c->space = space >= 0 && space <= 1000 ? static_cast<int>(space) : 0;
    auto components = [&](const char* key) {
      plist_t v = plist_dict_get_item(d, key);
      if (IsType(v, PLIST_DATA)) c->components = ParseComponents(DataOf(v));
      return IsType(v, PLIST_DATA);
    };
    switch (c->space) {
      case Color::kCalibratedRGB:
      case Color::kDeviceRGB:
        if (!components("NSRGB")) components("NSComponents");
        break;
      case Color::kCalibratedWhite:
      case Color::kDeviceWhite:
        if (!components("NSWhite")) components("NSComponents");
        break;
      case Color::kDeviceCMYK:
        if (!components("NSCYMK")) components("NSComponents");
        break;
      case Color::kNamed: {
        if (auto s =
                As<String>(DecodeRef(plist_dict_get_item(d, "NSCatalogName"), "NSCatalogName"))) {
          c->catalogName = s->value;
        }
        if (auto s = As<String>(DecodeRef(plist_dict_get_item(d, "NSColorName"), "NSColorName"))) {
          c->colorName = s->value;
        }
        c->equivalent = As<Color>(DecodeRef(plist_dict_get_item(d, "NSColor"), "NSColor"));
        break;
      }
      default:
        break;
    }
    return c;
  }

  ObjectPtr DecodeFileWrapper(plist_t d) {
    plist_t v = plist_dict_get_item(d, "NSFileWrapperData");
    std::string_view bytes;
    std::shared_ptr<Data> data;
    if (IsType(v, PLIST_DATA)) {
      bytes = DataOf(v);
    } else if (v) {
      data = As<Data>(DecodeRef(v, "NSFileWrapperData"));
      if (data) bytes = data->bytes;
    }
    auto w = ParseSerializedFileWrapper(bytes);
    // An unreadable serialization leaves an empty wrapper rather than
    // losing the whole transcript.
    return w ? w : std::make_shared<FileWrapper>();
  }

  friend class KeyedCoder;
  ArrayItems items_;
  const std::vector<plist_t>* objects_;
  const ClassSubstitutions& classes_;
  uint32_t count_ = 0;
  int depth_ = 0;
  std::vector<ObjectPtr> memo_;
  std::vector<uint8_t> state_;  // 0 new, 1 in progress, 2 done
  std::map<uint64_t, ClassInfo> classInfo_;
  std::vector<ObjectPtr> keep_;  // data objects whose bytes are viewed
};

plist_t KeyedCoder::Value(std::string_view key) const {
  // Keys beginning with '$' are stored with one more '$'.
  std::string k =
      key.starts_with("$") && !(key.size() > 1 && std::isdigit(static_cast<unsigned char>(key[1])))
          ? "$" + std::string(key)
          : std::string(key);
  return plist_dict_get_item(dict_, k.c_str());
}

ObjectPtr KeyedCoder::DecodeObjectForKey(std::string_view key) {
  if (error) return nullptr;
  try {
    return r_.DecodeRef(Value(key), "a keyed value");
  } catch (const DecodeError& e) {
    error = e.what();
    return nullptr;
  }
}

int32_t KeyedCoder::DecodeInt32ForKey(std::string_view key) {
  auto v = NumberOf(Value(key));
  if (!v || std::isnan(*v)) return 0;
  // Out-of-range values saturate rather than wrap.
  if (*v >= static_cast<double>(std::numeric_limits<int32_t>::max())) {
    // Unsigned flags written as integers up to 2^32-1 keep their bits.
    if (*v <= 4294967295.0) return static_cast<int32_t>(static_cast<uint32_t>(*v));
    return std::numeric_limits<int32_t>::max();
  }
  if (*v <= static_cast<double>(std::numeric_limits<int32_t>::min()))
    return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(*v);
}

}  // namespace

DecodeResult DecodeKeyedArchive(std::string_view bytes, const ClassSubstitutions& classes,
                                std::string_view topKey) {
  DecodeResult result;
  result.error = archive_detail::Guarded<DecodeError>("keyed archive", [&] {
    if (bytes.size() > std::numeric_limits<uint32_t>::max()) Fail("file too large");
    if (bytes.starts_with("bplist")) {
      if (std::string err = CheckBinaryPlist(bytes); !err.empty()) Fail(err);
    }
    PlistPtr plist = ParsePlist(bytes);
    plist_t root = plist.get();
    if (!IsType(root, PLIST_DICT)) Fail("not a property list with a dictionary at the top");
    plist_t top = plist_dict_get_item(root, "$top");
    if (!IsType(top, PLIST_DICT)) Fail("$top is missing or not a dictionary");
    plist_t objects = plist_dict_get_item(root, "$objects");
    if (!IsType(objects, PLIST_ARRAY)) Fail("$objects is missing or not an array");
    plist_t rootRef = plist_dict_get_item(top, std::string(topKey).c_str());
    if (!rootRef) Fail("$top has no \"" + std::string(topKey) + "\"");
    auto uid = UidOf(rootRef);
    if (!uid) Fail("$top's \"" + std::string(topKey) + "\" is not a reference");
    Resolver r(objects, classes);
    result.root = r.Decode(*uid);
  });
  if (!result.ok()) result.root = nullptr;
  return result;
}

}  // namespace gab
