#include "platform/preferences.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/home.h"
#include "platform/log.h"
#include "platform/plist.h"

namespace gab {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// NSString boolValue: blanks, an optional sign and leading zeros are skipped;
// then Y, y, T, t or a digit 1-9 means YES.
bool StringBool(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && IsBlank(s[i])) ++i;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  while (i < s.size() && s[i] == '0') ++i;
  if (i >= s.size()) return false;
  char c = s[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// NSString intValue: the leading decimal integer after blanks, clamped to the
// int range; 0 when there is none.
int32_t StringInt(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && IsBlank(s[i])) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  int64_t value = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    value = value * 10 + (s[i] - '0');
    if (value > int64_t(INT32_MAX) + 1) break;  // saturated either way
  }
  if (negative) value = -value;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return int32_t(value);
}

std::optional<PrefValue> FromNode(plist_t node) {
  std::optional<PrefValue> out;
  if (!node) return out;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      out.emplace(std::in_place_type<bool>, b != 0);
      break;
    }
    case PLIST_UINT: {
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      out.emplace(std::in_place_type<int64_t>, int64_t(u));
      break;
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      out.emplace(std::in_place_type<double>, d);
      break;
    }
    case PLIST_STRING: {
      uint64_t len = 0;
      const char* p = plist_get_string_ptr(node, &len);
      out.emplace(std::in_place_type<std::string>, p ? p : "", p ? size_t(len) : 0);
      break;
    }
    default:
      out.emplace(std::in_place_type<PrefOther>);
      break;
  }
  return out;
}

// A new node for a value; null for PrefOther, which carries nothing to write.
plist_t ToNode(const PrefValue& v) {
  if (auto* b = std::get_if<bool>(&v)) return plist_new_bool(*b ? 1 : 0);
  if (auto* i = std::get_if<int64_t>(&v)) return plist_new_uint(uint64_t(*i));
  if (auto* d = std::get_if<double>(&v)) return plist_new_real(*d);
  if (auto* s = std::get_if<std::string>(&v)) return plist_new_string(s->c_str());
  return nullptr;
}

// What identifies one version of the file: a rename gives a new inode, an
// in-place rewrite a new size or time.
struct FileIdentity {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtime{};
  timespec ctime{};
  bool operator==(const FileIdentity& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec &&
           ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
  }
};

FileIdentity Identify(const std::string& path) {
  FileIdentity id;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return id;
  id.exists = true;
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  id.size = st.st_size;
  id.mtime = st.st_mtim;
  id.ctime = st.st_ctim;
  return id;
}

std::string ParentOf(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Creates the folder (and missing parents); the preferences folder itself is
// private to the user.
bool MakeFolder(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  std::string parent = ParentOf(path);
  if (parent != path && !MakeFolder(parent)) return false;
  return ::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

}  // namespace

bool BoolValue(const std::optional<PrefValue>& v) {
  if (!v) return false;
  if (auto* b = std::get_if<bool>(&*v)) return *b;
  if (auto* i = std::get_if<int64_t>(&*v)) return *i != 0;
  if (auto* d = std::get_if<double>(&*v)) return *d != 0.0;
  if (auto* s = std::get_if<std::string>(&*v)) return StringBool(*s);
  return false;
}

int32_t IntValue(const std::optional<PrefValue>& v) {
  if (!v) return 0;
  if (auto* b = std::get_if<bool>(&*v)) return *b ? 1 : 0;
  if (auto* i = std::get_if<int64_t>(&*v)) return int32_t(uint32_t(uint64_t(*i)));  // as NSNumber
  if (auto* d = std::get_if<double>(&*v)) {
    if (std::isnan(*d)) return 0;
    if (*d >= 2147483647.0) return INT32_MAX;
    if (*d <= -2147483648.0) return INT32_MIN;
    return int32_t(*d);
  }
  if (auto* s = std::get_if<std::string>(&*v)) return StringInt(*s);
  return 0;
}

std::optional<std::string> StringValue(const std::optional<PrefValue>& v) {
  if (!v) return std::nullopt;
  if (auto* s = std::get_if<std::string>(&*v)) return *s;
  return std::nullopt;
}

struct Preferences::State {
  std::mutex mutex;
  bool loaded = false;
  bool unreadable = false;  // the file is there but is no dictionary
  FileIdentity identity;    // of the file as last read or written
  PlistPtr file;            // its contents (a dictionary)
  PlistPtr copy;            // file contents with this process's changes laid over
  std::map<std::string, PlistPtr, std::less<>> dirty;  // null: removed

  // Reads the file when it is not the version we hold.
  void Refresh(const std::string& path) {
    FileIdentity now = Identify(path);
    if (loaded && now == identity) return;
    loaded = true;
    unreadable = false;
    identity = now;
    PlistPtr root;
    if (now.exists) {
      bool exists = false;
      root = ReadPlistFile(path, &exists);
      if (exists &&
          (!root || plist_get_node_type(static_cast<plist_t>(root.get())) != PLIST_DICT)) {
        NSLog("Preferences file " + path + " is not a property list dictionary; ignoring it.");
        root.reset();
        unreadable = true;
      }
    }
    file = root ? std::move(root) : PlistPtr(plist_new_dict());
  }

  void RebuildCopy() {
    copy.reset(plist_copy(static_cast<plist_t>(file.get())));
    plist_t dict = static_cast<plist_t>(copy.get());
    for (auto& [key, value] : dirty) {
      if (value)
        plist_dict_set_item(dict, key.c_str(), plist_copy(static_cast<plist_t>(value.get())));
      else if (plist_dict_get_item(dict, key.c_str()))
        plist_dict_remove_item(dict, key.c_str());
    }
  }
};

Preferences& Preferences::Shared() {
  static Preferences shared(HomeDirectory() + "/Library/Preferences/" + kDomain + ".plist");
  return shared;
}

Preferences::Preferences(std::string plistPath) : path_(std::move(plistPath)), state_(new State) {}

Preferences::~Preferences() {
  delete state_;
}

std::optional<PrefValue> Preferences::CopyAppValue(std::string_view key) {
  std::lock_guard lock(state_->mutex);
  if (!state_->loaded) {
    state_->Refresh(path_);
    state_->RebuildCopy();
  }
  std::string k(key);
  return FromNode(plist_dict_get_item(static_cast<plist_t>(state_->copy.get()), k.c_str()));
}

void Preferences::SetAppValue(std::string_view key, std::optional<PrefValue> value) {
  std::lock_guard lock(state_->mutex);
  if (!state_->loaded) {
    state_->Refresh(path_);
    state_->RebuildCopy();
  }
  PlistPtr node;
  if (value) {
    node.reset(ToNode(*value));
    if (!node) return;  // an uninterpreted value cannot be written back
  }
  std::string k(key);
  plist_t dict = static_cast<plist_t>(state_->copy.get());
  if (node)
    plist_dict_set_item(dict, k.c_str(), plist_copy(static_cast<plist_t>(node.get())));
  else if (plist_dict_get_item(dict, k.c_str()))
    plist_dict_remove_item(dict, k.c_str());
  state_->dirty[k] = std::move(node);
}

bool Preferences::AppSynchronize() {
  std::lock_guard guard(state_->mutex);
  State& s = *state_;
  std::string folder = ParentOf(path_);
  if (s.dirty.empty()) {
    // Nothing to write: without a folder there is nothing to read or lock.
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0) {
      s.loaded = true;
      s.identity = FileIdentity{};
      s.file.reset(plist_new_dict());
      s.RebuildCopy();
      return true;
    }
  } else if (!MakeFolder(folder)) {
    NSLog("Unable to create the preferences folder " + folder + ": " + std::strerror(errno));
    return false;
  }

  // The lock lives on a sidecar file: a lock on the plist itself would be
  // lost each time a writer renames a new version over it.
  std::string lockPath = path_ + ".lock";
  int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    NSLog("Unable to open the preferences lock " + lockPath + ": " + std::strerror(errno));
    return false;
  }
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      NSLog("Unable to lock the preferences " + lockPath + ": " + std::strerror(errno));
      ::close(fd);
      return false;
    }
  }

  s.Refresh(path_);
  bool ok = true;
  if (!s.dirty.empty()) {
    s.RebuildCopy();
    if (s.unreadable) {
      // Kept aside rather than overwritten: someone may want its contents.
      std::string aside = path_ + ".unreadable";
      if (::rename(path_.c_str(), aside.c_str()) == 0)
        NSLog("Moved the unreadable preferences to " + aside);
    }
    std::string error;
    // Values set to what the file holds already (the agent stores
    // "errorStatus" 0 before every entry of a pass) need no write.
    if (s.identity.exists && !s.unreadable && s.file &&
        PlistToXml(static_cast<plist_t>(s.copy.get())) ==
            PlistToXml(static_cast<plist_t>(s.file.get()))) {
      s.dirty.clear();
    } else if (WritePlistFile(path_, static_cast<plist_t>(s.copy.get()), 0600, &error)) {
      s.file.reset(plist_copy(static_cast<plist_t>(s.copy.get())));
      s.identity = Identify(path_);
      s.dirty.clear();
    } else {
      // The changes stay pending; the next synchronisation tries again.
      NSLog("Unable to write the preferences " + path_ + ": " + error);
      ok = false;
    }
  }
  s.RebuildCopy();
  ::flock(fd, LOCK_UN);
  ::close(fd);
  return ok;
}

}  // namespace gab
