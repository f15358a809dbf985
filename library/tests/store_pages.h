#pragma once
// The library tests' pages and stores: a small template, golden pages, and
// store files written from compact tables.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/files.h"
#include "testing/temp_home.h"

namespace gab::testing {

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
