#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <cstring>
#include <functional>

#include "archive/bplist.h"
#include "archive/keyed.h"
#include "archive/testing/fixture_writer.h"
#include "archive/tests/archive_test_util.h"
#include "archive/typedstream.h"
#include "platform/plist.h"

// Damaged and hostile archives fail with a reason; they never crash, hang
// or allocate without bound.

namespace gab {
namespace {

using namespace std::string_literals;

using testing::Dump;

fixtures::Transcript SmallTranscript() {
  fixtures::Transcript t;
  fixtures::Speaker bob{u"AIM", u"bob"};
  t.participants = {bob};
  fixtures::TextRun a(u"hi "), b(u"there"), c;
  a.fontName = u"Helvetica";
  a.rgb = std::array<double, 3>{0.5, 0.25, 1};
  b.link = fixtures::Link(u"x", true, u"http://h/");
  c.attachment = fixtures::Attachment(u"f.png", "PNG");
  t.messages.push_back({bob, Date{1}, {a, b, c}, false, 1});
  t.messages.push_back({std::nullopt, Date{2}, {b}, false, 0});
  return t;
}

ClassSubstitutions Skipping() {
  // Transcript classes decoded generically: nothing read, all skipped.
  ClassSubstitutions s;
  for (const char* name : {"InstantMessage", "Presentity"}) {
    s[name] = [](Coder&) -> ObjectPtr { return std::make_shared<OpaqueObject>(); };
  }
  return s;
}

// Checks one decode: `error` (a substring, with the decoder's prefix) or,
// when it is empty, success and the dump if one is given.
void ExpectDecode(const DecodeResult& r, const std::string& what, const char* error,
                  const char* prefix, const char* dump = "") {
  if (*error) {
    EXPECT_FALSE(r.ok()) << what;
    EXPECT_NE(r.error.find(error), std::string::npos) << what << ": " << r.error;
    EXPECT_TRUE(r.error.starts_with(prefix)) << what << ": " << r.error;
  } else {
    EXPECT_TRUE(r.ok()) << what << ": " << r.error;
    if (*dump) {
      EXPECT_EQ(Dump(r.root), dump) << what;
    }
  }
}

TEST(HostileInputTest, EveryTruncationFailsCleanly) {
  for (auto f : {fixtures::Format::kTypedstreamBigEndian,
                 fixtures::Format::kTypedstreamLittleEndian, fixtures::Format::kKeyed}) {
    std::string bytes = fixtures::WriteTranscript(SmallTranscript(), f);
    auto decode = [&](std::string_view b) {
      return f == fixtures::Format::kKeyed ? DecodeKeyedArchive(b, Skipping())
                                           : DecodeTypedstream(b, Skipping());
    };
    ASSERT_TRUE(decode(bytes).ok()) << decode(bytes).error;
    for (size_t n = 0; n < bytes.size(); ++n) {
      DecodeResult r = decode(std::string_view(bytes).substr(0, n));
      EXPECT_FALSE(r.ok()) << n;
      EXPECT_EQ(r.root, nullptr) << n;
    }
    // Flipping any single byte never crashes (it may or may not decode).
    for (size_t n = 0; n < bytes.size(); ++n) {
      std::string bad = bytes;
      bad[n] = static_cast<char>(bad[n] ^ 0xFF);
      DecodeResult r = decode(bad);
      EXPECT_EQ(r.ok(), r.error.empty());
    }
  }
}

const std::string kHeader = "\x04\x0Bstreamtyped\x81\xE8\x03"s;
// "@" group, a new object of a new class NSArray (object 1) whose superclass
// is NSObject (object 2); then an "i" group.  Strings: "@" 0, NSArray 1,
// NSObject 2, "i" 3.
const std::string kArrayStart =
    "\x84\x01@\x84\x84\x84\x07NSArray\x00\x84\x84\x08NSObject\x00\x85\x84\x01i"s;

std::string Deep(int depth) {
  std::string s = kHeader + kArrayStart + "\x01";
  for (int k = 0; k < depth; ++k) s += "\x92\x84\x93\x95\x01"s;
  s += "\x92\x85";
  s += std::string(static_cast<size_t>(depth) + 1, '\x86');
  return s;
}

TEST(HostileInputTest, TypedstreamDamageIsNamed) {
  const struct {
    const char* what;
    std::string bytes;
    const char* error;  // substring; "" = decodes
    const char* dump;   // when it decodes
  } cases[] = {
      {"old streamer", "\x03\x0Bstreamtyped\x81\xE8\x03\x85"s, "streamer version 3", ""},
      {"bad signature", "\x04\x0Bstreamtypex\x81\xE8\x03\x85"s, "bad signature", ""},
      {"not an object at the top", kHeader + "\x84\x01i\x05", "expected a \"@\" group", ""},
      {"data after the root", kHeader + "\x84\x01@\x85\x00"s, "data after the root", ""},
      {"nil root", kHeader + "\x84\x01@\x85", "", "nil"},
      {"array of itself", kHeader + kArrayStart + "\x01\x92\x92\x86", "", "[nil]"},
      {"dangling reference", kHeader + kArrayStart + "\x01\x92\xA0\x86", "dangling reference", ""},
      {"reference to a class", kHeader + kArrayStart + "\x01\x92\x93\x86",
       "object reference to a class", ""},
      {"huge count", kHeader + kArrayStart + "\x82\xFF\xFF\xFF\x7F\x92\x85\x86",
       "array count exceeds", ""},
      {"negative count", kHeader + kArrayStart + "\xFF\x86", "negative array count", ""},
      {"deep but fine", Deep(50), "", ""},
      {"too deep", Deep(100000), "nested too deeply", ""},
      {"class is its own superclass",
       kHeader + "\x84\x01@\x84\x84\x84\x03"
                 "Foo\x00\x93"s,
       "class chain refers to itself", ""},
      {"unskippable type",
       kHeader + "\x84\x01@\x84\x84\x84\x03"
                 "Foo\x00\x85\x84\x02^i\x00\x86"s,
       "unsupported type code", ""},
      {"unbalanced type",
       kHeader + "\x84\x01@\x84\x84\x84\x03"
                 "Foo\x00\x85\x84\x03[3c\x00\x86"s,
       "unbalanced", ""},
      {"unknown class skipped",
       kHeader + "\x84\x01@\x84\x84\x84\x03"
                 "Foo\x00\x85\x84\x04{ii}\x01\x02\x86"s,
       "", "<Foo>"},
      {"string past the end",
       kHeader + "\x84\x01@\x84\x84\x84\x08NSString\x01\x85\x84\x01+\x7Fhi\x86"s,
       "length exceeds the remaining data", ""},
  };
  for (const auto& c : cases)
    ExpectDecode(DecodeTypedstream(c.bytes), c.what, c.error, "typedstream: ", c.dump);
}

TEST(HostileInputTest, AttributedRunsMustCoverTheText) {
  const struct {
    std::vector<uint32_t> runs;
    const char* error;
  } cases[] = {
      {{2}, ""},
      {{1, 1}, ""},
      {{5}, "runs exceed the text"},
      {{1}, "runs do not cover the text"},
  };
  for (const auto& c : cases) {
    auto s = std::make_shared<AttributedString>();
    s->text = u"ab";
    for (uint32_t len : c.runs) s->runs.push_back({len, std::make_shared<Dictionary>()});
    ExpectDecode(DecodeTypedstream(fixtures::WriteTypedstreamObject(s, true)),
                 "runs " + std::to_string(c.runs.size()), c.error, "typedstream: ");
  }
}

TEST(HostileInputTest, SubstitutedClassesFailOrSkipCleanly) {
  std::string bytes = fixtures::WriteTypedstreamObject(std::make_shared<String>(u"text"), false);
  const struct {
    const char* what;
    std::function<ObjectPtr(Coder&)> factory;
    const char* error;
  } cases[] = {
      {"refuses", [](Coder&) { return ObjectPtr(); }, "NSString could not be decoded"},
      {"reads nothing", [](Coder&) { return std::make_shared<OpaqueObject>(); }, ""},
      {"wrong type",
       [](Coder& c) {
         c.DecodeObject();  // the only group is "+"
         return std::make_shared<OpaqueObject>();
       },
       "expected a \"@\" group"},
      {"reads too much",
       [](Coder& c) {
         EXPECT_FALSE(c.DecodeUnsigned32());
         EXPECT_FALSE(c.DecodeUnsigned32());
         return std::make_shared<OpaqueObject>();
       },
       "expected a \"I\" group"},
  };
  for (const auto& c : cases)
    ExpectDecode(DecodeTypedstream(bytes, {{"NSString", c.factory}}), c.what, c.error,
                 "typedstream: ");
}

// A binary plist from encoded objects; references and offsets one byte
// wide unless asked otherwise.
std::string BPlist(const std::vector<std::string>& objects, uint64_t top, size_t refSize = 1) {
  std::string out = "bplist00";
  std::vector<uint64_t> offsets;
  for (const auto& o : objects) {
    offsets.push_back(out.size());
    out += o;
  }
  uint64_t table = out.size();
  size_t offSize = table < 256 ? 1 : table < 65536 ? 2 : 4;
  for (uint64_t off : offsets) {
    for (size_t k = offSize; k-- > 0;) out += static_cast<char>(off >> (8 * k));
  }
  std::string trailer(6, '\0');
  trailer += static_cast<char>(offSize);
  trailer += static_cast<char>(refSize);
  auto be64 = [&](uint64_t v) {
    for (int k = 7; k >= 0; --k) trailer += static_cast<char>(v >> (8 * k));
  };
  be64(objects.size());
  be64(top);
  be64(table);
  return out + trailer;
}

std::string Array(std::initializer_list<int> refs) {
  std::string s(1, static_cast<char>(0xA0 | refs.size()));
  for (int r : refs) s += static_cast<char>(r);
  return s;
}

// Reads every object reachable from the top, as a consumer walking the
// whole graph would; "" or the reason.
std::string ReadAll(std::string_view bytes) {
  try {
    BinaryPlist p(bytes);
    std::vector<bool> seen(p.size());
    std::vector<uint64_t> todo{p.top()};
    seen[p.top()] = true;
    while (!todo.empty()) {
      uint64_t i = todo.back();
      todo.pop_back();
      BinaryPlist::Value v = p.Object(i);
      v.Utf16();
      if (v.Is(BinaryPlist::Type::kDict)) p.Find(v, "k");
      uint64_t n = v.Is(BinaryPlist::Type::kDict) ? 2 * v.count : v.count;
      if (v.Is(BinaryPlist::Type::kDict) || v.Is(BinaryPlist::Type::kArray)) {
        for (uint64_t k = 0; k < n; ++k) {
          uint64_t ref = p.Ref(v, k);
          if (!seen[ref]) {
            seen[ref] = true;
            todo.push_back(ref);
          }
        }
      }
    }
    return "";
  } catch (const BinaryPlistError& e) {
    return e.what();
  }
}

TEST(HostileInputTest, BinaryPlistReaderChecksBeforeUse) {
  std::vector<std::string> chain;  // object k is an array holding object k+1
  for (int k = 0; k < 100000; ++k) chain.push_back("\xA1\x00\x00\x00"s);
  for (int k = 0; k < 100000; ++k) {
    for (int b = 0; b < 3; ++b) chain[k][1 + b] = static_cast<char>((k + 1) >> (8 * (2 - b)));
  }
  chain.push_back("\x08");
  std::vector<std::string> bomb;  // each level refers twice to the next
  for (int k = 0; k < 60; ++k) bomb.push_back(Array({k + 1, k + 1}));
  bomb.push_back("\x09");
  std::string good = BPlist({Array({1, 1}), "\x51x"}, 0);
  auto patched = [&](size_t fromEnd, std::string bytes) {
    std::string out = good;
    out.replace(out.size() - fromEnd, bytes.size(), bytes);
    return out;
  };
  const struct {
    const char* what;
    std::string bytes;
    const char* error;
  } cases[] = {
      {"fine", good, ""},
      {"self-referencing array", BPlist({Array({0})}, 0), ""},
      {"deep nesting", BPlist(chain, 0, 3), ""},
      {"shared twice at every level", BPlist(bomb, 0), ""},
      {"not a plist", "<plist/>" + good.substr(8), "not a binary property list"},
      {"bplist15", "bplist15" + good.substr(8), "unsupported version"},
      {"too short", "bplist00", "too short"},
      {"trailer cut short", good.substr(0, good.size() - 1), "bad offset size"},
      {"offset size 0", patched(26, "\x00"s), "bad offset size"},
      {"reference size 0", patched(25, "\x00"s), "bad object reference size"},
      {"reference size 9", patched(25, "\x09"), "bad object reference size"},
      {"object count overflow", patched(24, "\x80"), "too many objects"},
      {"no objects", patched(17, "\x00"s), "no objects"},
      {"top object out of range", BPlist({"\x08"}, 1), "top object out of range"},
      {"offset table moved", patched(1, "\x01"), "offset table"},
      {"offset out of range", patched(33, "\x7F"), "offset outside the object table"},
      {"reference out of range", BPlist({Array({5})}, 0), "object reference 5 out of range"},
      {"key not a string", BPlist({"\xD1\x01\x01", "\x10\x01"}, 0),
       "dictionary key is not a string"},
      {"string too long",
       BPlist({"\x5F\x10\x7F"
               "abc"},
              0),
       "runs past the object table"},
      {"UTF-16 count overflows", BPlist({"\x6F\x13\x80\0\0\0\0\0\0\x01"s}, 0),
       "runs past the object table"},
      {"array count overflows", BPlist({"\xAF\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s}, 0),
       "container runs past"},
      {"count of the wrong type", BPlist({"\x5F\x23\0\0\0\0\0\0\0\0"s}, 0), "bad count"},
      {"integer cut short", BPlist({"\x13\x01"}, 0), "bad integer"},
      {"unsupported marker", BPlist({"\x0F"}, 0), "unsupported marker 0x0f"},
  };
  for (const auto& c : cases) {
    std::string err = ReadAll(c.bytes);
    if (*c.error) {
      EXPECT_NE(err.find(c.error), std::string::npos) << c.what << ": " << err;
      EXPECT_FALSE(DecodeKeyedArchive(c.bytes).ok()) << c.what;
    } else {
      EXPECT_EQ(err, "") << c.what;
    }
  }
}

// Keyed archives built node by node.
class KeyedBuilder {
 public:
  KeyedBuilder() : objects_(plist_new_array()) {
    plist_array_append_item(objects_, plist_new_string("$null"));
  }
  uint64_t Add(plist_t node) {
    plist_array_append_item(objects_, node);
    return plist_array_get_size(objects_) - 1;
  }
  uint64_t Class(const char* name) {
    plist_t c = plist_new_dict();
    plist_dict_set_item(c, "$classname", plist_new_string(name));
    return Add(c);
  }
  std::string Bytes(uint64_t root) {
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_t t = plist_new_dict();
    plist_dict_set_item(t, "root", plist_new_uid(root));
    plist_dict_set_item(top, "$top", t);
    plist_dict_set_item(top, "$objects", objects_);
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(top, &bin, &len);
    std::string out(bin, len);
    plist_to_bin_free(bin);
    plist_free(top);
    return out;
  }
  static plist_t Obj(uint64_t cls, std::initializer_list<std::pair<const char*, plist_t>> fields) {
    plist_t d = plist_new_dict();
    for (const auto& [k, v] : fields) plist_dict_set_item(d, k, v);
    plist_dict_set_item(d, "$class", plist_new_uid(cls));
    return d;
  }
  static plist_t Uids(std::initializer_list<uint64_t> uids) {
    plist_t a = plist_new_array();
    for (uint64_t u : uids) plist_array_append_item(a, plist_new_uid(u));
    return a;
  }

 private:
  plist_t objects_;
};

TEST(HostileInputTest, KeyedDamageIsNamed) {
  auto deepArrays = [](int depth) {
    KeyedBuilder b;
    uint64_t cls = b.Class("NSArray");
    uint64_t first = cls + 1;
    for (int k = 0; k < depth; ++k) {
      b.Add(KeyedBuilder::Obj(
          cls, {{"NS.objects", KeyedBuilder::Uids({first + static_cast<uint64_t>(k) + 1})}}));
    }
    b.Add(plist_new_string("leaf"));
    return b.Bytes(first);
  };
  auto runs = [](const std::string& info) {
    KeyedBuilder b;
    uint64_t as = b.Class("NSAttributedString"), arr = b.Class("NSArray"),
             dict = b.Class("NSDictionary");
    uint64_t text = b.Add(plist_new_string("abc"));
    uint64_t d = b.Add(KeyedBuilder::Obj(
        dict, {{"NS.keys", KeyedBuilder::Uids({})}, {"NS.objects", KeyedBuilder::Uids({})}}));
    uint64_t list = b.Add(KeyedBuilder::Obj(arr, {{"NS.objects", KeyedBuilder::Uids({d})}}));
    uint64_t root = b.Add(
        KeyedBuilder::Obj(as, {{"NSString", plist_new_uid(text)},
                               {"NSAttributes", plist_new_uid(list)},
                               {"NSAttributeInfo", plist_new_data(info.data(), info.size())}}));
    return b.Bytes(root);
  };
  // An array of `users` strings that all copy one 1000-character string.
  auto sharedText = [](int users) {
    KeyedBuilder b;
    uint64_t str = b.Class("NSString"), arr = b.Class("NSArray");
    uint64_t text = b.Add(plist_new_string(std::string(1000, 'x').c_str()));
    plist_t list = plist_new_array();
    for (int k = 0; k < users; ++k) {
      plist_array_append_item(
          list, plist_new_uid(b.Add(KeyedBuilder::Obj(str, {{"NS.string", plist_new_uid(text)}}))));
    }
    return b.Bytes(b.Add(KeyedBuilder::Obj(arr, {{"NS.objects", list}})));
  };
  auto nestedXml = [](int depth, const std::string& open) {
    std::string s = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int k = 0; k < depth; ++k) s += open;
    return s;
  };
  auto oneObject = [](std::function<plist_t(KeyedBuilder&)> make) {
    KeyedBuilder b;
    uint64_t root = b.Add(make(b));
    return b.Bytes(root);
  };
  const struct {
    const char* what;
    std::string bytes;
    const char* error;
    const char* dump;
  } cases[] = {
      {"deep but fine", deepArrays(20), "", ""},
      {"too deep", deepArrays(1000), "nested too deeply", ""},
      {"runs fine", runs("\x03\x00"s), "", R"(as("abc" 3{}))"},
      {"run index out of range", runs("\x03\x01"s), "missing attribute dictionary", ""},
      {"runs too long", runs("\x04\x00"s), "runs exceed the text", ""},
      {"runs too short", runs("\x02\x00"s), "runs do not cover", ""},
      {"truncated run info", runs("\x83"), "truncated", ""},
      {"array as object", oneObject([](KeyedBuilder&) { return plist_new_array(); }),
       "unexpected type", ""},
      {"NS.objects not an array", oneObject([](KeyedBuilder& b) {
         return KeyedBuilder::Obj(b.Class("NSArray"), {{"NS.objects", plist_new_string("x")}});
       }),
       "NS.objects is not an array", ""},
      {"keys and values differ", oneObject([](KeyedBuilder& b) {
         return KeyedBuilder::Obj(
             b.Class("NSDictionary"),
             {{"NS.keys", KeyedBuilder::Uids({0})}, {"NS.objects", KeyedBuilder::Uids({})}});
       }),
       "differ in number", ""},
      {"URL without a string",
       oneObject([](KeyedBuilder& b) { return KeyedBuilder::Obj(b.Class("NSURL"), {}); }),
       "URL without a string", ""},
      {"reference beyond $objects", oneObject([](KeyedBuilder& b) {
         return KeyedBuilder::Obj(b.Class("NSArray"), {{"NS.objects", KeyedBuilder::Uids({99})}});
       }),
       "beyond $objects", ""},
      {"text shared a few times", sharedText(10), "", ""},
      {"text shared too often", sharedText(20000), "shared references expand too much", ""},
      // libplist frees what it parsed recursively: deep XML never reaches it.
      {"XML nested too deeply", nestedXml(100, "<array><!-- </array> -->"), "nested too deeply",
       ""},
      {"XML left open", nestedXml(1000000, "<dict><key>k</key>"), "nested too deeply", ""},
  };
  for (const auto& c : cases)
    ExpectDecode(DecodeKeyedArchive(c.bytes), c.what, c.error, "keyed archive: ", c.dump);
}

// The same archive as an XML plist ({CF$UID = n} references) decodes alike.
TEST(HostileInputTest, XmlKeyedArchivesDecodeLikeBinaryOnes) {
  std::string bin = fixtures::WriteTranscript(SmallTranscript(), fixtures::Format::kKeyed);
  PlistPtr p = ParsePlist(bin);
  char* xml = nullptr;
  uint32_t len = 0;
  plist_to_xml(p.get(), &xml, &len);
  std::string text(xml, len);
  plist_to_xml_free(xml);
  DecodeResult a = DecodeKeyedArchive(bin), b = DecodeKeyedArchive(text);
  ASSERT_TRUE(a.ok()) << a.error;
  ASSERT_TRUE(b.ok()) << b.error;
  EXPECT_EQ(Dump(a.root), Dump(b.root));
  EXPECT_FALSE(DecodeKeyedArchive("<plist><dict>").ok());
  EXPECT_FALSE(DecodeKeyedArchive("").ok());
}

// Inputs the fuzzers found: values far outside any real date or colour
// space decode and print without undefined conversions.
TEST(HostileInputTest, FuzzerFindingsStayFixed) {
  std::string hugeDate =
      "\x04\x0Bstreamtyped\x81\xE8\x03\x84\x01@"
      "\x84\x84\x84\x06NSDate\x00\x84\x84\x08NSObject\x00\x85\x84\x01"
      "d\x83\xAA\xF1\x42\x80\xDC\x93\x41\xC4\x86"s;
  DecodeResult r = DecodeTypedstream(hugeDate);
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_FALSE(r.root->Description().empty());
  for (double t : {1e300, -1e300, std::nan("")})
    EXPECT_FALSE(DateObject(Date{t}).Description().empty());

  KeyedBuilder b;
  uint64_t root =
      b.Add(KeyedBuilder::Obj(b.Class("NSColor"), {{"NSColorSpace", plist_new_real(7.3e18)}}));
  DecodeResult c = DecodeKeyedArchive(b.Bytes(root));
  ASSERT_TRUE(c.ok()) << c.error;
  EXPECT_EQ(Dump(c.root), "color0()");
}

}  // namespace
}  // namespace gab
