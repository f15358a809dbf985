#include "archive/bplist_check.h"

#include <cstdint>
#include <vector>

namespace gab {

namespace {

constexpr size_t kTrailerSize = 32;
constexpr size_t kHeaderSize = 8;
constexpr int kMaxDepth = 32;
constexpr uint64_t kMaxExpandedNodes = 32u << 20;

uint64_t BigEndian(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t k = 0; k < n; ++k) v = v << 8 | p[k];
  return v;
}

struct Plist {
  const uint8_t* data;
  uint64_t tableEnd;  // start of the offset table
  std::vector<uint64_t> offsets;
  size_t refSize;
};

// Reads the count of a container or string-like object (low nibble, or a
// following integer when it is 0xF); `at` moves past the header.
bool ReadCount(const Plist& p, uint64_t& at, uint8_t marker, uint64_t& count) {
  count = marker & 0x0F;
  if (count != 0x0F) return true;
  if (at >= p.tableEnd) return false;
  uint8_t m = p.data[at++];
  if ((m & 0xF0) != 0x10 || (m & 0x0F) > 3) return false;
  size_t n = size_t{1} << (m & 0x0F);
  if (p.tableEnd - at < n) return false;
  count = BigEndian(p.data + at, n);
  at += n;
  return true;
}

// Where an object's references are: `count` of them from byte `at`.
struct Refs {
  uint64_t at = 0, count = 0;
};

uint64_t RefAt(const Plist& p, const Refs& r, uint64_t k) {
  return BigEndian(p.data + r.at + k * p.refSize, p.refSize);
}

// Checks object `i` and finds the objects it refers to.
std::string CheckObject(const Plist& p, uint64_t i, Refs& children) {
  children = Refs{};
  uint64_t at = p.offsets[i];
  uint8_t m = p.data[at++];
  uint64_t room = p.tableEnd - at;
  uint8_t info = m & 0x0F;
  switch (m >> 4) {
    case 0x0:
      if (m == 0x08 || m == 0x09) return {};
      return "unsupported marker";
    case 0x1:
      if (info > 4 || room < (uint64_t{1} << info)) return "bad integer";
      return {};
    case 0x2:
      if ((info != 2 && info != 3) || room < (uint64_t{1} << info)) return "bad real";
      return {};
    case 0x3:
      if (m != 0x33 || room < 8) return "bad date";
      return {};
    case 0x8:
      if ((info != 0 && info != 1 && info != 3 && info != 7) || room < uint64_t{info} + 1u)
        return "bad UID";
      return {};
    case 0x4:
    case 0x5:
    case 0x6: {
      uint64_t count;
      if (!ReadCount(p, at, m, count)) return "bad length";
      uint64_t bytes = (m >> 4) == 0x6 ? count * 2 : count;
      if (count > p.tableEnd || bytes > p.tableEnd - at)
        return "string or data beyond the object table";
      return {};
    }
    case 0xA:
    case 0xD: {
      uint64_t count;
      if (!ReadCount(p, at, m, count)) return "bad count";
      uint64_t refs = (m >> 4) == 0xD ? count * 2 : count;
      if (count > p.tableEnd || refs > (p.tableEnd - at) / p.refSize)
        return "container beyond the object table";
      children = Refs{at, refs};
      for (uint64_t k = 0; k < refs; ++k) {
        uint64_t ref = RefAt(p, children, k);
        if (ref >= p.offsets.size()) return "reference out of range";
        if ((m >> 4) == 0xD && k < count) {
          uint8_t km = p.data[p.offsets[ref]] >> 4;
          if (km != 0x5 && km != 0x6) return "dictionary key is not a string";
        }
      }
      return {};
    }
    default:
      return "unsupported marker";
  }
}

}  // namespace

std::string CheckBinaryPlist(std::string_view bytes) {
  const auto* d = reinterpret_cast<const uint8_t*>(bytes.data());
  if (bytes.size() < kHeaderSize + 1 + kTrailerSize) return "binary plist too short";
  if (bytes.substr(0, 8) != "bplist00") return "not a bplist00 file";
  const uint8_t* t = d + bytes.size() - kTrailerSize;
  size_t offsetSize = t[6], refSize = t[7];
  uint64_t count = BigEndian(t + 8, 8), top = BigEndian(t + 16, 8),
           tableStart = BigEndian(t + 24, 8);
  uint64_t trailerAt = bytes.size() - kTrailerSize;
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8)
    return "bad integer sizes in the trailer";
  if (count < 1) return "no objects";
  if (top >= count) return "top object out of range";
  if (tableStart < kHeaderSize + 1 || tableStart > trailerAt) return "offset table out of place";
  if (count > (trailerAt - tableStart) / offsetSize ||
      tableStart + count * offsetSize != trailerAt) {
    return "offset table does not end at the trailer";
  }
  if (refSize < 8 && count > (uint64_t{1} << (8 * refSize)))
    return "references too narrow for the object count";

  Plist p{d, tableStart, {}, refSize};
  p.offsets.resize(count);
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t off = BigEndian(d + tableStart + i * offsetSize, offsetSize);
    if (off < kHeaderSize || off >= tableStart) return "object offset outside the object table";
    p.offsets[i] = off;
  }

  // Depth-first over the graph from the top object with an explicit stack:
  // rejects cycles and deep nesting, and totals the nodes a reader that
  // copies shared subtrees would build.
  std::vector<uint8_t> state(count, 0);  // 0 new, 1 on the stack, 2 done
  std::vector<uint64_t> expanded(count, 0);
  std::vector<uint8_t> depth(count, 0);
  uint64_t totalRefs = 0;
  struct Frame {
    uint64_t object;
    Refs children;
    uint64_t next = 0;
  };
  std::vector<Frame> stack;
  auto push = [&](uint64_t i) -> std::string {
    Refs children;
    std::string err = CheckObject(p, i, children);
    if (!err.empty()) return err + " (object " + std::to_string(i) + ")";
    totalRefs += children.count;
    state[i] = 1;
    stack.push_back(Frame{i, children});
    if (stack.size() > kMaxDepth) return "nested too deeply";
    return {};
  };
  if (std::string err = push(top); !err.empty()) return err;
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next < f.children.count) {
      uint64_t c = RefAt(p, f.children, f.next++);
      if (state[c] == 1) return "reference cycle";
      if (state[c] == 0) {
        if (std::string err = push(c); !err.empty()) return err;
      }
      continue;
    }
    uint64_t size = 1;
    uint8_t deepest = 0;
    for (uint64_t k = 0; k < f.children.count; ++k) {
      uint64_t c = RefAt(p, f.children, k);
      size += expanded[c];
      if (size > kMaxExpandedNodes) size = kMaxExpandedNodes + 1;
      if (depth[c] > deepest) deepest = depth[c];
    }
    expanded[f.object] = size;
    depth[f.object] = static_cast<uint8_t>(deepest + 1);
    state[f.object] = 2;
    stack.pop_back();
  }
  uint64_t limit = 4 * (totalRefs + count) + 4096;
  if (expanded[top] > kMaxExpandedNodes || expanded[top] > limit)
    return "shared references expand too much";
  return {};
}

}  // namespace gab
