#include "archive/bplist.h"

#include <cstring>

#include "platform/text.h"

namespace gab {

namespace {

constexpr uint64_t kHeaderSize = 8;
constexpr uint64_t kTrailerSize = 32;

[[noreturn]] void Fail(const std::string& what) {
  throw BinaryPlistError(what);
}

}  // namespace

BinaryPlist::BinaryPlist(std::string_view bytes)
    : data_(reinterpret_cast<const uint8_t*>(bytes.data())) {
  if (!bytes.starts_with("bplist")) Fail("not a binary property list");
  if (bytes.size() < kHeaderSize + 1 + kTrailerSize) Fail("binary property list too short");
  if (bytes.substr(6, 2) != "00") Fail("binary property list of an unsupported version");
  const uint8_t* t = data_ + bytes.size() - kTrailerSize;
  uint64_t trailerAt = bytes.size() - kTrailerSize;
  offsetSize_ = t[6];
  refSize_ = t[7];
  count_ = BigEndian(t + 8, 8);
  top_ = BigEndian(t + 16, 8);
  tableAt_ = BigEndian(t + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8) Fail("bad offset size in the trailer");
  if (refSize_ < 1 || refSize_ > 8) Fail("bad object reference size in the trailer");
  if (count_ < 1) Fail("no objects");
  if (count_ > kMaxObjects) Fail("too many objects");
  if (top_ >= count_) Fail("top object out of range");
  if (tableAt_ < kHeaderSize + 1 || tableAt_ > trailerAt) Fail("offset table out of place");
  if (count_ * offsetSize_ != trailerAt - tableAt_)
    Fail("offset table does not end at the trailer");
  if (refSize_ < 8 && count_ > (uint64_t{1} << (8 * refSize_)))
    Fail("object references too narrow for the object count");
}

void BinaryPlist::FailAt(uint64_t index, const std::string& what) const {
  uint64_t offset = BigEndian(data_ + tableAt_ + index * offsetSize_, offsetSize_);
  Fail("object " + std::to_string(index) + " at byte " + std::to_string(offset) + ": " + what);
}

// The count of a string, data or container: the marker's low nibble, or
// an integer object after it when that is 0xF.  `at` moves past it.
inline uint64_t BinaryPlist::ReadCount(uint64_t index, uint64_t& at, uint8_t marker) const {
  uint64_t count = marker & 0x0F;
  return count != 0x0F ? count : ReadLongCount(index, at);
}

uint64_t BinaryPlist::ReadLongCount(uint64_t index, uint64_t& at) const {
  if (at >= tableAt_) FailAt(index, "count past the object table");
  uint8_t m = data_[at++];
  if ((m & 0xF0) != 0x10 || (m & 0x0F) > 3) FailAt(index, "bad count");
  unsigned n = 1u << (m & 0x0F);
  if (tableAt_ - at < n) FailAt(index, "count past the object table");
  uint64_t count = BigEndian(data_ + at, n);
  at += n;
  return count;
}

void BinaryPlist::BadOffset(uint64_t index) const {
  if (index >= count_) Fail("object reference " + std::to_string(index) + " out of range");
  FailAt(index, "offset outside the object table");
}

void BinaryPlist::NoEntry(const Value& c, uint64_t k) const {
  FailAt(c.index, "no entry " + std::to_string(k));
}

void BinaryPlist::RefOutOfRange(const Value& c, uint64_t ref) const {
  FailAt(c.index, "object reference " + std::to_string(ref) + " out of range (" +
                      std::to_string(count_) + " objects)");
}

BinaryPlist::Value BinaryPlist::Object(uint64_t index) const {
  uint64_t at = OffsetOf(index);
  Value v;
  v.index = static_cast<uint32_t>(index);
  uint8_t m = data_[at++];
  uint64_t room = tableAt_ - at;
  unsigned info = m & 0x0F;
  switch (m >> 4) {
    case 0x0:
      if (m != 0x08 && m != 0x09) break;
      v.type = Type::kBool;
      v.boolean = m == 0x09;
      return v;
    case 0x1: {
      // 1, 2 and 4-byte integers are unsigned, 8-byte ones signed; of a
      // 16-byte one the low 8 bytes count.
      if (info > 4 || room < (uint64_t{1} << info)) FailAt(index, "bad integer");
      v.type = Type::kInteger;
      unsigned n = 1u << info;
      v.integer = static_cast<int64_t>(BigEndian(data_ + at + (n > 8 ? n - 8 : 0), n > 8 ? 8 : n));
      return v;
    }
    case 0x2:
    case 0x3: {
      if ((m >> 4 == 0x3 && info != 3) || (info != 2 && info != 3) ||
          room < (uint64_t{1} << info)) {
        FailAt(index, m >> 4 == 0x3 ? "bad date" : "bad real");
      }
      v.type = m >> 4 == 0x3 ? Type::kDate : Type::kReal;
      if (info == 2) {
        auto bits = static_cast<uint32_t>(BigEndian(data_ + at, 4));
        float f;
        std::memcpy(&f, &bits, 4);
        v.real = f;
      } else {
        uint64_t bits = BigEndian(data_ + at, 8);
        std::memcpy(&v.real, &bits, 8);
      }
      return v;
    }
    case 0x8:
      if ((info != 0 && info != 1 && info != 3 && info != 7) || room < info + 1u)
        FailAt(index, "bad UID");
      v.type = Type::kUid;
      v.uid = BigEndian(data_ + at, info + 1);
      return v;
    case 0x4:
    case 0x5:
    case 0x6: {
      uint64_t count = ReadCount(index, at, m);
      room = tableAt_ - at;
      if (count > room || (m >> 4 == 0x6 && 2 * count > room))
        FailAt(index, "string or data runs past the object table");
      v.type = m >> 4 == 0x4 ? Type::kData : Type::kString;
      v.utf16 = m >> 4 == 0x6;
      v.count = count;
      v.at = reinterpret_cast<const char*>(data_ + at);
      return v;
    }
    case 0xA:
    case 0xD: {
      uint64_t count = ReadCount(index, at, m);
      room = tableAt_ - at;
      // count <= room first, so the products cannot overflow.
      uint64_t refs = (m >> 4 == 0xD ? 2 : 1) * refSize_;
      if (count > room || count * refs > room)
        FailAt(index, "container runs past the object table");
      v.type = m >> 4 == 0xD ? Type::kDict : Type::kArray;
      v.count = count;
      v.at = reinterpret_cast<const char*>(data_ + at);
      return v;
    }
    default:
      break;
  }
  static const char kHex[] = "0123456789abcdef";
  FailAt(index, std::string("unsupported marker 0x") + kHex[m >> 4] + kHex[m & 0xF]);
}

std::optional<BinaryPlist::Value> BinaryPlist::Find(const Value& dict, std::string_view key) const {
  if (dict.type != Type::kDict) return std::nullopt;
  for (uint64_t k = 0; k < dict.count; ++k) {
    uint64_t ref = Ref(dict, k);
    Ref(dict, dict.count + k);  // the value's reference is checked with its key's
    uint64_t at = OffsetOf(ref);
    uint8_t m = data_[at++];
    if (m >> 4 == 0x5) {
      // A one-byte string, as keys usually are: compared in place.
      uint64_t n = ReadCount(ref, at, m);
      if (n > tableAt_ - at) FailAt(ref, "string or data runs past the object table");
      if (n == key.size() && std::memcmp(data_ + at, key.data(), n) == 0)
        return Item(dict, dict.count + k);
      continue;
    }
    Value name = Object(ref);
    if (name.type != Type::kString) FailAt(dict.index, "dictionary key is not a string");
    if (name.Equals(key)) return Item(dict, dict.count + k);
  }
  return std::nullopt;
}

void BinaryPlist::Keys(const Value& dict, Dict& out) const {
  out.size_ = 0;
  if (dict.type != Type::kDict) return;
  out.keys_ = out.inline_;
  if (dict.count > std::size(out.inline_)) {
    out.more_.reset(new Dict::Key[dict.count]);
    out.keys_ = out.more_.get();
  }
  for (uint64_t k = 0; k < dict.count; ++k) {
    uint64_t ref = Ref(dict, k);
    uint64_t value = Ref(dict, dict.count + k);
    uint64_t at = OffsetOf(ref);
    uint8_t m = data_[at++];
    if (m >> 4 != 0x5 && m >> 4 != 0x6) FailAt(dict.index, "dictionary key is not a string");
    bool utf16 = m >> 4 == 0x6;
    uint64_t n = ReadCount(ref, at, m);
    if (n > tableAt_ - at || (utf16 && 2 * n > tableAt_ - at))
      FailAt(ref, "string or data runs past the object table");
    out.keys_[k] = Dict::Key{reinterpret_cast<const char*>(data_ + at), n,
                             static_cast<uint32_t>(value), utf16};
  }
  out.size_ = dict.count;
}

bool BinaryPlist::Utf16Equals(const char* at, std::string_view ascii) {
  const auto* p = reinterpret_cast<const uint8_t*>(at);
  for (size_t k = 0; k < ascii.size(); ++k) {
    if (p[2 * k] != 0 || p[2 * k + 1] != static_cast<uint8_t>(ascii[k])) return false;
  }
  return true;
}

std::u16string BinaryPlist::Value::Utf16() const {
  std::u16string out;
  if (type != Type::kString) return out;
  const auto* p = reinterpret_cast<const uint8_t*>(at);
  if (utf16) {
    out.resize(count);
    for (uint64_t k = 0; k < count; ++k)
      out[k] = static_cast<char16_t>(p[2 * k] << 8 | p[2 * k + 1]);
    return out;
  }
  out.resize(count);
  for (uint64_t k = 0; k < count; ++k) {
    // Apple writes only ASCII here; other bytes are taken for UTF-8.
    if (p[k] >= 0x80) return ToUtf16(Data());
    out[k] = p[k];
  }
  return out;
}

std::string BinaryPlist::Value::Utf8() const {
  if (type != Type::kString) return {};
  return utf16 ? ToUtf8(Utf16()) : std::string(Data());
}

bool BinaryPlist::Value::Equals(std::string_view ascii) const {
  if (type != Type::kString || count != ascii.size()) return false;
  return utf16 ? Utf16Equals(at, ascii) : Data() == ascii;
}

}  // namespace gab
