#include "platform/data_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/files.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/write_batch.h"

namespace gab {
namespace {

// The three pages every library has: a speaker named "stats", "Links" or
// "Images" must not replace them with a page of their own.
constexpr std::array<std::string_view, 3> kLibraryPages = {"Links.html", "Images.html",
                                                           "stats.html"};
constexpr std::array<std::string_view, 12> kKeptInDataFolder = {
    "linktemplate.html",  "imagetemplate.html",   "statstemplate.html",
    "gatheredURLs.plist", "gatheredImages.plist", "talkpulse.plist",
    "curses.plist",       "netspeak.plist",       "pidfile",
    kLibraryPages[0],     kLibraryPages[1],       kLibraryPages[2],
};
constexpr std::array<std::string_view, 2> kKeptInImages = {"pdf.png", "topimages"};

std::string FolderPath(std::string_view subfolder) {
  std::string path = DataFolder();
  if (!subfolder.empty()) {
    path += '/';
    path += subfolder;
  }
  return path;
}

// Empties and removes the folder open at `fd` entry by entry; links are
// removed as links, never followed.
void RemoveTreeAt(int parent, const char* name) {
  int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    unlinkat(parent, name, 0);
    return;
  }
  DIR* dir = fdopendir(fd);
  if (!dir) {
    close(fd);
    return;
  }
  while (dirent* e = readdir(dir)) {
    std::string_view n = e->d_name;
    if (n == "." || n == "..") continue;
    if (unlinkat(fd, e->d_name, 0) != 0) RemoveTreeAt(fd, e->d_name);
  }
  closedir(dir);
  unlinkat(parent, name, AT_REMOVEDIR);
}

}  // namespace

bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool IsProtectedName(std::string_view subfolder, std::string_view name) {
  if (subfolder.empty()) {
    for (auto kept : kKeptInDataFolder)
      if (name == kept) return true;
  } else if (subfolder == "Images") {
    for (auto kept : kKeptInImages)
      if (name == kept) return true;
  }
  return false;
}

bool WriteIntoFolder(const std::string& folder, std::string_view name, std::string_view bytes) {
  if (!IsPlainFileName(name)) {
    NSLog("Refusing to write a file with the name \"" + std::string(name) + "\" into " + folder);
    return false;
  }
  return WriteFileAtomically(folder + "/" + std::string(name), bytes);
}

bool WriteIntoDataFolder(std::string_view subfolder, std::string_view name,
                         std::string_view bytes) {
  if (!subfolder.empty() && subfolder != "Images") return false;
  if (IsPlainFileName(name) && IsProtectedName(subfolder, name)) {
    NSLog("Refusing to replace the supplied file " + std::string(name));
    return false;
  }
  return WriteIntoFolder(FolderPath(subfolder), name, bytes);
}

bool WriteLibraryPage(std::string_view name, std::string_view bytes) {
  for (auto page : kLibraryPages)
    if (name == page) return WriteFileAtomically(FolderPath("") + "/" + std::string(name), bytes);
  return false;
}

bool WriteStoreIntoDataFolder(std::string_view name, std::string_view bytes) {
  if (name != "gatheredURLs.plist" && name != "gatheredImages.plist" && name != "talkpulse.plist")
    return false;
  return WriteFileAtomically(FolderPath("") + "/" + std::string(name), bytes);
}

void ResetTopImagesFolder() {
  if (write_batch_internal::HoldTopImagesReset()) return;
  std::string images = FolderPath("Images");
  int fd = open(images.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  RemoveTreeAt(fd, "topimages");
  mkdirat(fd, "topimages", 0755);
  close(fd);
}

bool CopyIntoTopImages(std::string_view storedName, std::string_view destName) {
  constexpr std::string_view kPrefix = "Images/";
  if (storedName.substr(0, kPrefix.size()) != kPrefix) return false;
  std::string_view source = storedName.substr(kPrefix.size());
  if (!IsPlainFileName(source) || source == "topimages" || !IsPlainFileName(destName)) return false;
  // The source may be a file the open batch holds: copy when it is applied.
  if (write_batch_internal::HoldTopImagesCopy(storedName, destName)) return true;
  std::string images = FolderPath("Images");
  int in = open((images + "/" + std::string(source)).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (in < 0) return false;
  struct stat st {};
  if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(in);
    return false;
  }
  std::string bytes;
  char buf[1 << 16];
  for (;;) {
    ssize_t n = read(in, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(in);
      if (n < 0) return false;
      break;
    }
    bytes.append(buf, size_t(n));
  }
  std::string dest = images + "/topimages/" + std::string(destName);
  unlink(dest.c_str());
  return WriteFileAtomically(dest, bytes);
}

}  // namespace gab
