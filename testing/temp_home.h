#pragma once
// Homes for tests.  Every test program runs in a throw-away home of its own
// (testing/main.cpp), and a test can make another for itself; nothing a test
// does reaches the real home or the real desktop.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/preferences.h"

namespace gab::testing {

// While it lives, HOME and USER name a fresh temporary folder and user, and
// TZ is New York's (so dates format alike everywhere); all three are put
// back, and the folder removed, when it goes.
class TempHome {
 public:
  explicit TempHome(const char* user = "tester");  // null leaves USER unset
  ~TempHome();
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& path() const { return path_; }
  std::string data() const { return path_ + "/Library/Gabfolio"; }
  std::string transcripts() const { return path_ + "/Documents/iChats"; }

  // Files relative to the home (Write makes the folders it needs) ...
  void Write(const std::string& relative, std::string_view bytes) const;
  std::optional<std::string> Read(const std::string& relative) const;
  // ... and relative to the data folder.
  void Put(const std::string& relative, std::string_view bytes) const;
  std::optional<std::string> Get(const std::string& relative) const;
  bool Has(const std::string& relative) const;
  // Every file under the home, relative to it, sorted.
  std::vector<std::string> AllFiles() const;
  // Empties the home, then makes the data and transcript folders.
  void Reset(bool dataFolder = true, bool transcriptFolder = true) const;
  // An executable shell script in the home; its path.
  std::string WriteScript(const std::string& relative, const std::string& body) const;

  static void SetUser(const char* user);

 private:
  std::string path_;
  std::optional<std::string> saved_[3];
};

// A home whose data folder (~/Library/Gabfolio, with Images) exists.
struct LibraryHome : TempHome {
  LibraryHome();
};

// The program's own home (see testing/main.cpp).  The shared preferences
// bind to the home of their first use, so they live here whatever home a
// test makes afterwards.
const TempHome& ProcessHome();

// The preferences file of the home in HOME, read and written past this
// process's shared copy: WritePrefs leaves exactly `values` (none: no file).
std::string PrefsPath();
void WritePrefs(const std::map<std::string, PrefValue>& values);
std::optional<PrefValue> ReadPref(const std::string& key);
// WritePrefs, and the shared copy brought up to date with the file.
void ResetPrefs(const std::map<std::string, PrefValue>& values);

}  // namespace gab::testing
