#include "archive/object.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "platform/text.h"

namespace gab {

namespace {

std::u16string Ascii(std::string_view s) {
  return std::u16string(s.begin(), s.end());
}

// A real in its shortest round-trip form, as NSNumber prints doubles.
std::string RealText(double v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

// Characters that may appear unquoted in an old-style property-list string.
bool IsBareChar(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') ||
         c == u'_' || c == u'$' || c == u'/' || c == u':' || c == u'.' || c == u'-';
}

// Strings inside collection descriptions are quoted unless they are bare
// words, with the old-style property-list escapes.
std::u16string QuotedIfNeeded(const std::u16string& s) {
  if (!s.empty() && std::all_of(s.begin(), s.end(), IsBareChar)) return s;
  std::u16string out = u"\"";
  for (char16_t c : s) {
    switch (c) {
      case u'"':
        out += u"\\\"";
        break;
      case u'\\':
        out += u"\\\\";
        break;
      case u'\n':
        out += u"\\n";
        break;
      case u'\t':
        out += u"\\t";
        break;
      case u'\r':
        out += u"\\r";
        break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\U%04x", static_cast<unsigned>(c));
          out += Ascii(buf);
        } else {
          out += c;
        }
    }
  }
  out += u'"';
  return out;
}

void Indent(std::u16string& out, int level) {
  out.append(static_cast<size_t>(level) * 4, u' ');
}

// Shared subtrees are described at every place they appear, which a
// hostile archive can make exponential; past this many elements the
// description is cut short with "...".
constexpr size_t kDescriptionBudget = 1u << 18;

// Descriptions append to one buffer so that nesting costs no copies.
void DescribeAt(std::u16string& out, const ObjectPtr& o, int level, size_t& budget);
void DescribeAttributed(std::u16string& out, const AttributedString& a, size_t& budget);

void DescribeArray(std::u16string& out, const Array& a, int level, size_t& budget) {
  Indent(out, level);
  out += u"(\n";
  for (size_t i = 0; i < a.items.size(); ++i) {
    Indent(out, level + 1);
    if (budget == 0) {
      out += u"...\n";
      break;
    }
    --budget;
    DescribeAt(out, a.items[i], level + 1, budget);
    if (i + 1 < a.items.size()) out += u',';
    out += u'\n';
  }
  Indent(out, level);
  out += u")";
}

void DescribeDictionary(std::u16string& out, const Dictionary& d, int level, size_t& budget) {
  // Keys are listed in ascending order when they are all strings.
  std::vector<const std::pair<ObjectPtr, ObjectPtr>*> order;
  order.reserve(d.entries.size());
  bool allStrings = true;
  for (const auto& e : d.entries) {
    order.push_back(&e);
    if (!As<String>(e.first)) allStrings = false;
  }
  if (allStrings) {
    std::stable_sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
      return As<String>(a->first)->value < As<String>(b->first)->value;
    });
  }
  Indent(out, level);
  out += u"{\n";
  for (const auto* e : order) {
    Indent(out, level + 1);
    if (budget == 0) {
      out += u"...\n";
      break;
    }
    --budget;
    DescribeAt(out, e->first, level + 1, budget);
    out += u" = ";
    DescribeAt(out, e->second, level + 1, budget);
    out += u";\n";
  }
  Indent(out, level);
  out += u"}";
}

// The description of an element nested `level` deep in a collection.
void DescribeAt(std::u16string& out, const ObjectPtr& o, int level, size_t& budget) {
  if (!o) {
    out += u"<null>";
  } else if (auto s = As<String>(o)) {
    out += QuotedIfNeeded(s->value);
  } else if (auto a = As<Array>(o)) {
    DescribeArray(out, *a, level, budget);
  } else if (auto d = As<Dictionary>(o)) {
    DescribeDictionary(out, *d, level, budget);
  } else if (auto as = As<AttributedString>(o)) {
    std::u16string text;
    DescribeAttributed(text, *as, budget);
    out += QuotedIfNeeded(text);
  } else if (As<Number>(o) || As<Data>(o)) {
    out += o->Description();
  } else {
    // Other objects' descriptions are quoted like strings when they hold
    // anything but bare characters (dates, for instance).
    out += QuotedIfNeeded(o->Description());
  }
}

// Each run's text followed by its attribute dictionary.
void DescribeAttributed(std::u16string& out, const AttributedString& a, size_t& budget) {
  size_t pos = 0;
  for (const auto& run : a.runs) {
    if (budget == 0) {
      out += u"...";
      return;
    }
    --budget;
    size_t start = std::min(pos, a.text.size());
    size_t len = std::min<size_t>(run.length, a.text.size() - start);
    out.append(a.text, start, len);
    if (run.attributes) {
      DescribeDictionary(out, *run.attributes, 0, budget);
    } else {
      out += u"{\n}";
    }
    pos += run.length;
  }
  if (a.runs.empty() && !a.text.empty()) out += a.text + u"{\n}";
}

// --- RFC 3986 reference resolution ---

struct UrlParts {
  std::u16string scheme, authority, path, query, fragment;
  bool hasScheme = false, hasAuthority = false, hasQuery = false, hasFragment = false;
};

UrlParts SplitUrl(std::u16string_view s) {
  UrlParts p;
  // Scheme: ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ) ":"
  size_t colon = s.find(u':');
  if (colon != std::u16string_view::npos && colon > 0) {
    bool ok = (s[0] < 128 && std::isalpha(static_cast<int>(s[0])));
    for (size_t i = 1; ok && i < colon; ++i) {
      char16_t c = s[i];
      ok = c < 128 && (std::isalnum(static_cast<int>(c)) || c == u'+' || c == u'-' || c == u'.');
    }
    if (ok) {
      p.hasScheme = true;
      p.scheme = s.substr(0, colon);
      s.remove_prefix(colon + 1);
    }
  }
  size_t hash = s.find(u'#');
  if (hash != std::u16string_view::npos) {
    p.hasFragment = true;
    p.fragment = s.substr(hash + 1);
    s = s.substr(0, hash);
  }
  size_t q = s.find(u'?');
  if (q != std::u16string_view::npos) {
    p.hasQuery = true;
    p.query = s.substr(q + 1);
    s = s.substr(0, q);
  }
  if (s.size() >= 2 && s[0] == u'/' && s[1] == u'/') {
    p.hasAuthority = true;
    size_t end = s.find(u'/', 2);
    if (end == std::u16string_view::npos) end = s.size();
    p.authority = s.substr(2, end - 2);
    s.remove_prefix(end);
  }
  p.path = s;
  return p;
}

std::u16string RemoveDotSegments(std::u16string_view in) {
  std::u16string out;
  while (!in.empty()) {
    if (in.starts_with(u"../")) {
      in.remove_prefix(3);
    } else if (in.starts_with(u"./")) {
      in.remove_prefix(2);
    } else if (in.starts_with(u"/./")) {
      in.remove_prefix(2);
    } else if (in == u"/.") {
      in = u"/";
    } else if (in.starts_with(u"/../") || in == u"/..") {
      in = in.size() == 3 ? std::u16string_view(u"/") : in.substr(3);
      size_t cut = out.rfind(u'/');
      out.erase(cut == std::u16string::npos ? 0 : cut);
    } else if (in == u"." || in == u"..") {
      in = {};
    } else {
      size_t start = in[0] == u'/' ? 1 : 0;
      size_t next = in.find(u'/', start);
      if (next == std::u16string_view::npos) next = in.size();
      out.append(in.substr(0, next));
      in.remove_prefix(next);
    }
  }
  return out;
}

std::u16string JoinUrl(const UrlParts& p) {
  std::u16string out;
  if (p.hasScheme) out += p.scheme + u":";
  if (p.hasAuthority) out += u"//" + p.authority;
  out += p.path;
  if (p.hasQuery) out += u"?" + p.query;
  if (p.hasFragment) out += u"#" + p.fragment;
  return out;
}

std::u16string ResolveUrl(std::u16string_view baseText, std::u16string_view refText) {
  UrlParts base = SplitUrl(baseText);
  UrlParts r = SplitUrl(refText);
  UrlParts t;
  if (r.hasScheme) {
    t = r;
    t.path = RemoveDotSegments(r.path);
  } else {
    if (r.hasAuthority) {
      t.hasAuthority = true;
      t.authority = r.authority;
      t.path = RemoveDotSegments(r.path);
      t.hasQuery = r.hasQuery;
      t.query = r.query;
    } else {
      if (r.path.empty()) {
        t.path = base.path;
        t.hasQuery = r.hasQuery || base.hasQuery;
        t.query = r.hasQuery ? r.query : base.query;
      } else {
        if (r.path[0] == u'/') {
          t.path = RemoveDotSegments(r.path);
        } else {
          std::u16string merged;
          if (base.hasAuthority && base.path.empty()) {
            merged = u"/" + r.path;
          } else {
            size_t slash = base.path.rfind(u'/');
            merged = (slash == std::u16string::npos ? std::u16string()
                                                    : base.path.substr(0, slash + 1)) +
                     r.path;
          }
          t.path = RemoveDotSegments(merged);
        }
        t.hasQuery = r.hasQuery;
        t.query = r.query;
      }
      t.hasAuthority = base.hasAuthority;
      t.authority = base.authority;
    }
    t.hasScheme = base.hasScheme;
    t.scheme = base.scheme;
  }
  t.hasFragment = r.hasFragment;
  t.fragment = r.fragment;
  return JoinUrl(t);
}

}  // namespace

std::u16string Object::Description() const {
  return u"<" + Ascii(ClassName()) + u">";
}

// --- Number ---

std::shared_ptr<Number> Number::Integer(int64_t v) {
  auto n = std::make_shared<Number>();
  n->type = Type::kInteger;
  n->i = v;
  n->d = static_cast<double>(v);
  return n;
}

std::shared_ptr<Number> Number::Real(double v) {
  auto n = std::make_shared<Number>();
  n->type = Type::kReal;
  n->d = v;
  return n;
}

std::shared_ptr<Number> Number::Bool(bool v) {
  auto n = std::make_shared<Number>();
  n->type = Type::kBool;
  n->i = v ? 1 : 0;
  n->d = v ? 1 : 0;
  return n;
}

int64_t Number::IntegerValue() const {
  if (type != Type::kReal) return i;
  // Truncate toward zero, saturating where the value does not fit.
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
  if (d <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

double Number::DoubleValue() const {
  return type == Type::kReal ? d : static_cast<double>(i);
}

std::u16string Number::Description() const {
  if (type == Type::kReal) return Ascii(RealText(d));
  return Ascii(std::to_string(i));
}

// --- Date, Data ---

std::u16string DateObject::Description() const {
  return Ascii(DefaultDescription(date));
}

std::u16string Data::Description() const {
  static const char kHex[] = "0123456789abcdef";
  std::u16string out = u"<";
  for (size_t k = 0; k < bytes.size(); ++k) {
    if (k > 0 && k % 4 == 0) out += u' ';
    auto b = static_cast<unsigned char>(bytes[k]);
    out += static_cast<char16_t>(kHex[b >> 4]);
    out += static_cast<char16_t>(kHex[b & 15]);
  }
  return out + u">";
}

// --- Collections ---

std::u16string Array::Description() const {
  size_t budget = kDescriptionBudget;
  std::u16string out;
  DescribeArray(out, *this, 0, budget);
  return out;
}

std::u16string Dictionary::Description() const {
  size_t budget = kDescriptionBudget;
  std::u16string out;
  DescribeDictionary(out, *this, 0, budget);
  return out;
}

ObjectPtr Dictionary::Get(std::u16string_view key) const {
  for (const auto& [k, v] : entries) {
    auto* s = dynamic_cast<const String*>(k.get());
    if (s && s->value == key) return v;
  }
  return nullptr;
}

// --- URL ---

std::u16string URL::AbsoluteString() const {
  if (!base) return relative;
  // A chain of bases is bounded by the decoder (no cycles: a URL under
  // construction cannot be its own base).
  return ResolveUrl(base->AbsoluteString(), relative);
}

// --- Font, Color ---

std::u16string Font::Description() const {
  char size[32];
  std::snprintf(size, sizeof size, " %.2f pt.", pointSize);
  return name + Ascii(size);
}

bool Color::ToDeviceRGB(double& r, double& g, double& b) const {
  switch (space) {
    case kCalibratedRGB:
    case kDeviceRGB:
      if (components.size() < 3) return false;
      r = components[0];
      g = components[1];
      b = components[2];
      return true;
    case kCalibratedWhite:
    case kDeviceWhite:
      if (components.empty()) return false;
      r = g = b = components[0];
      return true;
    case kNamed: {
      // Named colours convert through their equivalent; a chain of named
      // colours is walked iteratively and bounded.
      const Color* c = equivalent.get();
      for (int hops = 0; c && hops < 16; ++hops) {
        if (c->space != kNamed) return c->ToDeviceRGB(r, g, b);
        c = c->equivalent.get();
      }
      return false;
    }
    default:
      return false;
  }
}

std::u16string Color::Description() const {
  const char* spaceName = "NSColorSpace";
  switch (space) {
    case kCalibratedRGB:
      spaceName = "NSCalibratedRGBColorSpace";
      break;
    case kDeviceRGB:
      spaceName = "NSDeviceRGBColorSpace";
      break;
    case kCalibratedWhite:
      spaceName = "NSCalibratedWhiteColorSpace";
      break;
    case kDeviceWhite:
      spaceName = "NSDeviceWhiteColorSpace";
      break;
    case kDeviceCMYK:
      spaceName = "NSDeviceCMYKColorSpace";
      break;
    case kNamed:
      return u"NSNamedColorSpace " + catalogName + u" " + colorName;
    case kPattern:
      spaceName = "NSPatternColorSpace";
      break;
  }
  std::u16string out = Ascii(spaceName);
  for (double c : components) out += u" " + Ascii(RealText(c));
  return out;
}

// --- FileWrapper ---

std::u16string FileWrapper::Description() const {
  std::u16string out = u"<NSFileWrapper";
  if (preferredFilename) out += u" " + *preferredFilename;
  if (regular) out += u" (" + Ascii(std::to_string(contents.size())) + u" bytes)";
  return out + u">";
}

// --- AttributedString ---

std::u16string AttributedString::Description() const {
  size_t budget = kDescriptionBudget;
  std::u16string out;
  DescribeAttributed(out, *this, budget);
  return out;
}

const AttributedString::Run* AttributedString::RunAt(size_t index, size_t* runStart) const {
  size_t start = 0;
  for (const Run& run : runs) {
    if (index < start + run.length) {
      if (runStart) *runStart = start;
      return &run;
    }
    start += run.length;
  }
  return nullptr;
}

ObjectPtr AttributedString::AttributeAt(size_t index, std::u16string_view key) const {
  const Run* run = RunAt(index, nullptr);
  if (!run || !run->attributes) return nullptr;
  return run->attributes->Get(key);
}

void AttributedString::Append(std::u16string_view more, std::shared_ptr<Dictionary> attributes) {
  if (more.empty()) return;
  text.append(more);
  auto len = static_cast<uint32_t>(more.size());
  if (!runs.empty() && runs.back().attributes == attributes &&
      runs.back().length <= std::numeric_limits<uint32_t>::max() - len) {
    runs.back().length += len;
  } else {
    runs.push_back(Run{len, std::move(attributes)});
  }
}

void AttributedString::Append(const AttributedString& other) {
  // Copy first: `other` may be this very string.
  const std::u16string otherText = other.text;
  const std::vector<Run> otherRuns = other.runs;
  size_t pos = 0;
  for (const Run& run : otherRuns) {
    if (pos >= otherText.size()) break;
    size_t len = std::min<size_t>(run.length, otherText.size() - pos);
    Append(std::u16string_view(otherText).substr(pos, len), run.attributes);
    pos += len;
  }
  if (pos < otherText.size()) Append(std::u16string_view(otherText).substr(pos), nullptr);
}

}  // namespace gab
