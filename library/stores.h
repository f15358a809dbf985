#pragma once
// The link store (gatheredURLs.plist) and the image store
// (gatheredImages.plist) of the data folder: loading, lookups, orderings and
// the merge of a transcript's gathered entries.  The stores stay libplist
// trees while they are changed, so that records this program does not
// understand are written back as they were read.

#include <plist/plist.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dates.h"
#include "platform/plist.h"
#include "transcript/instant_message.h"

namespace gab {

inline constexpr const char* kLinkStoreName = "gatheredURLs.plist";
inline constexpr const char* kImageStoreName = "gatheredImages.plist";

std::string LinkStorePath();
std::string ImageStorePath();

// A store as a merge meets it: a missing file is an empty array; a file that
// does not parse, or whose root is not an array, gives null (no store).
PlistPtr LoadStore(const std::string& path);

// NSComparisonResult values.
enum Ordering { kOrderedAscending = -1, kOrderedSame = 0, kOrderedDescending = 1 };

// Record orderings: b's "date" compared with a's, so sorting puts the newest
// first.  A record without a date counts as the oldest.
int compareLinkDictionaries(plist_t a, plist_t b, void* context);
int compareImageDictionaries(plist_t a, plist_t b, void* context);
// Month labels ("March 2005") parsed with "%B %Y" and compared, oldest first.
// A label that does not parse counts as older than one that does.
int compareLinkDateString(std::u16string_view a, std::u16string_view b);
int compareImageDateString(std::u16string_view a, std::u16string_view b);

// The store's speaker record lookup: the `listKey` array ("urls" or
// "filenames") of the first record whose "speaker" equals `speaker`, or null.
plist_t FindSpeakerList(std::u16string_view speaker, plist_t store, const char* listKey);
// The speaker's "urls" array of the link store, "filenames" of the image
// store.
plist_t FindSpeakerArray(std::u16string_view speaker, plist_t store);
plist_t FindImagesArray(std::u16string_view speaker, plist_t store);

// Sorts the `listKey` array of every speaker record newest first (stable: equal
// dates keep their order).
void SortEveryList(plist_t store, const char* listKey);

// Appends a transcript's links to the store (new speakers at the end).
void MergeLinkEntries(plist_t store, const std::vector<LinkEntry>& entries);

// Appends a transcript's images to the store and writes each image file into
// the data folder's Images folder (write results are not checked).
void MergeImageEntries(plist_t store, const std::vector<ImageEntry>& entries);

// Read-only views of the stores for the page builders.  Records that lack
// their keys are left out.
struct LinkItem {
  Date date;
  std::u16string url;
};
struct SpeakerLinks {
  std::u16string speaker;
  std::vector<LinkItem> links;
};
struct ImageItem {
  Date date;
  std::u16string filename;
  int64_t width = 0;
  int64_t height = 0;
};
struct SpeakerImages {
  std::u16string speaker;
  std::vector<ImageItem> images;
};
std::vector<SpeakerLinks> ReadLinkSpeakers(plist_t store);
std::vector<SpeakerImages> ReadImageSpeakers(plist_t store);

// NSString path helpers on UTF-16 text: the extension of the last component
// (after its last ".", none for a leading one) and the text without it.
std::u16string PathExtension(std::u16string_view path);
std::u16string DeletingPathExtension(std::u16string_view path);

}  // namespace gab
