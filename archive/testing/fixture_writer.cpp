#include "archive/testing/fixture_writer.h"

#include <cstring>
#include <map>

#include "archive/testing/fixture_parts.h"
#include "platform/text.h"

namespace gab::fixtures {

namespace {

void Word(std::string& out, uint32_t v) {
  for (int k = 0; k < 4; ++k) out += static_cast<char>((v >> (8 * k)) & 0xFF);
}

std::string EightBit(const std::u16string& s) {
  std::string out;
  for (char16_t c : s) out += c < 0x100 ? static_cast<char>(c) : '?';
  return out;
}

}  // namespace

std::string SerializeRegularFile(const std::u16string& fileName, const std::string& contents,
                                 bool withUtf8Name) {
  std::vector<std::pair<std::string, std::string>> entries;
  entries.emplace_back("..", contents);
  entries.emplace_back("__@PreferredName@__", EightBit(fileName));
  if (withUtf8Name) entries.emplace_back("__@UTF8PreferredName@__", ToUtf8(fileName));
  entries.emplace_back(".", std::string(4, '\0'));
  std::string out = "rtfd";
  Word(out, 0);
  Word(out, 3);
  Word(out, static_cast<uint32_t>(entries.size()));
  for (const auto& [name, data] : entries) {
    Word(out, static_cast<uint32_t>(name.size()));
    out += name;
  }
  for (const auto& [name, data] : entries) Word(out, static_cast<uint32_t>(8 + data.size()));
  for (const auto& [name, data] : entries) {
    Word(out, 1);
    Word(out, static_cast<uint32_t>(data.size()));
    out += data;
  }
  return out;
}

std::string SerializeNeXTString(const std::u16string& s, bool bigEndianText) {
  std::string out;
  Word(out, 6);
  Word(out, static_cast<uint32_t>(2 + 2 * s.size()));
  auto unit = [&](char16_t c) {
    char hi = static_cast<char>(c >> 8), lo = static_cast<char>(c & 0xFF);
    out += bigEndianText ? hi : lo;
    out += bigEndianText ? lo : hi;
  };
  unit(0xFEFF);
  for (char16_t c : s) unit(c);
  while (out.size() % 4) out += '\0';
  return out;
}

// --- what the two writers share ---

std::string RunSignature(const TextRun& r) {
  if (r.attachment) return {};  // every attachment is its own object
  std::string sig;
  if (r.fontName) sig += "f" + ToUtf8(*r.fontName) + "/" + std::to_string(r.fontSize);
  if (r.rgb)
    sig += "c" + std::to_string((*r.rgb)[0]) + "," + std::to_string((*r.rgb)[1]) + "," +
           std::to_string((*r.rgb)[2]);
  if (r.white) sig += "w" + std::to_string(*r.white);
  if (r.link) {
    sig += "l" + std::string(r.link->asURL ? "u" : "s") + ToUtf8(r.link->target);
    if (r.link->base) sig += "|" + ToUtf8(*r.link->base);
  }
  return sig.empty() ? std::string("-") : sig;
}

std::vector<PlannedRun> PlanRuns(const Message& m, std::u16string& text, size_t& dictCount) {
  std::vector<PlannedRun> out;
  std::map<std::string, size_t> seen;
  dictCount = 0;
  for (const TextRun& r : m.runs) {
    std::u16string piece = r.attachment && r.text.empty() ? std::u16string(1, u'\uFFFC') : r.text;
    if (piece.empty()) continue;
    std::string sig = RunSignature(r);
    // Adjacent runs with the same attributes are one run.
    if (!out.empty() && !sig.empty() && RunSignature(*out.back().run) == sig) {
      out.back().length += static_cast<uint32_t>(piece.size());
      text += piece;
      continue;
    }
    size_t index;
    bool fresh = true;
    if (!sig.empty()) {
      if (auto it = seen.find(sig); it != seen.end()) {
        index = it->second;
        fresh = false;
      } else {
        index = dictCount++;
        seen[sig] = index;
      }
    } else {
      index = dictCount++;
    }
    out.push_back(PlannedRun{&r, static_cast<uint32_t>(piece.size()), index, fresh});
    text += piece;
  }
  return out;
}

std::u16string PlainText(const Message& m) {
  std::u16string text;
  for (const TextRun& r : m.runs) text += r.text;
  return text;
}

std::string ComponentText(const std::vector<double>& values) {
  std::string out;
  for (double v : values) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.10g", v);
    if (!out.empty()) out += ' ';
    out += buf;
  }
  out += '\0';
  return out;
}

std::vector<Speaker> UniqueSpeakers(const Transcript& t) {
  std::vector<Speaker> out;
  auto add = [&](const Speaker& s) {
    for (const auto& o : out) {
      if (o == s) return;
    }
    out.push_back(s);
  };
  for (const auto& m : t.messages) {
    if (m.speaker) add(*m.speaker);
  }
  for (const auto& p : t.participants) add(p);
  return out;
}

std::string WriteTranscript(const Transcript& t, Format format) {
  switch (format) {
    case Format::kTypedstreamBigEndian:
      return WriteTypedstreamTranscript(t, true);
    case Format::kTypedstreamLittleEndian:
      return WriteTypedstreamTranscript(t, false);
    case Format::kKeyed:
      return WriteKeyedTranscript(t);
  }
  return {};
}

}  // namespace gab::fixtures
