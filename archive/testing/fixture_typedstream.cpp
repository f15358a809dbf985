// NSArchiver output for transcripts, byte for byte in the layout Apple's
// archiver produces (the corpus tests compare pieces of it with real files).

#include <cmath>
#include <cstring>
#include <map>

#include "archive/testing/fixture_parts.h"
#include "platform/text.h"

namespace gab::fixtures {

namespace {

struct ClassLevel {
  const char* name;
  int version;
};

class TypedstreamOut {
 public:
  explicit TypedstreamOut(bool big) : big_(big) {
    out_ += '\x04';
    out_ += '\x0B';
    out_ += big ? "typedstream" : "streamtyped";
    Int(1000);
  }

  std::string Take() { return std::move(out_); }

  void Byte(uint8_t b) { out_ += static_cast<char>(b); }

  void Raw(uint64_t v, int n) {
    for (int k = 0; k < n; ++k) {
      int shift = 8 * (big_ ? n - 1 - k : k);
      Byte(static_cast<uint8_t>(v >> shift));
    }
  }

  // The shortest integer form: one literal byte, then 81, 82, 87.
  void Int(int64_t v) {
    if (v >= -110 && v <= 127) {
      Byte(static_cast<uint8_t>(static_cast<int8_t>(v)));
    } else if (v >= INT16_MIN && v <= INT16_MAX) {
      Byte(0x81);
      Raw(static_cast<uint16_t>(v), 2);
    } else if (v >= INT32_MIN && v <= INT32_MAX) {
      Byte(0x82);
      Raw(static_cast<uint32_t>(v), 4);
    } else {
      Byte(0x87);
      Raw(static_cast<uint64_t>(v), 8);
    }
  }

  // Reals that convert to integers without loss are written as integers.
  void Real(double v, bool isFloat) {
    if (std::nearbyint(v) == v && std::fabs(v) < 2147483647.0) {
      Int(static_cast<int64_t>(v));
      return;
    }
    Byte(0x83);
    if (isFloat) {
      float f = static_cast<float>(v);
      uint32_t bits;
      std::memcpy(&bits, &f, 4);
      Raw(bits, 4);
    } else {
      uint64_t bits;
      std::memcpy(&bits, &v, 8);
      Raw(bits, 8);
    }
  }

  void Unshared(std::string_view s) {
    Int(static_cast<int64_t>(s.size()));
    out_ += s;
  }

  void Shared(std::string_view s) {
    auto it = strings_.find(std::string(s));
    if (it != strings_.end()) {
      Int(it->second - 110);
      return;
    }
    Byte(0x84);
    Unshared(s);
    strings_.emplace(std::string(s), nextString_++);
  }

  void Types(std::string_view t) { Shared(t); }

  // A reference to an object archived earlier under `key`, if any.
  bool Ref(const std::string& key) {
    if (key.empty()) return false;
    auto it = shared_.find(key);
    if (it == shared_.end()) return false;
    Int(it->second - 110);
    return true;
  }

  // Starts a new object: its number, then its class chain.
  void Begin(std::initializer_list<ClassLevel> chain, const std::string& key = {}) {
    Byte(0x84);
    int64_t number = nextObject_++;
    if (!key.empty()) shared_[key] = number;
    for (const ClassLevel& c : chain) {
      auto it = classes_.find(c.name);
      if (it != classes_.end()) {
        Int(it->second - 110);
        return;
      }
      Byte(0x84);
      Shared(c.name);
      Int(c.version);
      classes_[c.name] = nextObject_++;
    }
    Byte(0x85);
  }
  void End() { Byte(0x86); }
  // C strings are archived once (a type code is one static string) and
  // referenced through the object table afterwards.
  void CString(const std::string& s) {
    if (Ref("cstring:" + s)) return;
    Byte(0x84);
    shared_["cstring:" + s] = nextObject_++;
    Shared(s);
  }
  void Nil() { Byte(0x85); }

  void String(const std::u16string& s, bool isMutable, const std::string& key = {}) {
    if (Ref(key)) return;
    if (isMutable) {
      Begin({{"NSMutableString", 1}, {"NSString", 1}, {"NSObject", 0}}, key);
    } else {
      Begin({{"NSString", 1}, {"NSObject", 0}}, key);
    }
    Types("+");
    Unshared(ToUtf8(s));
    End();
  }

  // NSData's data object: length, then the bytes as a char array.
  void DataObject(std::string_view bytes) {
    Types("i");
    Int(static_cast<int64_t>(bytes.size()));
    Types("[" + std::to_string(bytes.size()) + "c]");
    out_ += bytes;
  }

  bool big() const { return big_; }

 private:
  bool big_;
  std::string out_;
  std::map<std::string, int64_t> strings_;
  std::map<std::string, int64_t> classes_;
  std::map<std::string, int64_t> shared_;
  int64_t nextString_ = 0, nextObject_ = 0;
};

class TranscriptOut {
 public:
  explicit TranscriptOut(bool big) : w_(big) {}

  std::string Write(const Transcript& t) {
    w_.Types("@");
    w_.Begin({{"NSMutableArray", 0}, {"NSArray", 0}, {"NSObject", 0}});
    w_.Types("i");
    w_.Int(4);
    w_.Types("@");
    w_.String(t.service, false);
    w_.Types("@");
    w_.String(u"", false);
    w_.Types("@");
    Array(t.messages.size(), [&](size_t k) { MessageObject(t.messages[k]); });
    w_.Types("@");
    Array(t.participants.size(), [&](size_t k) { Presentity(t.participants[k]); });
    w_.End();
    return w_.Take();
  }

 private:
  template <class F>
  void Array(size_t n, F&& item) {
    w_.Begin({{"NSMutableArray", 0}, {"NSArray", 0}, {"NSObject", 0}});
    w_.Types("i");
    w_.Int(static_cast<int64_t>(n));
    for (size_t k = 0; k < n; ++k) {
      w_.Types("@");
      item(k);
    }
    w_.End();
  }

  void Presentity(const Speaker& s) {
    std::string key = "presentity:" + ToUtf8(s.service) + "/" + ToUtf8(s.id);
    if (w_.Ref(key)) return;
    if (s.person) {
      w_.Begin({{"Person", 0}, {"NSObject", 0}}, key);
      return w_.End();
    }
    w_.Begin({{"Presentity", 0}, {"NSObject", 0}}, key);
    w_.Types("@");
    w_.String(s.service, false);
    w_.Types("@");
    w_.String(s.id, false);
    w_.End();
  }

  void MessageObject(const Message& m) {
    w_.Begin({{"InstantMessage", 0}, {"NSObject", 0}});
    w_.Types("@");
    if (m.speaker) {
      Presentity(*m.speaker);
    } else {
      w_.Nil();
    }
    w_.Types("@");
    w_.Begin({{"NSDate", 0}, {"NSObject", 0}});
    w_.Types("d");
    w_.Real(m.time.time, false);
    w_.End();
    w_.Types("@");
    if (m.noText) {
      w_.Nil();
    } else if (m.plainText) {
      w_.String(PlainText(m), false);
    } else {
      AttributedString(m);
    }
    w_.Types("I");
    w_.Int(static_cast<int32_t>(m.flags));
    w_.End();
  }

  void AttributedString(const Message& m) {
    std::u16string text;
    size_t dicts = 0;
    std::vector<PlannedRun> runs = PlanRuns(m, text, dicts);
    w_.Begin({{"NSMutableAttributedString", 0}, {"NSAttributedString", 0}, {"NSObject", 0}});
    w_.Types("@");
    w_.String(text, true);
    for (const PlannedRun& r : runs) {
      w_.Types("iI");
      w_.Int(static_cast<int64_t>(r.dict + 1));
      w_.Int(static_cast<int32_t>(r.length));
      if (r.fresh) {
        w_.Types("@");
        Attributes(*r.run);
      }
    }
    w_.End();
  }

  void Key(const char* name) { w_.String(ToUtf16(name), false, std::string("key:") + name); }

  void Attributes(const TextRun& r) {
    int n = (r.fontName ? 1 : 0) + (r.rgb || r.white ? 1 : 0) + (r.link ? 1 : 0) +
            (r.attachment ? 1 : 0);
    w_.Begin({{"NSDictionary", 0}, {"NSObject", 0}});
    w_.Types("i");
    w_.Int(n);
    if (r.fontName) {
      w_.Types("@");
      Key("NSFont");
      w_.Types("@");
      Font(*r.fontName, r.fontSize);
    }
    if (r.rgb || r.white) {
      w_.Types("@");
      Key("NSColor");
      w_.Types("@");
      w_.Begin({{"NSColor", 0}, {"NSObject", 0}});
      w_.Types("c");
      if (r.rgb) {
        w_.Byte(1);
        w_.Types("ffff");
        for (double v : *r.rgb) w_.Real(v, true);
      } else {
        w_.Byte(3);
        w_.Types("ff");
        w_.Real(*r.white, true);
      }
      w_.Real(1, true);
      w_.End();
    }
    if (r.link) {
      w_.Types("@");
      Key("NSLink");
      w_.Types("@");
      if (r.link->asURL) {
        Url(r.link->target, r.link->base);
      } else {
        w_.String(r.link->target, false);
      }
    }
    if (r.attachment) {
      w_.Types("@");
      Key("NSAttachment");
      w_.Types("@");
      w_.Begin({{"NSTextAttachment", 0}, {"NSObject", 0}});
      w_.Types("c@");
      w_.Byte(0);
      w_.Begin({{"NSFileWrapper", 0}, {"NSObject", 0}});
      w_.Types("@");
      w_.Begin({{"NSMutableData", 0}, {"NSData", 0}, {"NSObject", 0}});
      w_.DataObject(SerializeRegularFile(r.attachment->fileName, r.attachment->bytes,
                                         r.attachment->withUtf8Name));
      w_.End();
      w_.End();
      w_.End();
    }
    w_.End();
  }

  void Url(const std::u16string& target, const std::optional<std::u16string>& base) {
    w_.Begin({{"NSURL", 0}, {"NSObject", 0}});
    w_.Types("c");
    w_.Byte(base ? 1 : 0);
    if (base) {
      w_.Types("@");
      Url(*base, std::nullopt);
    }
    w_.Types("@");
    w_.String(target, false);
    w_.End();
  }

  // Fonts are shared objects, as AppKit's are.
  void Font(const std::u16string& name, double size) {
    std::string key = "font:" + ToUtf8(name) + "/" + std::to_string(size);
    if (w_.Ref(key)) return;
    w_.Begin({{"NSFont", 30}, {"NSObject", 0}}, key);
    w_.DataObject(SerializeNeXTString(name, w_.big()));
    w_.Types("f");
    w_.Real(size, true);
    for (uint8_t flag : {0, 1, 0, 0}) {
      w_.Types("c");
      w_.Byte(flag);
    }
    w_.End();
  }

  TypedstreamOut w_;
};

// Strings, integers, arrays, dictionaries and attributed strings; objects
// shared by pointer archived once.
class ObjectOut {
 public:
  explicit ObjectOut(bool big) : w_(big) {}

  std::string Write(const ObjectPtr& root) {
    w_.Types("@");
    Object(root);
    return w_.Take();
  }

 private:
  void Object(const ObjectPtr& o) {
    if (!o) return w_.Nil();
    std::string key = "ptr:" + std::to_string(reinterpret_cast<uintptr_t>(o.get()));
    if (w_.Ref(key)) return;
    if (auto s = As<gab::String>(o)) return w_.String(s->value, s->mutable_, key);
    if (auto n = As<Number>(o)) {
      w_.Begin({{"NSNumber", 0}, {"NSValue", 0}, {"NSObject", 0}}, key);
      w_.Types("*");
      w_.CString("i");
      w_.Types("i");
      w_.Int(n->i);
      return w_.End();
    }
    if (auto a = As<gab::Array>(o)) {
      w_.Begin({{"NSArray", 0}, {"NSObject", 0}}, key);
      w_.Types("i");
      w_.Int(static_cast<int64_t>(a->items.size()));
      for (const auto& item : a->items) {
        w_.Types("@");
        Object(item);
      }
      return w_.End();
    }
    if (auto d = As<Dictionary>(o)) {
      w_.Begin({{"NSDictionary", 0}, {"NSObject", 0}}, key);
      w_.Types("i");
      w_.Int(static_cast<int64_t>(d->entries.size()));
      for (const auto& [k, v] : d->entries) {
        w_.Types("@");
        Object(k);
        w_.Types("@");
        Object(v);
      }
      return w_.End();
    }
    auto a = As<AttributedString>(o);
    w_.Begin({{"NSAttributedString", 0}, {"NSObject", 0}}, key);
    w_.Types("@");
    w_.String(a->text, false);
    std::map<const gab::Object*, int64_t> numbers;
    for (const auto& run : a->runs) {
      auto [it, fresh] =
          numbers.emplace(run.attributes.get(), static_cast<int64_t>(numbers.size() + 1));
      w_.Types("iI");
      w_.Int(it->second);
      w_.Int(static_cast<int32_t>(run.length));
      if (fresh) {
        w_.Types("@");
        Object(run.attributes);
      }
    }
    w_.End();
  }

  TypedstreamOut w_;
};

}  // namespace

std::string WriteTypedstreamObject(const ObjectPtr& root, bool bigEndian) {
  return ObjectOut(bigEndian).Write(root);
}

std::string WriteTypedstreamTranscript(const Transcript& t, bool bigEndian) {
  return TranscriptOut(bigEndian).Write(t);
}

}  // namespace gab::fixtures
