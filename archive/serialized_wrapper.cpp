#include "archive/serialized_wrapper.h"

#include <cstdint>
#include <vector>

#include "platform/text.h"

namespace gab {

namespace {

// Little-endian uint32 words, whatever the byte order of the archive around.
class Words {
 public:
  explicit Words(std::string_view b) : b_(b) {}
  bool Read(uint32_t& v) {
    if (b_.size() - pos_ < 4) return false;
    auto u = [&](size_t k) {
      return static_cast<uint32_t>(static_cast<unsigned char>(b_[pos_ + k]));
    };
    v = u(0) | u(1) << 8 | u(2) << 16 | u(3) << 24;
    pos_ += 4;
    return true;
  }
  bool Take(size_t n, std::string_view& out) {
    if (b_.size() - pos_ < n) return false;
    out = b_.substr(pos_, n);
    pos_ += n;
    return true;
  }
  size_t Remaining() const { return b_.size() - pos_; }
  size_t pos() const { return pos_; }

 private:
  std::string_view b_;
  size_t pos_ = 0;
};

// The NeXTSTEP 8-bit encoding agrees with ASCII; its upper half is mapped
// as Latin-1, which keeps every byte and is right for the common letters.
std::u16string FromEightBit(std::string_view s) {
  std::u16string out;
  out.reserve(s.size());
  for (char c : s) out += static_cast<char16_t>(static_cast<unsigned char>(c));
  return out;
}

constexpr uint32_t kBytesBlock = 1;
constexpr uint32_t kDirectoryBlock = 3;
constexpr uint32_t kPaddedLength = 0x80000000u;
constexpr int kMaxNesting = 32;

struct Entry {
  std::string_view name;
  std::string_view block;  // type word included
};

// A directory body: count, names, sizes, blocks; the blocks fill it exactly.
bool ReadDirectory(std::string_view body, std::vector<Entry>& entries) {
  Words w(body);
  uint32_t n;
  if (!w.Read(n)) return false;
  // Every entry needs at least a name length, a size and a type word.
  if (n > w.Remaining() / 12) return false;
  entries.resize(n);
  for (auto& e : entries) {
    uint32_t len;
    if (!w.Read(len) || !w.Take(len, e.name)) return false;
  }
  std::vector<uint32_t> sizes(n);
  uint64_t total = 0;
  for (auto& s : sizes) {
    if (!w.Read(s)) return false;
    total += s;
  }
  if (total != w.Remaining()) return false;
  for (uint32_t k = 0; k < n; ++k) {
    if (sizes[k] < 4 || !w.Take(sizes[k], entries[k].block)) return false;
  }
  return true;
}

// A bytes block's data: plain or in the padded form that aligns large
// contents; either way it ends exactly at the end of the block.
bool ReadBytesBlock(std::string_view block, std::string_view& data) {
  Words w(block.substr(4));
  uint32_t len;
  if (!w.Read(len)) return false;
  if (len == kPaddedLength) {
    uint32_t realLen, pad;
    std::string_view skip;
    if (!w.Read(realLen) || !w.Read(pad) || !w.Take(pad, skip)) return false;
    len = realLen;
  }
  if (w.Remaining() != len) return false;
  return w.Take(len, data);
}

uint32_t BlockType(std::string_view block) {
  Words w(block);
  uint32_t t = 0;
  w.Read(t);
  return t;
}

std::shared_ptr<FileWrapper> ReadWrapper(std::string_view dirBody, int depth) {
  if (depth > kMaxNesting) return nullptr;
  std::vector<Entry> entries;
  if (!ReadDirectory(dirBody, entries)) return nullptr;
  auto wrapper = std::make_shared<FileWrapper>();
  std::optional<std::u16string> utf8Name, eightBitName;
  for (const Entry& e : entries) {
    uint32_t type = BlockType(e.block);
    if (type == kBytesBlock) {
      std::string_view data;
      if (!ReadBytesBlock(e.block, data)) return nullptr;
      if (e.name == "..") {
        wrapper->regular = true;
        wrapper->contents.assign(data);
      } else if (e.name == "__@UTF8PreferredName@__") {
        utf8Name = ToUtf16(data);
      } else if (e.name == "__@PreferredName@__") {
        eightBitName = FromEightBit(data);
      } else if (e.name != ".") {
        auto child = std::make_shared<FileWrapper>();
        child->regular = true;
        child->contents.assign(data);
        child->preferredFilename = ToUtf16(e.name);
        wrapper->children.emplace_back(ToUtf16(e.name), std::move(child));
      }
    } else if (type == kDirectoryBlock) {
      auto child = ReadWrapper(e.block.substr(4), depth + 1);
      if (!child) return nullptr;
      if (!child->preferredFilename) child->preferredFilename = ToUtf16(e.name);
      wrapper->children.emplace_back(ToUtf16(e.name), std::move(child));
    } else {
      return nullptr;
    }
  }
  if (utf8Name) {
    wrapper->preferredFilename = std::move(utf8Name);
  } else if (eightBitName) {
    wrapper->preferredFilename = std::move(eightBitName);
  }
  // A regular file has no children; entries beside ".." are not files.
  if (wrapper->regular) wrapper->children.clear();
  return wrapper;
}

}  // namespace

std::shared_ptr<FileWrapper> ParseSerializedFileWrapper(std::string_view bytes) {
  if (bytes.size() < 12 || bytes.substr(0, 4) != "rtfd") return nullptr;
  Words w(bytes.substr(4));
  uint32_t zero, type;
  if (!w.Read(zero) || !w.Read(type) || zero != 0 || type != kDirectoryBlock) return nullptr;
  return ReadWrapper(bytes.substr(12), 0);
}

std::optional<std::u16string> ParseNeXTSerializedString(std::string_view bytes) {
  Words w(bytes);
  uint32_t type;
  if (!w.Read(type)) return std::nullopt;
  if (type == 0 && !w.Read(type)) return std::nullopt;
  uint32_t len;
  std::string_view body;
  if (!w.Read(len) || len == kPaddedLength || !w.Take(len, body)) return std::nullopt;
  if (type == 5) return FromEightBit(body);
  if (type != 6 || body.size() < 2 || body.size() % 2 != 0) return std::nullopt;
  auto b0 = static_cast<unsigned char>(body[0]), b1 = static_cast<unsigned char>(body[1]);
  bool little;
  if (b0 == 0xFF && b1 == 0xFE) {
    little = true;
  } else if (b0 == 0xFE && b1 == 0xFF) {
    little = false;
  } else {
    return std::nullopt;
  }
  std::u16string out;
  out.reserve(body.size() / 2 - 1);
  for (size_t k = 2; k + 1 < body.size(); k += 2) {
    auto lo = static_cast<unsigned char>(body[k + (little ? 0 : 1)]);
    auto hi = static_cast<unsigned char>(body[k + (little ? 1 : 0)]);
    out += static_cast<char16_t>(hi << 8 | lo);
  }
  return out;
}

}  // namespace gab
