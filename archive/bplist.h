#pragma once
// A reader for binary property lists ("bplist00") that works in place on
// the file's bytes: no tree is built, each object is decoded when it is
// asked for, by number.  The bytes are untrusted: every offset, count,
// reference and length is checked before it is used, and damage throws
// BinaryPlistError with the reason.  The reader never follows references
// itself, so shared or cyclic references cost nothing here; callers walking
// the graph bound their own depth.

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace gab {

struct BinaryPlistError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class BinaryPlist {
 public:
  // More objects than any transcript holds by far; keeps per-object tables
  // of callers bounded.
  static constexpr uint64_t kMaxObjects = uint64_t{1} << 24;

  enum class Type : uint8_t { kBool, kInteger, kReal, kDate, kData, kString, kArray, kDict, kUid };

  // One object, viewing the plist's bytes.
  struct Value {
    Type type = Type::kBool;
    bool utf16 = false;        // strings: UTF-16 big-endian, else one byte a character
    uint32_t index = 0;        // the object's number
    uint64_t count = 0;        // data: bytes; strings: characters; arrays, dictionaries: entries
    const char* at = nullptr;  // data, characters or references
    union {
      bool boolean;
      int64_t integer;  // as archived, read as two's complement
      double real;      // reals and dates (seconds since 2001)
      uint64_t uid;
    };

    Value() : integer(0) {}
    bool Is(Type t) const { return type == t; }
    // Data's bytes, and the characters of one-byte strings.
    std::string_view Data() const { return {at, count}; }
    // Strings: the characters exactly (UTF-16 units as stored, unpaired
    // surrogates included); bytes above 0x7F in one-byte strings read as
    // UTF-8.
    std::u16string Utf16() const;
    // Strings as UTF-8 (unpaired surrogates become "?").
    std::string Utf8() const;
    // Whether a string equals `ascii`.
    bool Equals(std::string_view ascii) const;
  };

  // A dictionary's keys, read once for repeated lookups.
  class Dict {
   public:
    Dict() = default;
    Dict(const Dict&) = delete;
    Dict& operator=(const Dict&) = delete;
    size_t size() const { return size_; }
    // Key `k` when it is a one-byte string; empty for UTF-16 keys.
    std::string_view Name(size_t k) const {
      return keys_[k].utf16 ? std::string_view() : std::string_view(keys_[k].at, keys_[k].size);
    }
    // The object number of value `k`.
    uint64_t ValueRef(size_t k) const { return keys_[k].value; }
    // The object number of the value for an ASCII key (the first when
    // repeated).
    std::optional<uint64_t> Find(std::string_view key) const {
      for (size_t k = 0; k < size_; ++k) {
        const Key& e = keys_[k];
        if (e.size == key.size() && (e.utf16 ? BinaryPlist::Utf16Equals(e.at, key)
                                             : std::memcmp(e.at, key.data(), key.size()) == 0)) {
          return e.value;
        }
      }
      return std::nullopt;
    }

   private:
    friend class BinaryPlist;
    struct Key {
      const char* at;
      uint64_t size;  // characters
      uint32_t value;
      bool utf16;
    };
    size_t size_ = 0;
    Key* keys_ = inline_;
    Key inline_[8];
    std::unique_ptr<Key[]> more_;
  };

  // Checks the header, trailer and offset table; throws when damaged.
  explicit BinaryPlist(std::string_view bytes);

  uint64_t size() const { return count_; }
  uint64_t top() const { return top_; }

  // Object `index`, checked; throws when out of range or damaged.
  Value Object(uint64_t index) const;
  // Entry `k` of an array (or key `k` of a dictionary), checked.
  Value Item(const Value& container, uint64_t k) const { return Object(Ref(container, k)); }
  // The number of the object entry `k` of an array refers to (dictionaries:
  // keys, then values).
  uint64_t Ref(const Value& container, uint64_t k) const {
    // Object() checked that a container's references lie inside the table.
    uint64_t entries = container.type == Type::kDict ? 2 * container.count : container.count;
    if ((container.type != Type::kArray && container.type != Type::kDict) || k >= entries)
      NoEntry(container, k);
    uint64_t ref =
        BigEndian(reinterpret_cast<const uint8_t*>(container.at) + k * refSize_, refSize_);
    if (ref >= count_) RefOutOfRange(container, ref);
    return ref;
  }
  // A dictionary's value for an ASCII key (the first when repeated).
  std::optional<Value> Find(const Value& dict, std::string_view key) const;
  // Reads a dictionary's keys (all strings, or it throws).
  void Keys(const Value& dict, Dict& out) const;

 private:
  [[noreturn]] void FailAt(uint64_t index, const std::string& what) const;
  static bool Utf16Equals(const char* at, std::string_view ascii);
  uint64_t ReadCount(uint64_t index, uint64_t& at, uint8_t marker) const;
  uint64_t ReadLongCount(uint64_t index, uint64_t& at) const;
  [[noreturn]] void NoEntry(const Value& container, uint64_t k) const;
  [[noreturn]] void RefOutOfRange(const Value& container, uint64_t ref) const;
  [[noreturn]] void BadOffset(uint64_t index) const;
  uint64_t OffsetOf(uint64_t index) const {
    if (index >= count_) BadOffset(index);
    uint64_t at = BigEndian(data_ + tableAt_ + index * offsetSize_, offsetSize_);
    if (at < 8 || at >= tableAt_) BadOffset(index);
    return at;
  }

  static uint64_t BigEndian(const uint8_t* p, unsigned n) {
    switch (n) {
      case 1:
        return p[0];
      case 2:
        return uint64_t{p[0]} << 8 | p[1];
      case 3:
        return uint64_t{p[0]} << 16 | uint64_t{p[1]} << 8 | p[2];
      case 4:
        return uint64_t{p[0]} << 24 | uint64_t{p[1]} << 16 | uint64_t{p[2]} << 8 | p[3];
      default: {
        uint64_t v = 0;
        for (unsigned k = 0; k < n; ++k) v = v << 8 | p[k];
        return v;
      }
    }
  }

  const uint8_t* data_;
  uint64_t tableAt_ = 0;  // the object area is [8, tableAt_)
  uint64_t count_ = 0, top_ = 0;
  uint8_t offsetSize_ = 0, refSize_ = 0;
};

}  // namespace gab
