#pragma once
// A reader for binary property lists ("bplist00") that works in place on
// the file's bytes: no tree is built, each object is decoded when it is
// asked for, by number.  The bytes are untrusted: every offset, count,
// reference and length is checked before it is used, and damage throws
// BinaryPlistError with the reason.  The reader never follows references
// itself, so shared or cyclic references cost nothing here; callers walking
// the graph bound their own depth.

#include <cstdint>
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

  // Checks the header, trailer and offset table; throws when damaged.
  explicit BinaryPlist(std::string_view bytes);

  uint64_t size() const { return count_; }
  uint64_t top() const { return top_; }

  // Object `index`, checked; throws when out of range or damaged.
  Value Object(uint64_t index) const;
  // Entry `k` of an array (or key `k` of a dictionary), checked.
  Value Item(const Value& container, uint64_t k) const { return Object(Ref(container, k)); }
  // The number of the object entry `k` of an array refers to.
  uint64_t Ref(const Value& container, uint64_t k) const;
  // A dictionary's value for an ASCII key (the first when repeated).
  std::optional<Value> Find(const Value& dict, std::string_view key) const;

 private:
  [[noreturn]] void FailAt(uint64_t index, const std::string& what) const;
  uint64_t ReadCount(uint64_t index, uint64_t& at, uint8_t marker) const;

  const uint8_t* data_;
  uint64_t tableAt_ = 0;  // the object area is [8, tableAt_)
  uint64_t count_ = 0, top_ = 0;
  uint8_t offsetSize_ = 0, refSize_ = 0;
};

}  // namespace gab
