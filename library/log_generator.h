#pragma once
#include <plist/plist.h>

#include <string>
#include <string_view>

namespace gab {

class ICLPChatLog;

// The library pages and statistics of ~/Library/Gabfolio.  A null transcript
// rebuilds the pages from the stores as they are.
class ICLPLogGenerator {
 public:
  // library/link_pages.cpp
  static void GenerateLinkFiles(const ICLPChatLog* transcript);
  static std::u16string CompressedLinkForList(std::u16string_view link);
  static std::u16string stringWithFunkyURLStuffInserted(std::u16string_view text);
  // library/stores.cpp: a speaker's "urls" / "filenames" array in a store
  // root (a libplist array), or null.
  static plist_t FindSpeakerArray(std::u16string_view speaker, plist_t store);
  static plist_t FindImagesArray(std::u16string_view speaker, plist_t store);
  // library/gallery.cpp
  static void GenerateImageFiles(const ICLPChatLog* transcript);
  // library/statistics.cpp
  static void UpdateStatistics(const ICLPChatLog* transcript);
};

}  // namespace gab
