#pragma once
// A throw-away home folder for one test: HOME points at it, the data folder
// and its Images folder exist, and the clock's zone is fixed so that dates
// format the same everywhere.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/files.h"

namespace gab::testing {

class TestHome {
 public:
  TestHome() {
    char tmpl[] = "/tmp/gabfolio-library-XXXXXX";
    home_ = mkdtemp(tmpl);
    setenv("HOME", home_.c_str(), 1);
    setenv("TZ", "America/New_York", 1);
    tzset();
    data_ = home_ + "/Library/Gabfolio";
    std::filesystem::create_directories(data_ + "/Images");
  }
  ~TestHome() {
    std::error_code ec;
    std::filesystem::permissions(data_, std::filesystem::perms::owner_all, ec);
    std::filesystem::remove_all(home_, ec);
  }
  const std::string& home() const { return home_; }
  const std::string& data() const { return data_; }

  void Put(const std::string& relative, const std::string& bytes) const {
    std::filesystem::create_directories(
        std::filesystem::path(data_ + "/" + relative).parent_path());
    std::ofstream(data_ + "/" + relative, std::ios::binary) << bytes;
  }
  std::optional<std::string> Get(const std::string& relative) const {
    return ReadWholeFile(data_ + "/" + relative);
  }
  bool Has(const std::string& relative) const { return FileExists(data_ + "/" + relative); }
  // Every file under the home folder, relative to it, sorted.
  std::vector<std::string> AllFiles() const {
    std::vector<std::string> out;
    for (auto& e : std::filesystem::recursive_directory_iterator(home_))
      if (!e.is_directory()) out.push_back(std::filesystem::relative(e.path(), home_).string());
    std::sort(out.begin(), out.end());
    return out;
  }

 private:
  std::string home_, data_;
};

// A small readable template: the three placeholders on lines of their own.
inline std::string TestTemplate(const char* listPlaceholder) {
  return std::string("<title>____NAME</title>\n<ul class=\"nav\">____CONTENTS</ul>\n") +
         listPlaceholder + "\n";
}

// Compares a page with its expected text under library/tests/golden.  With
// GABFOLIO_UPDATE_GOLDEN=1 in the environment the expected file is rewritten
// instead (review the difference before committing it).
inline void ExpectGolden(const std::optional<std::string>& actual, const std::string& name) {
  std::string path = std::string(GABFOLIO_SOURCE_DIR) + "/library/tests/golden/" + name;
  ASSERT_TRUE(actual.has_value()) << "page not written: " << name;
  if (std::getenv("GABFOLIO_UPDATE_GOLDEN")) {
    std::ofstream(path, std::ios::binary) << *actual;
    return;
  }
  auto expected = ReadWholeFile(path);
  ASSERT_TRUE(expected.has_value()) << "missing golden file " << path;
  EXPECT_EQ(*actual, *expected) << "page differs from " << path;
}

// Store texts, written as the product writes them, from compact tables.
// Dates are ISO 8601 in UTC ("2005-03-08T20:07:42Z").
struct LinkRec {
  std::string date, url;
};
struct ImageRec {
  std::string date, filename;
  int width, height;
};
template <class Rec>
using Speakers = std::vector<std::pair<std::string, std::vector<Rec>>>;

inline std::string PlistHead() {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<array>\n";
}

inline std::string Xml(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else
      out += c;
  }
  return out;
}

inline std::string LinkStoreXml(const Speakers<LinkRec>& speakers) {
  std::ostringstream x;
  x << PlistHead();
  for (auto& [speaker, recs] : speakers) {
    x << "<dict><key>speaker</key><string>" << Xml(speaker) << "</string><key>urls</key><array>\n";
    for (auto& r : recs)
      x << "<dict><key>date</key><date>" << r.date << "</date><key>linkurl</key><string>"
        << Xml(r.url) << "</string></dict>\n";
    x << "</array></dict>\n";
  }
  x << "</array>\n</plist>\n";
  return x.str();
}

inline std::string ImageStoreXml(const Speakers<ImageRec>& speakers) {
  std::ostringstream x;
  x << PlistHead();
  for (auto& [speaker, recs] : speakers) {
    x << "<dict><key>speaker</key><string>" << Xml(speaker)
      << "</string><key>filenames</key><array>\n";
    for (auto& r : recs)
      x << "<dict><key>date</key><date>" << r.date << "</date><key>filename</key><string>"
        << Xml(r.filename) << "</string><key>width</key><integer>" << r.width
        << "</integer><key>height</key><integer>" << r.height << "</integer></dict>\n";
    x << "</array></dict>\n";
  }
  x << "</array>\n</plist>\n";
  return x.str();
}

}  // namespace gab::testing
