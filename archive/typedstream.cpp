#include "archive/typedstream.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "archive/builtin_classes.h"
#include "archive/decode_guard.h"
#include "archive/serialized_wrapper.h"
#include "platform/text.h"

namespace gab {

namespace {

// Archived text is mostly ASCII: widened directly; anything else goes
// through the UTF-8 decoder.
std::u16string TextOf(std::string_view utf8) {
  std::u16string out(utf8.size(), u'\0');
  for (size_t k = 0; k < utf8.size(); ++k) {
    auto c = static_cast<unsigned char>(utf8[k]);
    if (c >= 0x80) return ToUtf16(utf8);
    out[k] = c;
  }
  return out;
}

// Head bytes (read as signed chars they are -128..-111).
constexpr uint8_t kInt16 = 0x81;
constexpr uint8_t kInt32 = 0x82;
constexpr uint8_t kReal = 0x83;
constexpr uint8_t kNew = 0x84;
constexpr uint8_t kNil = 0x85;
constexpr uint8_t kEnd = 0x86;
constexpr uint8_t kInt64 = 0x87;
constexpr int64_t kReferenceBase = 110;  // table index = value + 110

// Limits against hostile input.  Real transcripts nest a handful of levels
// and hold some tens of thousands of objects.
constexpr int kMaxDepth = 200;
constexpr int kMaxTypeNesting = 16;
constexpr size_t kMaxTableEntries = 8u << 20;
constexpr int kMaxClassChain = 64;

struct DecodeError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

using archive_detail::Handler;

class Reader;

// The sequential coder handed to substituted classes.  Failures are kept
// and reported after the factory returns, so no exception crosses it.
class SequentialCoder : public Coder {
 public:
  explicit SequentialCoder(Reader& r) : r_(r) {}
  bool AllowsKeyedCoding() const override { return false; }
  ObjectPtr DecodeObjectForKey(std::string_view) override { return nullptr; }
  int32_t DecodeInt32ForKey(std::string_view) override { return 0; }
  ObjectPtr DecodeObject() override;
  std::optional<uint32_t> DecodeUnsigned32() override;
  std::optional<std::string> error;

 private:
  Reader& r_;
};

class Reader {
 public:
  Reader(std::string_view bytes, const ClassSubstitutions& classes)
      : begin_(reinterpret_cast<const uint8_t*>(bytes.data())),
        p_(begin_),
        end_(begin_ + bytes.size()),
        classes_(classes) {}

  void ReadHeader() {
    if (end_ - p_ < 13) Fail("too short for a typedstream header");
    uint8_t version = *p_++;
    if (version == 3) Fail("streamer version 3 (old NeXTSTEP) is not supported");
    if (version != 4) Fail("unknown streamer version " + std::to_string(version));
    if (*p_++ != 11) Fail("bad signature length");
    std::string_view sig(reinterpret_cast<const char*>(p_), 11);
    p_ += 11;
    if (sig == "typedstream") {
      big_ = true;
    } else if (sig == "streamtyped") {
      big_ = false;
    } else {
      Fail("not a typedstream (bad signature)");
    }
    ReadInteger(Byte());  // system version, 1000 on Mac OS X
  }

  bool AtEnd() const { return p_ == end_; }

  // The single root object: one "@" group and nothing after it.
  ObjectPtr ReadRoot() {
    Expect("@", "the root");
    ObjectPtr root = ReadObject();
    if (!AtEnd()) Fail("data after the root object");
    return root;
  }

  // One top-level group with its values.
  void ReadTopGroup(std::vector<ObjectPtr>& out) {
    std::string_view types = GroupType("a top-level group");
    ReadValues(types, &out);
  }

  [[noreturn]] void Fail(const std::string& what) const {
    throw DecodeError(what + " at byte " + std::to_string(p_ - begin_));
  }

  // --- groups ---

  // Reads a group's type string; the object's end marker here is an error.
  std::string_view GroupType(const char* context) {
    if (Peek() == kEnd) Fail(std::string("object ended where ") + context + " was expected");
    int64_t index = ReadSharedString();
    if (index < 0) Fail("nil type string");
    return strings_[static_cast<size_t>(index)];
  }

  void Expect(std::string_view want, const char* context) {
    std::string_view got = GroupType(context);
    if (got != want) {
      Fail("expected a \"" + std::string(want) + "\" group for " + context + ", found \"" +
           std::string(got) + "\"");
    }
  }

  ObjectPtr ExpectObject(const char* context) {
    Expect("@", context);
    return ReadObject();
  }

  int64_t ExpectInteger(char code, const char* context) {
    char t[2] = {code, 0};
    Expect(t, context);
    return ReadIntegerOfType(code);
  }

  // Reads every value of a group whose types are known, collecting them
  // when `out` is given.
  void ReadValues(std::string_view types, std::vector<ObjectPtr>* out) {
    size_t i = 0;
    if (types.empty()) Fail("empty type string");
    while (i < types.size()) ReadValue(types, i, out, 0);
  }

  // --- objects ---

  ObjectPtr ReadObject() {
    uint8_t h = Byte();
    if (h == kNil) return nullptr;
    if (h != kNew) {
      size_t index = Reference(h);
      Entry& e = table_[index];
      if (e.kind != Kind::kObject) Fail("object reference to a class or C string");
      return e.obj;  // null while the object is still being decoded
    }
    if (++depth_ > kMaxDepth) Fail("objects nested too deeply");
    size_t index = NewEntry(Kind::kObject);
    int32_t cls = ReadClassChain();
    if (cls < 0) Fail("object without a class");
    ObjectPtr obj = Interpret(static_cast<size_t>(cls));
    if (Byte() != kEnd) Fail("object not closed by its end marker");
    table_[index].obj = obj;
    --depth_;
    return obj;
  }

 private:
  friend class SequentialCoder;
  enum class Kind : uint8_t { kObject, kClass, kCString };

  struct Entry {
    Kind kind = Kind::kObject;
    Handler handler = Handler::kUnresolved;
    uint8_t chainLength = 0;   // classes: this class and its superclasses
    bool open = false;         // classes: chain still being read
    int32_t super = -1;        // classes
    uint32_t name = 0;         // classes, C strings: string table index
    uint32_t interpreted = 0;  // classes: name of the built-in class that reads them
    ObjectPtr obj;             // objects
    const ClassFactory* factory = nullptr;
  };

  // --- bytes and numbers ---

  uint8_t Byte() {
    if (p_ == end_) Fail("unexpected end of data");
    return *p_++;
  }
  uint8_t Peek() {
    if (p_ == end_) Fail("unexpected end of data");
    return *p_;
  }
  const uint8_t* Take(uint64_t n) {
    if (n > static_cast<uint64_t>(end_ - p_)) Fail("length exceeds the remaining data");
    const uint8_t* at = p_;
    p_ += n;
    return at;
  }
  uint64_t Raw(int n) {
    const uint8_t* b = Take(static_cast<uint64_t>(n));
    uint64_t v = 0;
    for (int k = 0; k < n; ++k) v = v << 8 | b[big_ ? k : n - 1 - k];
    return v;
  }

  int64_t ReadInteger(uint8_t head) {
    switch (head) {
      case kInt16:
        return static_cast<int16_t>(Raw(2));
      case kInt32:
        return static_cast<int32_t>(Raw(4));
      case kInt64:
        return static_cast<int64_t>(Raw(8));
      default:
        if (head >= 0x80 && head <= 0x91) Fail("unexpected tag where an integer was expected");
        return static_cast<int8_t>(head);
    }
  }

  int64_t ReadIntegerOfType(char code) {
    switch (code) {
      case 'c':
        return static_cast<int8_t>(Byte());
      case 'C':
      case 'B':
        return Byte();
    }
    int64_t v = ReadInteger(Byte());
    switch (code) {
      case 's':
        return static_cast<int16_t>(v);
      case 'S':
        return static_cast<uint16_t>(v);
      case 'i':
      case 'l':
        return static_cast<int32_t>(v);
      case 'I':
      case 'L':
        return static_cast<uint32_t>(v);
      default:  // q, Q: all 64 bits
        return v;
    }
  }

  double ReadReal(char code) {
    uint8_t h = Byte();
    if (h != kReal) return static_cast<double>(ReadInteger(h));
    if (code == 'f') {
      auto bits = static_cast<uint32_t>(Raw(4));
      float f;
      std::memcpy(&f, &bits, 4);
      return f;
    }
    uint64_t bits = Raw(8);
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
  }

  // --- strings and tables ---

  size_t Reference(uint8_t head) {
    int64_t index = ReadInteger(head) + kReferenceBase;
    if (index < 0 || static_cast<uint64_t>(index) >= table_.size()) Fail("dangling reference");
    return static_cast<size_t>(index);
  }

  size_t NewEntry(Kind kind) {
    if (table_.size() >= kMaxTableEntries) Fail("too many objects");
    table_.emplace_back();
    table_.back().kind = kind;
    return table_.size() - 1;
  }

  // Unshared byte string; nullopt for nil.
  std::optional<std::string_view> ReadUnshared() {
    uint8_t h = Byte();
    if (h == kNil) return std::nullopt;
    int64_t len = ReadInteger(h);
    if (len < 0) Fail("negative string length");
    const uint8_t* b = Take(static_cast<uint64_t>(len));
    return std::string_view(reinterpret_cast<const char*>(b), static_cast<size_t>(len));
  }

  // Shared string: its string-table index, or -1 for nil.
  int64_t ReadSharedString() {
    uint8_t h = Byte();
    if (h == kNil) return -1;
    if (h == kNew) {
      auto s = ReadUnshared();
      if (!s) Fail("nil inside a new shared string");
      if (strings_.size() >= kMaxTableEntries) Fail("too many strings");
      strings_.emplace_back(*s);
      return static_cast<int64_t>(strings_.size() - 1);
    }
    int64_t index = ReadInteger(h) + kReferenceBase;
    if (index < 0 || static_cast<uint64_t>(index) >= strings_.size())
      Fail("dangling string reference");
    return index;
  }

  // C string: its string-table index, or -1 for nil.
  int64_t ReadCString() {
    uint8_t h = Byte();
    if (h == kNil) return -1;
    if (h == kNew) {
      size_t entry = NewEntry(Kind::kCString);
      int64_t s = ReadSharedString();
      if (s < 0) Fail("nil inside a new C string");
      table_[entry].name = static_cast<uint32_t>(s);
      return s;
    }
    const Entry& e = table_[Reference(h)];
    if (e.kind != Kind::kCString) Fail("C string reference to an object or class");
    return e.name;
  }

  // A class chain; returns the first class's table index or -1 for nil.
  int32_t ReadClassChain() {
    int32_t first = -1, prev = -1;
    std::vector<int32_t> opened;
    for (;;) {
      uint8_t h = Byte();
      int32_t cur = -1;
      if (h == kNew) {
        if (opened.size() >= kMaxClassChain) Fail("class chain too long");
        cur = static_cast<int32_t>(NewEntry(Kind::kClass));
        int64_t name = ReadSharedString();
        if (name < 0) Fail("class without a name");
        table_[cur].name = static_cast<uint32_t>(name);
        table_[cur].open = true;
        ReadInteger(Byte());  // class version: any is accepted
        if (prev >= 0) table_[prev].super = cur;
        if (first < 0) first = cur;
        prev = cur;
        opened.push_back(cur);
        continue;
      }
      if (h != kNil) {
        cur = static_cast<int32_t>(Reference(h));
        const Entry& e = table_[cur];
        if (e.kind != Kind::kClass) Fail("class reference to an object or C string");
        if (e.open) Fail("class chain refers to itself");
      }
      if (prev >= 0) table_[prev].super = cur;
      if (first < 0) first = cur;
      break;
    }
    // Close the new classes, deepest first, recording chain lengths.
    for (auto it = opened.rbegin(); it != opened.rend(); ++it) {
      Entry& e = table_[*it];
      int len = 1 + (e.super >= 0 ? table_[e.super].chainLength : 0);
      if (len > kMaxClassChain) Fail("class chain too long");
      e.chainLength = static_cast<uint8_t>(len);
      e.open = false;
    }
    return first;
  }

  std::string_view ClassName(size_t cls) const { return strings_[table_[cls].name]; }

  // Decides once per class which handler reads its objects: the first class
  // in the chain that is substituted or built in.
  void Resolve(size_t cls) {
    Entry& e = table_[cls];
    e.handler = Handler::kOpaque;
    for (int32_t c = static_cast<int32_t>(cls); c >= 0; c = table_[c].super) {
      std::string_view name = ClassName(static_cast<size_t>(c));
      if (auto it = classes_.find(name); it != classes_.end()) {
        e.handler = Handler::kFactory;
        e.factory = &it->second;
        return;
      }
      if (auto h = archive_detail::BuiltInHandler(name, true)) {
        e.handler = *h;
        e.interpreted = table_[c].name;
        return;
      }
    }
  }

  ObjectPtr Interpret(size_t cls) {
    if (table_[cls].handler == Handler::kUnresolved) Resolve(cls);
    const Entry& e = table_[cls];
    switch (e.handler) {
      case Handler::kFactory:
        return ReadSubstituted(*e.factory, cls);
      case Handler::kOpaque:
      case Handler::kUnresolved:
        return ReadOpaque(cls);
      default:
        break;
    }
    ObjectPtr obj = ReadBuiltIn(e.handler, strings_[e.interpreted]);
    SkipToEndMarkerless();
    return obj;
  }

  // Leaves the end marker for ReadObject; skips what a handler left unread.
  void SkipToEndMarkerless() {
    while (Peek() != kEnd) {
      std::string_view types = GroupType("a group");
      ReadValues(types, nullptr);
    }
  }

  ObjectPtr ReadOpaque(size_t cls) {
    auto o = std::make_shared<OpaqueObject>();
    for (int32_t c = static_cast<int32_t>(cls); c >= 0; c = table_[c].super) {
      o->classChain.emplace_back(ClassName(static_cast<size_t>(c)));
    }
    SkipToEndMarkerless();
    return o;
  }

  ObjectPtr ReadSubstituted(const ClassFactory& factory, size_t cls) {
    SequentialCoder coder(*this);
    ObjectPtr obj = factory(coder);
    if (coder.error) throw DecodeError(*coder.error);
    if (!obj) Fail("class " + std::string(ClassName(cls)) + " could not be decoded");
    SkipToEndMarkerless();
    return obj;
  }

  ObjectPtr ReadBuiltIn(Handler h, std::string_view name) {
    bool isMutable = name.starts_with("NSMutable");
    switch (h) {
      case Handler::kString:
        return ReadStringContents(isMutable);
      case Handler::kNumber:
        return ReadNumber(name == "NSNumber");
      case Handler::kArray:
        return ReadArray(isMutable);
      case Handler::kDictionary:
        return ReadDictionary(isMutable);
      case Handler::kDate: {
        Expect("d", "a date");
        return std::make_shared<DateObject>(Date{ReadReal('d')});
      }
      case Handler::kData:
        return std::make_shared<Data>(ReadDataObject("data"), isMutable);
      case Handler::kURL:
        return ReadURL();
      case Handler::kAttributedString:
        return ReadAttributedString(isMutable);
      case Handler::kFont:
        return ReadFont();
      case Handler::kColor:
        return ReadColor();
      case Handler::kTextAttachment:
        return ReadTextAttachment();
      case Handler::kFileWrapper:
        return ReadFileWrapper();
      default:
        Fail("no reader for this class");
    }
  }

  // --- generic values ---

  // The end of the type starting at t[i].
  size_t TypeEnd(std::string_view t, size_t i, int nesting) {
    if (nesting > kMaxTypeNesting) Fail("type string nested too deeply");
    if (i >= t.size()) Fail("truncated type string");
    char c = t[i];
    char close = c == '[' ? ']' : c == '{' ? '}' : c == '(' ? ')' : 0;
    if (!close) return i + 1;
    size_t k = i + 1;
    while (k < t.size() && t[k] != close) {
      char d = t[k];
      if (d == '[' || d == '{' || d == '(') {
        k = TypeEnd(t, k, nesting + 1);
      } else if (d == ']' || d == '}' || d == ')') {
        Fail("unbalanced type string");
      } else {
        ++k;
      }
    }
    if (k >= t.size()) Fail("unbalanced type string");
    return k + 1;
  }

  // Bytes a union member occupies; unions are written as raw bytes.
  size_t ScalarSize(std::string_view t, size_t i, int nesting) {
    if (nesting > kMaxTypeNesting) Fail("type string nested too deeply");
    switch (t[i]) {
      case 'c':
      case 'C':
      case 'B':
        return 1;
      case 's':
      case 'S':
        return 2;
      case 'i':
      case 'I':
      case 'l':
      case 'L':
      case 'f':
        return 4;
      case 'q':
      case 'Q':
      case 'd':
        return 8;
      case '(': {
        size_t end = TypeEnd(t, i, nesting) - 1, best = 0;
        for (size_t k = i + 1; k < end; k = TypeEnd(t, k, nesting + 1)) {
          best = std::max(best, ScalarSize(t, k, nesting + 1));
        }
        return best;
      }
      default:
        Fail("union member of type '" + std::string(1, t[i]) + "' cannot be sized");
    }
  }

  // Reads one value of the type at t[i] and moves i past it.
  void ReadValue(std::string_view t, size_t& i, std::vector<ObjectPtr>* out, int nesting) {
    if (nesting > kMaxTypeNesting) Fail("type string nested too deeply");
    char c = t[i];
    switch (c) {
      case '@': {
        ++i;
        ObjectPtr o = ReadObject();
        if (out) out->push_back(std::move(o));
        return;
      }
      case '#': {
        ++i;
        int32_t cls = ReadClassChain();
        if (out)
          out->push_back(cls < 0 ? nullptr : std::make_shared<String>(TextOf(ClassName(cls))));
        return;
      }
      case 'c':
      case 'C':
      case 'B':
      case 's':
      case 'S':
      case 'i':
      case 'I':
      case 'l':
      case 'L':
      case 'q':
      case 'Q': {
        ++i;
        int64_t v = ReadIntegerOfType(c);
        if (out) out->push_back(c == 'B' ? Number::Bool(v != 0) : Number::Integer(v));
        return;
      }
      case 'f':
      case 'd': {
        ++i;
        double v = ReadReal(c);
        if (out) out->push_back(Number::Real(v));
        return;
      }
      case '+': {
        ++i;
        auto s = ReadUnshared();
        if (out) out->push_back(s ? std::make_shared<String>(TextOf(*s)) : nullptr);
        return;
      }
      case '*':
      case '%':
      case ':': {
        ++i;
        int64_t s = c == '*' ? ReadCString() : ReadSharedString();
        if (out) out->push_back(s < 0 ? nullptr : std::make_shared<String>(TextOf(strings_[s])));
        return;
      }
      case '!':
        ++i;
        return;
      case '[': {
        size_t end = TypeEnd(t, i, nesting);
        size_t k = i + 1;
        uint64_t n = 0;
        size_t digits = 0;
        while (k < end && t[k] >= '0' && t[k] <= '9') {
          n = n * 10 + static_cast<uint64_t>(t[k++] - '0');
          if (++digits > 10) Fail("array count too large");
        }
        if (digits == 0 || k + 2 > end) Fail("malformed array type");
        size_t elemEnd = TypeEnd(t, k, nesting + 1);
        if (elemEnd != end - 1) Fail("malformed array type");
        if ((t[k] == 'c' || t[k] == 'C') && elemEnd == k + 1) {
          const uint8_t* b = Take(n);
          if (out)
            out->push_back(
                std::make_shared<Data>(std::string(reinterpret_cast<const char*>(b), n)));
        } else {
          // Every element that holds data takes at least one byte.
          if (ReadsNothing(t.substr(k, elemEnd - k))) n = 0;
          if (n > static_cast<uint64_t>(end_ - p_)) Fail("array count exceeds the remaining data");
          for (uint64_t e = 0; e < n; ++e) {
            size_t at = k;
            ReadValue(t, at, out, nesting + 1);
          }
        }
        i = end;
        return;
      }
      case '{': {
        size_t end = TypeEnd(t, i, nesting);
        size_t k = i + 1;
        // Skip an optional "name=" part.
        size_t eq = t.substr(k, end - 1 - k).find('=');
        if (eq != std::string_view::npos &&
            t.substr(k, eq).find_first_of("[]{}()") == std::string_view::npos) {
          k += eq + 1;
        }
        while (k < end - 1) ReadValue(t, k, out, nesting + 1);
        i = end;
        return;
      }
      case '(': {
        size_t size = ScalarSize(t, i, nesting);
        const uint8_t* b = Take(size);
        if (out)
          out->push_back(
              std::make_shared<Data>(std::string(reinterpret_cast<const char*>(b), size)));
        i = TypeEnd(t, i, nesting);
        return;
      }
      default:
        Fail("unsupported type code '" + std::string(1, c) + "'");
    }
  }

  bool ReadsNothing(std::string_view t) {
    for (char c : t) {
      if (c != '!' && c != '{' && c != '}' && c != '=' && !(c >= '0' && c <= '9') && c != '[' &&
          c != ']') {
        return false;
      }
    }
    return true;
  }

  // --- built-in classes ---

  std::shared_ptr<String> ReadStringContents(bool isMutable) {
    Expect("+", "a string's text");
    auto s = ReadUnshared();
    return std::make_shared<String>(s ? TextOf(*s) : std::u16string(), isMutable);
  }

  // NSData's "data object": a length and the raw bytes.
  std::string ReadDataObject(const char* context) {
    int64_t n = ExpectInteger('i', context);
    if (n < 0) Fail("negative data length");
    if (n == 0 && Peek() == kEnd) return {};
    std::string_view got = GroupType(context);
    std::string want = "[" + std::to_string(n) + "c]";
    std::string wantUnsigned = "[" + std::to_string(n) + "C]";
    if (got != want && got != wantUnsigned) Fail("data bytes group does not match its length");
    const uint8_t* b = Take(static_cast<uint64_t>(n));
    return std::string(reinterpret_cast<const char*>(b), static_cast<size_t>(n));
  }

  ObjectPtr ReadNumber(bool isNSNumber) {
    Expect("*", "a value's type");
    int64_t typeIndex = ReadCString();
    if (typeIndex < 0) Fail("value without a type");
    std::string code(strings_[typeIndex]);
    Expect(code, "a value");
    std::vector<ObjectPtr> values;
    ReadValues(code, &values);
    if (code.size() == 1 && values.size() == 1 && As<Number>(values[0])) {
      auto n = As<Number>(values[0]);
      if (code == "c" || code == "C") n = Number::Integer(n->IntegerValue());
      return n;
    }
    auto o = std::make_shared<OpaqueObject>();
    o->classChain = {isNSNumber ? "NSNumber" : "NSValue"};
    return o;
  }

  ObjectPtr ReadArray(bool isMutable) {
    int64_t n = ExpectInteger('i', "an array's count");
    if (n < 0) Fail("negative array count");
    // Each element takes at least two bytes (type string and value).
    if (static_cast<uint64_t>(n) > static_cast<uint64_t>(end_ - p_) / 2)
      Fail("array count exceeds the data");
    auto a = std::make_shared<Array>();
    a->mutable_ = isMutable;
    a->items.reserve(static_cast<size_t>(n));
    for (int64_t k = 0; k < n; ++k) a->items.push_back(ExpectObject("an array element"));
    return a;
  }

  ObjectPtr ReadDictionary(bool isMutable) {
    int64_t n = ExpectInteger('i', "a dictionary's count");
    if (n < 0) Fail("negative dictionary count");
    if (static_cast<uint64_t>(n) > static_cast<uint64_t>(end_ - p_) / 4)
      Fail("dictionary count exceeds the data");
    auto d = std::make_shared<Dictionary>();
    d->mutable_ = isMutable;
    d->entries.reserve(static_cast<size_t>(n));
    for (int64_t k = 0; k < n; ++k) {
      ObjectPtr key = ExpectObject("a dictionary key");
      ObjectPtr value = ExpectObject("a dictionary value");
      d->entries.emplace_back(std::move(key), std::move(value));
    }
    return d;
  }

  ObjectPtr ReadURL() {
    Expect("c", "a URL's base flag");
    bool hasBase = Byte() != 0;
    auto u = std::make_shared<URL>();
    if (hasBase) {
      ObjectPtr base = ExpectObject("a URL's base");
      if (base && !As<URL>(base)) Fail("URL base is not a URL");
      u->base = As<URL>(base);
    }
    ObjectPtr rel = ExpectObject("a URL's string");
    auto s = As<String>(rel);
    if (!s) Fail("URL string is not a string");
    u->relative = s->value;
    return u;
  }

  ObjectPtr ReadAttributedString(bool isMutable) {
    ObjectPtr textObj = ExpectObject("an attributed string's text");
    auto text = As<String>(textObj);
    if (textObj && !text) Fail("attributed string text is not a string");
    auto a = std::make_shared<AttributedString>();
    a->mutable_ = isMutable;
    const std::u16string empty;
    const std::u16string& t = text ? text->value : empty;
    a->text.reserve(t.size());
    std::vector<std::shared_ptr<Dictionary>> dicts;
    size_t pos = 0;
    while (Peek() != kEnd) {
      std::string_view types = GroupType("a run");
      if (types != "iI") {
        // Something this reader does not know: skip the rest.
        ReadValues(types, nullptr);
        SkipToEndMarkerless();
        break;
      }
      int64_t number = ReadIntegerOfType('i');
      int64_t length = ReadIntegerOfType('I');
      std::shared_ptr<Dictionary> attrs;
      if (number >= 1 && static_cast<uint64_t>(number) == dicts.size() + 1) {
        ObjectPtr d = ExpectObject("a run's attributes");
        attrs = As<Dictionary>(d);
        if (d && !attrs) Fail("run attributes are not a dictionary");
        dicts.push_back(attrs);
      } else if (number >= 1 && static_cast<uint64_t>(number) <= dicts.size()) {
        attrs = dicts[static_cast<size_t>(number - 1)];
      } else {
        Fail("run refers to an unknown attribute dictionary");
      }
      if (static_cast<uint64_t>(length) > t.size() - pos) Fail("runs exceed the text");
      a->Append(std::u16string_view(t).substr(pos, static_cast<size_t>(length)), attrs);
      pos += static_cast<size_t>(length);
    }
    if (pos != t.size()) Fail("runs do not cover the text");
    return a;
  }

  ObjectPtr ReadFont() {
    auto f = std::make_shared<Font>();
    std::string blob = ReadDataObject("a font's name");
    if (auto name = ParseNeXTSerializedString(blob)) f->name = std::move(*name);
    Expect("f", "a font's size");
    f->pointSize = ReadReal('f');
    return f;  // the flag groups are skipped
  }

  ObjectPtr ReadColor() {
    auto c = std::make_shared<Color>();
    c->space = static_cast<int>(ExpectInteger('c', "a colour space"));
    auto reals = [&](const char* types) {
      Expect(types, "colour components");
      for (const char* k = types; *k; ++k) c->components.push_back(ReadReal('f'));
    };
    switch (c->space) {
      case Color::kCalibratedRGB:
      case Color::kDeviceRGB:
        reals("ffff");
        break;
      case Color::kCalibratedWhite:
      case Color::kDeviceWhite:
        reals("ff");
        break;
      case Color::kDeviceCMYK:
        reals("fffff");
        break;
      case Color::kNamed: {
        Expect("@@@", "a named colour");
        auto catalog = As<String>(ReadObject());
        auto name = As<String>(ReadObject());
        ObjectPtr eq = ReadObject();
        if (catalog) c->catalogName = catalog->value;
        if (name) c->colorName = name->value;
        c->equivalent = As<Color>(eq);
        break;
      }
      default:
        break;  // patterns and others: kept without components
    }
    return c;
  }

  ObjectPtr ReadTextAttachment() {
    Expect("c@", "a text attachment");
    bool hasCell = Byte() != 0;
    auto t = std::make_shared<TextAttachment>();
    t->fileWrapper = As<FileWrapper>(ReadObject());
    if (hasCell) ExpectObject("an attachment cell");
    return t;
  }

  ObjectPtr ReadFileWrapper() {
    auto data = As<Data>(ExpectObject("a file wrapper's contents"));
    std::shared_ptr<FileWrapper> w;
    if (data) w = ParseSerializedFileWrapper(data->bytes);
    // An unreadable serialization leaves an empty wrapper rather than
    // losing the whole transcript.
    return w ? w : std::make_shared<FileWrapper>();
  }

  const uint8_t* begin_;
  const uint8_t* p_;
  const uint8_t* end_;
  const ClassSubstitutions& classes_;
  bool big_ = false;
  int depth_ = 0;
  std::vector<std::string_view> strings_;  // views of the archive
  std::vector<Entry> table_;
};

ObjectPtr SequentialCoder::DecodeObject() {
  if (error) return nullptr;
  try {
    return r_.ExpectObject("an object");
  } catch (const DecodeError& e) {
    error = e.what();
    return nullptr;
  }
}

std::optional<uint32_t> SequentialCoder::DecodeUnsigned32() {
  if (error) return std::nullopt;
  try {
    return static_cast<uint32_t>(r_.ExpectInteger('I', "an unsigned integer"));
  } catch (const DecodeError& e) {
    error = e.what();
    return std::nullopt;
  }
}

}  // namespace

DecodeResult DecodeTypedstream(std::string_view bytes, const ClassSubstitutions& classes) {
  DecodeResult result;
  result.error = archive_detail::Guarded<DecodeError>("typedstream", [&] {
    Reader r(bytes, classes);
    r.ReadHeader();
    result.root = r.ReadRoot();
  });
  if (!result.ok()) result.root = nullptr;
  return result;
}

TypedstreamValues DecodeTypedstreamValues(std::string_view bytes,
                                          const ClassSubstitutions& classes) {
  TypedstreamValues result;
  result.error = archive_detail::Guarded<DecodeError>("typedstream", [&] {
    Reader r(bytes, classes);
    r.ReadHeader();
    while (!r.AtEnd()) r.ReadTopGroup(result.values);
  });
  if (!result.ok()) result.values.clear();
  return result;
}

}  // namespace gab
