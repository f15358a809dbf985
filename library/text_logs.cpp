// The text logs of gathered links and images: one line per link or image,
// appended to a file the caller names, in formats the user sets in the
// preferences ("bookmarkEntry", "imageEntry").
#include <filesystem>

#include "library/gathering.h"
#include "library/object_format.h"
#include "library/stores.h"
#include "platform/data_folder.h"
#include "platform/files.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "platform/text.h"

namespace gab {
namespace {

std::string FolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// Text logs live in the data folder like everything else we write.
bool InDataFolder(const std::string& path) {
  std::error_code e1, e2;
  auto folder = std::filesystem::weakly_canonical(FolderOf(path), e1);
  auto data = std::filesystem::weakly_canonical(DataFolder(), e2);
  if (!e1 && !e2 && folder == data) return true;
  NSLog("Not extending a text log outside " + DataFolder() + ": " + path);
  return false;
}

std::optional<std::u16string> LineFormat(const char* key) {
  auto value = Preferences::Shared().String(key);
  if (!value) return std::nullopt;
  return ToUtf16(*value);
}

}  // namespace

void ExtendURLLog(const ICLPChatLog& transcript, const std::string& path) {
  if (!InDataFolder(path)) return;
  auto entries = GatheredURLs(transcript);
  auto text = ReadWholeFile(path);
  if (!text) return;
  auto format = LineFormat("bookmarkEntry");
  for (const auto& entry : entries) {
    if (!format) break;
    if (!entry.time) continue;
    std::u16string when = ToUtf16(FormatDate(*entry.time, "%a %B %e, %I:%M%p"));
    for (const auto& url : entry.urls)
      *text += ToUtf8(FormatWithObjects(*format, {url, url, entry.speaker, when}));
  }
  WriteIntoDataFolder("", NameOf(path), *text);
}

void ExtendImageLog(const ICLPChatLog& transcript, const std::string& path) {
  if (!InDataFolder(path)) return;
  auto entries = GatheredImages(transcript);
  auto text = ReadWholeFile(path);
  auto format = LineFormat("imageEntry");
  for (const auto& entry : entries) {
    if (!entry.time) continue;
    std::u16string when = ToUtf16(FormatDate(*entry.time, "%a %B %e, %I:%M%p"));
    std::u16string compact = ToUtf16(FormatDate(*entry.time, "%a%b%e%I%M%p"));
    for (const auto& wrapper : entry.images) {
      if (!wrapper) continue;
      std::u16string name;
      if (!wrapper->preferredFilename) {
        name = entry.speaker + u"-" + compact + u".image";
      } else {
        const std::u16string& pf = *wrapper->preferredFilename;
        name = DeletingPathExtension(pf) + u"-" + entry.speaker + u"-" + compact + u"." +
               PathExtension(pf);
      }
      // The copy is made even when the log itself cannot be read.
      if (wrapper->IsRegularFile()) WriteIntoDataFolder("Images", ToUtf8(name), wrapper->contents);
      if (text && format) *text += ToUtf8(FormatWithObjects(*format, {name, entry.speaker, when}));
    }
  }
  if (text) WriteIntoDataFolder("", NameOf(path), *text);
}

}  // namespace gab
