#pragma once
// The one way generated files get into ~/Library/Gabfolio.  Names that come
// from chats (speaker names, attachment names) end up in file names here, so
// every write checks that the name is one plain component and that it does not
// replace a file the product supplies or keeps (templates, stores, word lists,
// the pid file).

#include <string>
#include <string_view>

namespace gab {

// True for a name that is one path component: not empty, no "/" or NUL, not
// "." or "..", at most 255 bytes.
bool IsPlainFileName(std::string_view name);

// True for the names in the data folder that generated files must never
// replace.  `subfolder` is "" for the data folder itself or "Images".
bool IsProtectedName(std::string_view subfolder, std::string_view name);

// Writes `bytes` atomically to ~/Library/Gabfolio/<subfolder>/<name>.
// `subfolder` is "" or "Images".  Refused (one log line, false) when the name
// is not plain or is protected; false without a log line when the write fails.
bool WriteIntoDataFolder(std::string_view subfolder, std::string_view name, std::string_view bytes);

// Writes one of the stores (gatheredURLs.plist, gatheredImages.plist,
// talkpulse.plist) atomically into the data folder; any other name is refused.
bool WriteStoreIntoDataFolder(std::string_view name, std::string_view bytes);

// Writes one of the library's own pages (Links.html, Images.html,
// stats.html) atomically into the data folder; any other name is refused.
bool WriteLibraryPage(std::string_view name, std::string_view bytes);

// Same checks, for a file directly in `folder` (which the caller chose).
bool WriteIntoFolder(const std::string& folder, std::string_view name, std::string_view bytes);

// The newest-images folder: removes ~/Library/Gabfolio/Images/topimages with
// its contents, without following links, and creates it again.
void ResetTopImagesFolder();

// Copies the stored image `storedName` (a store "filename": "Images/<name>",
// nothing else is accepted) to Images/topimages/<destName>.  False when
// refused or failed.
bool CopyIntoTopImages(std::string_view storedName, std::string_view destName);

}  // namespace gab
