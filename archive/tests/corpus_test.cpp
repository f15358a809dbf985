#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "archive/keyed.h"
#include "archive/tests/archive_test_util.h"
#include "archive/typedstream.h"
#include "platform/text.h"

// Decoding Apple-written archives from the shared corpus: every value the
// corpus notes list must come out exactly.

namespace gab {
namespace {

using testing::Dump;

DecodeResult DecodeAny(const std::string& bytes) {
  return bytes.starts_with("bplist") ? DecodeKeyedArchive(bytes) : DecodeTypedstream(bytes);
}

struct Expected {
  const char* file;
  const char* dump;  // or "ERROR " + the error text
};

// Foundation objects NSArchiver and NSKeyedArchiver wrote from known values.
const Expected kKnownValues[] = {
    {"typedstream/crabstep/foundation/NestedContainers",
     R"([[i1, i2], m[i3], [], {s"k": i9}, m{s"mk": i8}, <NSSet>, <NSMutableSet>])"},
    {"typedstream/crabstep/foundation/NestedData", R"([data:0102, mdata:030405])"},
    {"typedstream/crabstep/foundation/NestedScalars",
     R"([date21692800, url(https://example.com/path?q=1), url(page.html base url(https://example.com/dir/)), <NSNull>])"},
    {"typedstream/crabstep/foundation/NestedStrings", R"([s"imm", ms"mut"])"},
    {"typedstream/crabstep/foundation/NumberBool", R"(i1)"},
    {"typedstream/crabstep/foundation/NumberDouble", R"(r100.5)"},
    {"typedstream/crabstep/foundation/NumberInt64", R"(i-9000000000)"},
    {"typedstream/crabstep/ExtraData",
     "ERROR typedstream: length exceeds the remaining data at byte 124"},
    {"keyedarchive/nskeyedunarchiver-rs/NSMutableAttributedString.plist",
     R"(mas("firstsecondthird" 5{s"NSColor": color1(0.9859541655 0 0.02694000863)} 11{}))"},
    {"keyedarchive/nskeyedunarchiver-rs/circularReference.plist", R"(m[nil])"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/invalidContainer.bin.plist",
     R"(ERROR keyed archive: $top is missing or not a dictionary)"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/"
     "invalidObjectDeclarationContainer.bin.plist",
     R"(ERROR keyed archive: $class does not refer to a class record)"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/invalidReference.bin.plist",
     R"(ERROR keyed archive: reference 5 beyond $objects)"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/missingRoot.bin.plist",
     R"(ERROR keyed archive: $top has no "root")"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/objectWithNoClassName.bin.plist",
     R"(ERROR keyed archive: class record without a string $classname)"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/objectWithNonArrayClassChain.bin.plist",
     R"(ERROR keyed archive: $classes is not an array)"},
    {"keyedarchive/kiler129-NSKeyedUnarchiver/BrokenData/objectWithNonStringClassName.bin.plist",
     R"(ERROR keyed archive: class record without a string $classname)"},
};

TEST(CorpusTest, KnownValuesDecodeExactly) {
  if (testing::CorpusDir().empty()) GTEST_SKIP() << "shared corpus absent";
  for (const Expected& e : kKnownValues) {
    auto bytes = testing::ReadCorpusFile(std::string("real/") + e.file);
    ASSERT_TRUE(bytes) << e.file;
    DecodeResult r = DecodeAny(*bytes);
    std::string got = r.ok() ? Dump(r.root) : "ERROR " + r.error;
    EXPECT_EQ(got, e.dump) << e.file;
  }
}

// Attributed strings from the Messages database: the text and the set of
// attribute names the corpus notes list.
struct MessageBlob {
  const char* file;
  bool isMutable;
  const char* text;
  bool textIsPrefix;
  const char* keys;  // comma-separated, sorted
};

const MessageBlob kMessageBlobs[] = {
    {"35123", true, "0123456789\nBold Italics Underline Strikethrough  Big Sma", true,
     "__kIMBaseWritingDirectionAttributeName,__kIMLinkAttributeName,__kIMMessagePartAttributeName,_"
     "_kIMPhoneNumberAttributeName,__kIMTextBoldAttributeName,__kIMTextEffectAttributeName,__"
     "kIMTextItalicAttributeName,__kIMTextStrikethroughAttributeName,__"
     "kIMTextUnderlineAttributeName"},
    {"Attachment", true, "\uFFFCThis is how the notes look to me fyi, in case it ", true,
     "__kIMBaseWritingDirectionAttributeName,__kIMFileTransferGUIDAttributeName,__"
     "kIMFilenameAttributeName,__kIMInlineMediaHeightAttributeName,__"
     "kIMInlineMediaWidthAttributeName,__kIMMessagePartAttributeName"},
    {"WeirdText", true, "𝖍𝖊𝖑𝖑𝖔 𝖜𝖔𝖗𝖑𝖉", false, "__kIMMessagePartAttributeName"},
};

std::string KeysOf(const AttributedString& s) {
  std::set<std::string> keys;
  for (const auto& run : s.runs) {
    if (!run.attributes) continue;
    for (const auto& [k, v] : run.attributes->entries) keys.insert(ToUtf8(As<String>(k)->value));
  }
  std::string out;
  for (const auto& k : keys) out += (out.empty() ? "" : ",") + k;
  return out;
}

TEST(CorpusTest, MessageBodiesKeepTextAndAttributes) {
  if (testing::CorpusDir().empty()) GTEST_SKIP() << "shared corpus absent";
  for (const MessageBlob& m : kMessageBlobs) {
    std::string file = std::string("real/typedstream/crabstep/") + m.file;
    auto bytes = testing::ReadCorpusFile(file);
    ASSERT_TRUE(bytes) << file;
    DecodeResult r = DecodeTypedstream(*bytes);
    ASSERT_TRUE(r.ok()) << file << ": " << r.error;
    auto s = As<AttributedString>(r.root);
    ASSERT_TRUE(s) << file;
    EXPECT_EQ(s->mutable_, m.isMutable) << file;
    std::string text = ToUtf8(s->text);
    if (m.textIsPrefix) {
      EXPECT_TRUE(text.starts_with(m.text)) << file << ": " << text;
    } else {
      EXPECT_EQ(text, m.text) << file;
    }
    EXPECT_EQ(KeysOf(*s), m.keys) << file;
    size_t total = 0;
    for (const auto& run : s->runs) total += run.length;
    EXPECT_EQ(total, s->text.size()) << file;
  }
}

// Link values are NSURL objects whose absolute string is the link.
TEST(CorpusTest, LinkAttributesAreUrls) {
  const struct {
    const char* file;
    size_t at;
    const char16_t* url;
  } cases[] = {
      {"URL", 0, u"https://github.com/ReagentX/Logria"},
      {"0123456789", 0, u"tel:0123456789"},
  };
  for (const auto& c : cases) {
    GAB_CORPUS_OR_SKIP(bytes, std::string("real/typedstream/crabstep/") + c.file);
    DecodeResult r = DecodeTypedstream(bytes);
    auto s = As<AttributedString>(r.root);
    ASSERT_TRUE(s) << c.file << r.error;
    auto url = As<URL>(s->AttributeAt(c.at, u"__kIMLinkAttributeName"));
    ASSERT_TRUE(url) << c.file;
    EXPECT_EQ(url->AbsoluteString(), c.url) << c.file;
  }
}

// Grapher documents: hundreds of unknown classes skipped without losing
// sync.  A substituted class reads its first object (an NSFont) through the
// sequential coder and leaves the rest to be skipped.
TEST(CorpusTest, GrapherDocumentsSkipUnknownClasses) {
  const struct {
    const char* file;
    const char* digits;
    const char* fonts;
  } cases[] = {{"Empty2D macOS 13.gcx", "i4", "font(Helvetica 12);font(Times-Roman 18);"}};
  for (const auto& c : cases) {
    GAB_CORPUS_OR_SKIP(bytes, std::string("real/typedstream/python-typedstream/") + c.file);
    std::vector<ObjectPtr> fonts;
    ClassSubstitutions subs;
    subs["CPColoredFont"] = [&](Coder& coder) -> ObjectPtr {
      EXPECT_FALSE(coder.AllowsKeyedCoding());
      fonts.push_back(coder.DecodeObject());
      return std::make_shared<OpaqueObject>();
    };
    DecodeResult r = DecodeTypedstream(bytes, subs);
    ASSERT_TRUE(r.ok()) << c.file << ": " << r.error;
    auto root = As<Dictionary>(r.root);
    ASSERT_TRUE(root) << c.file;
    EXPECT_TRUE(root->mutable_);
    EXPECT_TRUE(As<OpaqueObject>(root->Get(u"DefinitionTree"))) << c.file;
    auto settings = As<Dictionary>(root->Get(u"Settings"));
    ASSERT_TRUE(settings) << c.file;
    EXPECT_EQ(Dump(settings->Get(u"DefaultNumberDigits")), c.digits) << c.file;
    EXPECT_EQ(Dump(settings->Get(u"NSDecimalSeparator")), "s\",\"") << c.file;
    ASSERT_FALSE(fonts.empty()) << c.file;
    std::set<std::string> seen;
    for (const auto& f : fonts) seen.insert(Dump(f));
    EXPECT_EQ(Dump(fonts.front()), "font(Times-Roman 18)") << c.file;
    std::string all;
    for (const auto& f : seen) all += f + ";";
    EXPECT_EQ(all, c.fonts) << c.file;
  }
}

TEST(CorpusTest, HugeArchiveWithBackReferences) {
  GAB_CORPUS_OR_SKIP(bytes, "real/typedstream/crabstep/HugeWithRefs");
  DecodeResult r = DecodeTypedstream(bytes);
  ASSERT_TRUE(r.ok()) << r.error;
  auto root = As<Array>(r.root);
  ASSERT_TRUE(root);
  ASSERT_FALSE(root->items.empty());
  for (const auto& item : root->items) ASSERT_TRUE(item);
}

// A colour list holds many top-level groups: an int, (nil, count), then
// (NSColor, NSString) pairs.
TEST(CorpusTest, ColourListReadsAsTopLevelValues) {
  GAB_CORPUS_OR_SKIP(bytes, "real/typedstream/python-typedstream/Emacs.clr");
  EXPECT_FALSE(DecodeTypedstream(bytes).ok());  // not a single root object
  TypedstreamValues v = DecodeTypedstreamValues(bytes);
  ASSERT_TRUE(v.ok()) << v.error;
  ASSERT_EQ(v.values.size(), 3u + 2 * 752);
  EXPECT_EQ(Dump(v.values[0]), "i1");
  EXPECT_EQ(v.values[1], nullptr);
  EXPECT_EQ(Dump(v.values[2]), "i752");
  auto first = As<Color>(v.values[3]);
  ASSERT_TRUE(first);
  EXPECT_EQ(Dump(v.values[4]), "s\"LightGreen\"");
  double r = 0, g = 0, b = 0;
  ASSERT_TRUE(first->ToDeviceRGB(r, g, b));
  EXPECT_NEAR(r, 144 / 255.0, 1e-6);
  EXPECT_NEAR(g, 238 / 255.0, 1e-6);
  EXPECT_NEAR(b, 144 / 255.0, 1e-6);
  for (size_t k = 3; k < v.values.size(); k += 2) {
    ASSERT_TRUE(As<Color>(v.values[k])) << k;
    ASSERT_TRUE(As<String>(v.values[k + 1])) << k;
  }
}

// Keyed archives: one archived object is one C++ object.
TEST(CorpusTest, SharedReferencesKeepIdentity) {
  GAB_CORPUS_OR_SKIP(
      bytes, "real/keyedarchive/kiler129-NSKeyedUnarchiver/ArchivedData/reference.bin.plist");
  DecodeResult r = DecodeKeyedArchive(bytes);
  auto d = As<Dictionary>(r.root);
  ASSERT_TRUE(d) << r.error;
  ASSERT_TRUE(d->Get(u"copyOne"));
  EXPECT_EQ(d->Get(u"copyOne"), d->Get(u"copyTwo"));
}

// Substituted classes read their fields through the keyed coder; a private
// subclass decodes as the first known class of its $classes.
TEST(CorpusTest, SubstitutedClassesReadTheirKeys) {
  struct Fields : Object {
    std::string ClassName() const override { return "Fields"; }
    std::vector<ObjectPtr> values;
  };
  const struct {
    const char* file;
    const char* className;
    std::vector<const char*> keys;
    const char* want;
  } cases[] = {
      {"scalarTypes.bin.plist",
       "TestDummy",
       {"typeInt", "typeString", "typeBool", "data", "typeFloat", "absent"},
       R"(i42 s"foo bar" b1 data:666f6f626172 r3.14 nil)"},
      {"emptyObjectExtended.bin.plist", "generate_reference_data.TestDummy", {"x"}, "nil"},
  };
  for (const auto& c : cases) {
    GAB_CORPUS_OR_SKIP(
        bytes, std::string("real/keyedarchive/kiler129-NSKeyedUnarchiver/ArchivedData/") + c.file);
    ClassSubstitutions subs;
    subs[c.className] = [&](Coder& coder) -> ObjectPtr {
      EXPECT_TRUE(coder.AllowsKeyedCoding());
      auto f = std::make_shared<Fields>();
      for (const char* k : c.keys) f->values.push_back(coder.DecodeObjectForKey(k));
      return f;
    };
    DecodeResult r = DecodeKeyedArchive(bytes, subs);
    ASSERT_TRUE(r.ok()) << c.file << ": " << r.error;
    auto f = std::dynamic_pointer_cast<Fields>(r.root);
    ASSERT_TRUE(f) << c.file;
    std::string got;
    for (const auto& v : f->values) got += (got.empty() ? "" : " ") + Dump(v);
    EXPECT_EQ(got, c.want) << c.file;
  }
}

}  // namespace
}  // namespace gab
