#include "archive/keyed.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <vector>

#include "archive/bplist.h"
#include "archive/builtin_classes.h"
#include "archive/decode_guard.h"
#include "archive/serialized_wrapper.h"
#include "platform/plist.h"
#include "platform/text.h"

namespace gab {

namespace {

constexpr int kMaxDepth = 200;

// Damage found by the plist reader and by the archive walk alike fails the
// decode with its reason.
using DecodeError = BinaryPlistError;

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

using Type = BinaryPlist::Type;
using Node = BinaryPlist::Value;
using MaybeNode = std::optional<Node>;
using Fields = BinaryPlist::Dict;

// Colour components as Apple writes them: ASCII decimals separated by
// spaces, ended by a NUL.
std::vector<double> ParseComponents(std::string_view text) {
  std::vector<double> out;
  out.reserve(4);
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

// An XML archive, parsed by libplist and written out in binary form for the
// same reader.  (iChat writes binary archives; XML ones are rare.)
std::string XmlToBinary(std::string_view xml) {
  std::string why;
  if (!XmlPlistNestingWithin(xml, &why)) Fail(why);
  PlistPtr plist = ParsePlist(xml);
  if (!plist) Fail("not a property list with a dictionary at the top");
  char* bin = nullptr;
  uint32_t len = 0;
  plist_to_bin(plist.get(), &bin, &len);
  if (!bin) Fail("not a property list with a dictionary at the top");
  std::string out(bin, len);
  plist_to_bin_free(bin);
  return out;
}

// The decode's work allowance: this much per byte of the archive, plus a
// floor for small ones.
constexpr uint64_t kWorkPerByte = 16;
constexpr uint64_t kWorkFloor = 1 << 20;

class Resolver;

class KeyedCoder : public Coder {
 public:
  KeyedCoder(Resolver& r, const Fields& dict) : r_(r), dict_(dict) {}
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
  MaybeNode Value(std::string_view key) const;
  Resolver& r_;
  const Fields& dict_;
  int next_ = 0;
};

class Resolver {
 public:
  Resolver(const BinaryPlist& plist, const Node& objects, const ClassSubstitutions& classes,
           size_t archiveSize)
      : plist_(plist),
        objects_(objects),
        classes_(classes),
        budget_(kWorkPerByte * archiveSize + kWorkFloor) {
    if (objects.count > BinaryPlist::kMaxObjects) Fail("$objects holds too many entries");
    count_ = objects.count;
    memo_.resize(count_);
    state_.resize(count_, 0);
  }

  // The object a UID refers to; null for $null and for an object still
  // being decoded (a cycle).
  ObjectPtr Decode(uint64_t uid) {
    if (uid >= count_) Fail("reference " + std::to_string(uid) + " beyond $objects");
    if (state_[uid] == 2) {
      // Whoever shares it may copy its contents.
      if (memo_[uid]) Spend(1 + memo_[uid]->ContentSize());
      return memo_[uid];
    }
    Spend(1);
    if (state_[uid] == 1) return nullptr;
    if (++depth_ > kMaxDepth) Fail("objects nested too deeply");
    state_[uid] = 1;
    ObjectPtr o = DecodeNode(plist_.Item(objects_, uid), uid);
    memo_[uid] = o;
    state_[uid] = 2;
    --depth_;
    return o;
  }

  // The object a dictionary value refers to (a UID); null when absent.
  ObjectPtr DecodeRef(const MaybeNode& node, const char* what) {
    if (!node) return nullptr;
    auto uid = UidOf(*node);
    if (!uid) Fail(std::string(what) + " is not an object reference");
    return Decode(*uid);
  }

  MaybeNode Get(const Fields& dict, std::string_view key) {
    Spend(dict.size());
    std::optional<uint64_t> ref = dict.Find(key);
    if (!ref) return std::nullopt;
    return plist_.Object(*ref);
  }

  // Reads a dictionary's keys, paid for.
  void Keys(const Node& dict, Fields& out) {
    Spend(dict.count);
    plist_.Keys(dict, out);
  }

  // Work is metered against the archive's size: an archive whose objects
  // or plist nodes are shared many times over cannot make the decode copy
  // or scan far more than it holds.
  void Spend(uint64_t units) {
    if (units > budget_) Fail("shared references expand too much");
    budget_ -= units;
  }

  // The contents of a string or data node, paid for.
  std::string_view Bytes(const Node& n) {
    Spend(n.count);
    return n.Data();
  }
  std::u16string Text(const Node& n) {
    Spend(n.count);
    return n.Utf16();
  }

  // A UID, or an XML-style {CF$UID = n} dictionary.
  std::optional<uint64_t> UidOf(const Node& node) {
    if (node.Is(Type::kUid)) return node.uid;
    if (node.Is(Type::kDict) && node.count == 1) {
      Fields d;
      Keys(node, d);
      MaybeNode n = Get(d, "CF$UID");
      if (n && n->Is(Type::kInteger)) return static_cast<uint64_t>(n->integer);
    }
    return std::nullopt;
  }

  // A number (integer, real or boolean) as a double.
  static std::optional<double> NumberOf(const MaybeNode& node) {
    if (!node) return std::nullopt;
    switch (node->type) {
      case Type::kInteger:
        return static_cast<double>(node->integer);
      case Type::kReal:
        return node->real;
      case Type::kBool:
        return node->boolean ? 1.0 : 0.0;
      default:
        return std::nullopt;
    }
  }

 private:
  ObjectPtr DecodeNode(const Node& node, uint64_t uid) {
    switch (node.type) {
      case Type::kString:
        if (uid == 0 && node.Equals("$null")) return nullptr;
        return std::make_shared<String>(Text(node));
      case Type::kInteger:
      case Type::kBool:
      case Type::kReal:
        return ScalarNumber(node);
      case Type::kData:
        return std::make_shared<Data>(std::string(Bytes(node)));
      case Type::kDate:
        return std::make_shared<DateObject>(Date{node.real});
      case Type::kDict: {
        Fields d;
        Keys(node, d);
        return DecodeObjectDict(d);
      }
      default:
        Fail("object " + std::to_string(uid) + " has an unexpected type");
    }
  }

  static ObjectPtr ScalarNumber(const Node& node) {
    switch (node.type) {
      case Type::kInteger:
        return Number::Integer(node.integer);
      case Type::kBool:
        return Number::Bool(node.boolean);
      default:
        return Number::Real(node.real);
    }
  }

  const ClassInfo& ClassOf(const Fields& dict) {
    MaybeNode ref = Get(dict, "$class");
    if (!ref) Fail("object without $class");
    auto uid = UidOf(*ref);
    if (!uid) Fail("$class is not a reference");
    if (*uid >= count_) Fail("$class reference beyond $objects");
    if (auto it = classInfo_.find(*uid); it != classInfo_.end()) return it->second;
    Node clsNode = plist_.Item(objects_, *uid);
    if (!clsNode.Is(Type::kDict)) Fail("$class does not refer to a class record");
    Fields cls;
    Keys(clsNode, cls);
    MaybeNode name = Get(cls, "$classname");
    if (!name || !name->Is(Type::kString)) Fail("class record without a string $classname");
    ClassInfo info;
    Spend(name->count);
    info.chain.push_back(name->Utf8());
    if (MaybeNode classes = Get(cls, "$classes")) {
      if (!classes->Is(Type::kArray)) Fail("$classes is not an array");
      Spend(classes->count);
      for (uint64_t k = 0; k < classes->count; ++k) {
        Node c = plist_.Item(*classes, k);
        if (!c.Is(Type::kString)) Fail("$classes holds a non-string");
        Spend(c.count);
        std::string s = c.Utf8();
        if (k == 0 && s == info.chain.front()) continue;
        info.chain.push_back(std::move(s));
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

  ObjectPtr DecodeObjectDict(const Fields& d) {
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
        MaybeNode v = Get(d, "NS.number");
        if (!NumberOf(v)) Fail("NSNumber without a value");
        return ScalarNumber(*v);
      }
      case Handler::kArray:
        return DecodeArray(d, isMutable);
      case Handler::kDictionary:
        return DecodeDictionary(d, isMutable);
      case Handler::kDate: {
        auto t = NumberOf(Get(d, "NS.time"));
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
        if (auto name = As<String>(DecodeRef(Get(d, "NSName"), "NSName"))) f->name = name->value;
        f->pointSize = NumberOf(Get(d, "NSSize")).value_or(0);
        return f;
      }
      case Handler::kColor:
        return DecodeColor(d);
      case Handler::kTextAttachment: {
        auto t = std::make_shared<TextAttachment>();
        t->fileWrapper = As<FileWrapper>(DecodeRef(Get(d, "NSFileWrapper"), "NSFileWrapper"));
        return t;
      }
      case Handler::kFileWrapper:
        return DecodeFileWrapper(d);
    }
    Fail("no reader for this class");
  }

  ObjectPtr DecodeString(const Fields& d, bool isMutable) {
    MaybeNode s = Get(d, "NS.string");
    if (s && s->Is(Type::kString)) return std::make_shared<String>(Text(*s), isMutable);
    if (s && UidOf(*s)) {
      auto inner = As<String>(DecodeRef(s, "NS.string"));
      if (!inner) Fail("NS.string does not refer to a string");
      return std::make_shared<String>(inner->value, isMutable);
    }
    MaybeNode b = Get(d, "NS.bytes");
    if (b && b->Is(Type::kData)) return std::make_shared<String>(ToUtf16(Bytes(*b)), isMutable);
    if (s || b) Fail("string contents of the wrong type");
    return std::make_shared<String>(std::u16string(), isMutable);
  }

  // NS.data or NS.bytes: inline data, or a reference to a data object.
  std::string_view DataField(const Fields& d) {
    MaybeNode v = Get(d, "NS.data");
    if (!v) v = Get(d, "NS.bytes");
    if (!v) return {};
    if (v->Is(Type::kData)) return Bytes(*v);
    auto data = As<Data>(DecodeRef(v, "NS.data"));
    if (!data) Fail("NS.data is not data");
    keep_.push_back(data);
    return data->bytes;
  }

  // The objects of an array of UIDs under `key`, or of nib-style keys
  // `prefix`0, `prefix`1, ..., in order: reserve(n) when the count is known
  // up front, then each(object) for every one.
  template <class Reserve, class Each>
  void EachRef(const Fields& d, const char* key, std::string_view prefix, Reserve&& reserve,
               Each&& each) {
    if (MaybeNode a = Get(d, key)) {
      if (!a->Is(Type::kArray)) Fail(std::string(key) + " is not an array");
      Spend(a->count);
      reserve(a->count);
      for (uint64_t k = 0; k < a->count; ++k) each(DecodeRef(plist_.Item(*a, k), key));
      return;
    }
    // One pass over the keys finds every numbered one.
    Spend(d.size());
    std::vector<std::optional<uint64_t>> numbered;
    for (size_t k = 0; k < d.size(); ++k) {
      std::string_view s = d.Name(k);
      if (!s.starts_with(prefix)) continue;
      s.remove_prefix(prefix.size());
      uint64_t n = 0;
      auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), n);
      if (ec != std::errc() || end != s.data() + s.size() || s.empty() ||
          (s.size() > 1 && s[0] == '0') || n >= d.size()) {
        continue;
      }
      if (numbered.size() <= n) numbered.resize(n + 1);
      if (!numbered[n]) numbered[n] = d.ValueRef(k);
    }
    for (const auto& entry : numbered) {
      if (!entry) break;
      each(DecodeRef(plist_.Object(*entry), prefix.data()));
    }
  }

  ObjectPtr DecodeArray(const Fields& d, bool isMutable) {
    auto a = std::make_shared<Array>();
    a->mutable_ = isMutable;
    EachRef(
        d, "NS.objects", "NS.object.", [&](uint64_t n) { a->items.reserve(n); },
        [&](ObjectPtr o) { a->items.push_back(std::move(o)); });
    return a;
  }

  ObjectPtr DecodeDictionary(const Fields& d, bool isMutable) {
    auto out = std::make_shared<Dictionary>();
    out->mutable_ = isMutable;
    auto& entries = out->entries;
    // All keys first, then all values, as the archiver wrote them.
    EachRef(
        d, "NS.keys", "NS.key.", [&](uint64_t n) { entries.reserve(n); },
        [&](ObjectPtr key) { entries.emplace_back(std::move(key), nullptr); });
    size_t values = 0;
    EachRef(
        d, "NS.objects", "NS.object.", [](uint64_t) {},
        [&](ObjectPtr value) {
          if (values < entries.size()) entries[values].second = std::move(value);
          ++values;
        });
    if (values != entries.size()) Fail("dictionary keys and values differ in number");
    return out;
  }

  ObjectPtr DecodeURL(const Fields& d) {
    auto u = std::make_shared<URL>();
    ObjectPtr base = DecodeRef(Get(d, "NS.base"), "NS.base");
    if (base && !As<URL>(base)) Fail("URL base is not a URL");
    u->base = As<URL>(base);
    auto rel = As<String>(DecodeRef(Get(d, "NS.relative"), "NS.relative"));
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

  ObjectPtr DecodeAttributedString(const Fields& d, bool isMutable) {
    auto a = std::make_shared<AttributedString>();
    a->mutable_ = isMutable;
    ObjectPtr textObj = DecodeRef(Get(d, "NSString"), "NSString");
    auto text = As<String>(textObj);
    if (textObj && !text) Fail("attributed string text is not a string");
    const std::u16string empty;
    const std::u16string& t = text ? text->value : empty;
    ObjectPtr attrs = DecodeRef(Get(d, "NSAttributes"), "NSAttributes");
    MaybeNode infoNode = Get(d, "NSAttributeInfo");
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
    if (infoNode->Is(Type::kData)) {
      info = Bytes(*infoNode);
    } else {
      infoData = As<Data>(DecodeRef(infoNode, "NSAttributeInfo"));
      if (!infoData) Fail("NSAttributeInfo is not data");
      info = infoData->bytes;
    }
    a->text.reserve(t.size());
    a->runs.reserve(std::min(info.size() / 2, t.size()));
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

  ObjectPtr DecodeColor(const Fields& d) {
    auto c = std::make_shared<Color>();
    // Any number may stand here; out-of-range ones become no known space.
    double space = NumberOf(Get(d, "NSColorSpace")).value_or(0);
    c->space = space >= 0 && space <= 1000 ? static_cast<int>(space) : 0;
    auto components = [&](const char* key) {
      MaybeNode v = Get(d, key);
      bool data = v && v->Is(Type::kData);
      if (data) c->components = ParseComponents(Bytes(*v));
      return data;
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
        if (auto s = As<String>(DecodeRef(Get(d, "NSCatalogName"), "NSCatalogName")))
          c->catalogName = s->value;
        if (auto s = As<String>(DecodeRef(Get(d, "NSColorName"), "NSColorName")))
          c->colorName = s->value;
        c->equivalent = As<Color>(DecodeRef(Get(d, "NSColor"), "NSColor"));
        break;
      }
      default:
        break;
    }
    return c;
  }

  ObjectPtr DecodeFileWrapper(const Fields& d) {
    MaybeNode v = Get(d, "NSFileWrapperData");
    std::string_view bytes;
    std::shared_ptr<Data> data;
    if (v && v->Is(Type::kData)) {
      bytes = Bytes(*v);
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
  const BinaryPlist& plist_;
  Node objects_;
  const ClassSubstitutions& classes_;
  uint64_t count_ = 0;
  uint64_t budget_;
  int depth_ = 0;
  std::vector<ObjectPtr> memo_;
  std::vector<uint8_t> state_;  // 0 new, 1 in progress, 2 done
  std::map<uint64_t, ClassInfo> classInfo_;
  std::vector<ObjectPtr> keep_;  // data objects whose bytes are viewed
};

MaybeNode KeyedCoder::Value(std::string_view key) const {
  // Keys beginning with '$' are stored with one more '$'.
  if (key.starts_with("$") &&
      !(key.size() > 1 && std::isdigit(static_cast<unsigned char>(key[1])))) {
    return r_.Get(dict_, "$" + std::string(key));
  }
  return r_.Get(dict_, key);
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
  std::optional<double> v;
  try {
    v = Resolver::NumberOf(Value(key));
  } catch (const DecodeError& e) {
    if (!error) error = e.what();
  }
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
    std::string converted;
    if (!bytes.starts_with("bplist")) {
      converted = XmlToBinary(bytes);
      bytes = converted;
    }
    BinaryPlist plist(bytes);
    Node root = plist.Object(plist.top());
    if (!root.Is(Type::kDict)) Fail("not a property list with a dictionary at the top");
    MaybeNode top = plist.Find(root, "$top");
    if (!top || !top->Is(Type::kDict)) Fail("$top is missing or not a dictionary");
    MaybeNode objects = plist.Find(root, "$objects");
    if (!objects || !objects->Is(Type::kArray)) Fail("$objects is missing or not an array");
    MaybeNode rootRef = plist.Find(*top, topKey);
    if (!rootRef) Fail("$top has no \"" + std::string(topKey) + "\"");
    Resolver r(plist, *objects, classes, bytes.size());
    auto uid = r.UidOf(*rootRef);
    if (!uid) Fail("$top's \"" + std::string(topKey) + "\" is not a reference");
    result.root = r.Decode(*uid);
  });
  if (!result.ok()) result.root = nullptr;
  return result;
}

}  // namespace gab
