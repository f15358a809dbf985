#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace gab {

// A value in the preferences domain, as CFPreferences would hand it out.
// Arrays, dictionaries, data and dates found in the file are kept but not
// interpreted (Other).
struct PrefOther {
  bool operator==(const PrefOther&) const = default;
};
using PrefValue = std::variant<bool, int64_t, double, std::string, PrefOther>;

// NSNumber/NSString-like readings of a value.
bool BoolValue(const std::optional<PrefValue>& v);                          // absent: NO
int32_t IntValue(const std::optional<PrefValue>& v);                        // absent: 0
std::optional<std::string> StringValue(const std::optional<PrefValue>& v);  // strings only

// The application preference domain "com.tidewrack.gabfolio", stored in
// ~/Library/Preferences/com.tidewrack.gabfolio.plist and shared with the
// user's tool and the companion parser.  A process works on its own copy;
// Synchronize() merges this process's changes into the file under a lock and
// reads back what other processes wrote.
class Preferences {
 public:
  static constexpr const char* kDomain = "com.tidewrack.gabfolio";

  // The process-wide domain, bound to the home directory at first use.
  static Preferences& Shared();

  explicit Preferences(std::string plistPath);

  // CFPreferencesCopyAppValue: the value in this process's copy (the file is
  // read the first time).
  std::optional<PrefValue> CopyAppValue(std::string_view key);
  // CFPreferencesSetAppValue: nullopt removes the key.
  void SetAppValue(std::string_view key, std::optional<PrefValue> value);
  // CFPreferencesAppSynchronize.
  bool AppSynchronize();

  // Shorthands.
  bool Bool(std::string_view key) { return BoolValue(CopyAppValue(key)); }
  int32_t Int(std::string_view key) { return IntValue(CopyAppValue(key)); }
  std::optional<std::string> String(std::string_view key) { return StringValue(CopyAppValue(key)); }

  const std::string& path() const { return path_; }

  ~Preferences();
  Preferences(const Preferences&) = delete;
  Preferences& operator=(const Preferences&) = delete;

 private:
  struct State;
  std::string path_;
  State* state_;
};

}  // namespace gab
