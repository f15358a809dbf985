#include "archive/tests/archive_test_util.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/text.h"

namespace gab::testing {

std::string CorpusDir() {
  const char* env = std::getenv("GABFOLIO_CORPUS");
  std::string dir = env ? env : GABFOLIO_SOURCE_DIR "/../shared/corpus";
  return std::filesystem::is_directory(dir) ? dir : std::string();
}

std::optional<std::string> ReadCorpusFile(const std::string& relative) {
  std::string dir = CorpusDir();
  if (dir.empty()) return std::nullopt;
  std::ifstream in(dir + "/" + relative, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

namespace {

std::string Real(double d) {
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, d);
  return std::string(buf, r.ptr);
}

std::string Hex(const std::string& b) {
  static const char k[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : b) {
    out += k[c >> 4];
    out += k[c & 15];
  }
  return out;
}

}  // namespace

std::string Dump(const ObjectPtr& o) {
  if (!o) return "nil";
  if (auto s = As<String>(o))
    return std::string(s->mutable_ ? "m" : "") + "s\"" + ToUtf8(s->value) + "\"";
  if (auto n = As<Number>(o)) {
    switch (n->type) {
      case Number::Type::kBool:
        return "b" + std::to_string(n->i);
      case Number::Type::kInteger:
        return "i" + std::to_string(n->i);
      case Number::Type::kReal:
        return "r" + Real(n->d);
    }
  }
  if (auto d = As<DateObject>(o)) return "date" + Real(d->date.time);
  if (auto d = As<Data>(o)) return std::string(d->mutable_ ? "m" : "") + "data:" + Hex(d->bytes);
  if (auto a = As<Array>(o)) {
    std::string out = a->mutable_ ? "m[" : "[";
    for (size_t k = 0; k < a->items.size(); ++k) out += (k ? ", " : "") + Dump(a->items[k]);
    return out + "]";
  }
  if (auto d = As<Dictionary>(o)) {
    std::string out = d->mutable_ ? "m{" : "{";
    for (size_t k = 0; k < d->entries.size(); ++k) {
      out += (k ? ", " : "") + Dump(d->entries[k].first) + ": " + Dump(d->entries[k].second);
    }
    return out + "}";
  }
  if (auto u = As<URL>(o)) {
    return "url(" + ToUtf8(u->relative) + (u->base ? " base " + Dump(u->base) : "") + ")";
  }
  if (auto a = As<AttributedString>(o)) {
    std::string out = std::string(a->mutable_ ? "mas(" : "as(") + "\"" + ToUtf8(a->text) + "\"";
    for (const auto& r : a->runs) out += " " + std::to_string(r.length) + Dump(r.attributes);
    return out + ")";
  }
  if (auto f = As<Font>(o)) return "font(" + ToUtf8(f->name) + " " + Real(f->pointSize) + ")";
  if (auto c = As<Color>(o)) {
    std::string out = "color" + std::to_string(c->space) + "(";
    for (size_t k = 0; k < c->components.size(); ++k)
      out += (k ? " " : "") + Real(c->components[k]);
    if (c->space == Color::kNamed) {
      out += ToUtf8(c->catalogName) + "/" + ToUtf8(c->colorName) + " = " + Dump(c->equivalent);
    }
    return out + ")";
  }
  if (auto t = As<TextAttachment>(o)) return "attachment(" + Dump(t->fileWrapper) + ")";
  if (auto w = As<FileWrapper>(o)) {
    std::string out = "wrapper(";
    if (w->preferredFilename) out += ToUtf8(*w->preferredFilename);
    if (w->regular) out += " data:" + Hex(w->contents);
    for (const auto& [name, child] : w->children) out += " " + ToUtf8(name) + "=" + Dump(child);
    return out + ")";
  }
  return "<" + o->ClassName() + ">";
}

}  // namespace gab::testing
