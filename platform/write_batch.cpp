#include "platform/write_batch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <unordered_map>
#include <vector>

#include "platform/data_folder.h"
#include "platform/files.h"

namespace gab {

namespace {

constexpr std::string_view kJournalName = ".pending-writes";
constexpr std::string_view kMagic = "GABFOLIO-JOURNAL 1\n";

enum class OpKind : char { kWrite = 'W', kResetTopImages = 'R', kCopyTopImages = 'C' };

struct Op {
  OpKind kind = OpKind::kWrite;
  std::string path;   // relative to the folder (kWrite), the source (kCopyTopImages)
  std::string bytes;  // contents (kWrite), the destination name (kCopyTopImages)
  uint32_t mode = 0644;
};

WriteBatch::State* g_open = nullptr;

std::string JournalPath(const std::string& folder) {
  return folder + "/" + std::string(kJournalName);
}

void PutU32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out += char((v >> (8 * i)) & 0xFF);
}
void PutU64(std::string& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out += char((v >> (8 * i)) & 0xFF);
}
void PutBytes(std::string& out, std::string_view s) {
  PutU64(out, s.size());
  out += s;
}

class Reader {
 public:
  explicit Reader(std::string_view in) : in_(in) {}
  bool U32(uint32_t* v) {
    if (in_.size() < 4) return false;
    *v = 0;
    for (int i = 0; i < 4; ++i) *v |= uint32_t(uint8_t(in_[size_t(i)])) << (8 * i);
    in_.remove_prefix(4);
    return true;
  }
  bool U64(uint64_t* v) {
    if (in_.size() < 8) return false;
    *v = 0;
    for (int i = 0; i < 8; ++i) *v |= uint64_t(uint8_t(in_[size_t(i)])) << (8 * i);
    in_.remove_prefix(8);
    return true;
  }
  bool Bytes(std::string* s) {
    uint64_t n = 0;
    if (!U64(&n) || n > in_.size()) return false;
    s->assign(in_.substr(0, size_t(n)));
    in_.remove_prefix(size_t(n));
    return true;
  }
  bool Char(char* c) {
    if (in_.empty()) return false;
    *c = in_[0];
    in_.remove_prefix(1);
    return true;
  }
  bool AtEnd() const { return in_.empty(); }

 private:
  std::string_view in_;
};

// A journal names only files below its folder: no absolute path, no "..".
bool SafeRelativePath(std::string_view path) {
  if (path.empty() || path.front() == '/' || path.find('\0') != std::string_view::npos)
    return false;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    std::string_view part = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return true;
}

std::string Encode(const std::vector<Op>& ops) {
  std::string out(kMagic);
  for (const Op& op : ops) {
    out += char(op.kind);
    PutU32(out, op.mode);
    PutBytes(out, op.path);
    PutBytes(out, op.bytes);
  }
  // The count at the end shows the journal is whole.
  out += 'E';
  PutU64(out, ops.size());
  return out;
}

bool Decode(std::string_view in, std::vector<Op>* ops) {
  if (in.substr(0, kMagic.size()) != kMagic) return false;
  Reader r(in.substr(kMagic.size()));
  for (;;) {
    char kind = 0;
    if (!r.Char(&kind)) return false;
    if (kind == 'E') {
      uint64_t count = 0;
      return r.U64(&count) && count == ops->size() && r.AtEnd();
    }
    Op op;
    if (kind != char(OpKind::kWrite) && kind != char(OpKind::kResetTopImages) &&
        kind != char(OpKind::kCopyTopImages))
      return false;
    op.kind = OpKind(kind);
    if (!r.U32(&op.mode) || !r.Bytes(&op.path) || !r.Bytes(&op.bytes)) return false;
    if (op.kind == OpKind::kWrite && !SafeRelativePath(op.path)) return false;
    ops->push_back(std::move(op));
  }
}

// Runs the operations for real (no batch is open then).
bool Apply(const std::string& folder, const std::vector<Op>& ops, std::string* err) {
  for (const Op& op : ops) {
    switch (op.kind) {
      case OpKind::kWrite: {
        std::string why;
        if (!WriteFileAtomically(folder + "/" + op.path, op.bytes, mode_t(op.mode), &why)) {
          if (err) *err = op.path + ": " + why;
          return false;
        }
        break;
      }
      case OpKind::kResetTopImages:
        ResetTopImagesFolder();
        break;
      case OpKind::kCopyTopImages:
        CopyIntoTopImages(op.path, op.bytes);  // a missing source is no reason to stop
        break;
    }
  }
  return true;
}

// Temporary files of whole-file writes whose process was killed before the
// rename: hidden, ".<name>.tmp-XXXXXX".  Only old ones go, so a write under
// way in another process keeps its file.
void RemoveStaleTemporaryFiles(const std::string& folder) {
  constexpr time_t kStaleSeconds = 600;
  const time_t now = std::time(nullptr);
  DIR* dir = opendir(folder.c_str());
  if (!dir) return;
  while (dirent* entry = readdir(dir)) {
    std::string_view name = entry->d_name;
    size_t tmp = name.rfind(".tmp-");
    if (name.size() < 12 || name[0] != '.' || tmp == std::string_view::npos ||
        name.size() - tmp != 11)
      continue;
    struct stat st {};
    if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
        now - st.st_mtime > kStaleSeconds)
      unlinkat(dirfd(dir), entry->d_name, 0);
  }
  closedir(dir);
}

// Applies the operations of the journal in `folder`, then removes it; a
// journal that could not be applied whole stays.
bool ApplyJournal(const std::string& folder, const std::vector<Op>& ops, std::string* err) {
  if (!Apply(folder, ops, err)) return false;
  ::unlink(JournalPath(folder).c_str());
  return true;
}

}  // namespace

struct WriteBatch::State {
  std::string folder;
  std::vector<Op> ops;
  std::unordered_map<std::string, size_t> written;  // full path -> its op

  bool Covers(const std::string& path) const {
    return path.size() > folder.size() + 1 && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
  }
};

WriteBatch::WriteBatch(std::string folder) : state_(std::make_unique<State>()) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  state_->folder = std::move(folder);
  if (!g_open) g_open = state_.get();
}

WriteBatch::~WriteBatch() {
  if (g_open == state_.get()) g_open = nullptr;
}

size_t WriteBatch::HeldFiles() const {
  return state_->written.size();
}

bool WriteBatch::Commit(std::string* err) {
  if (state_->ops.empty()) return true;
  const std::string& folder = state_->folder;
  std::vector<Op> ops = std::move(state_->ops);
  state_->ops.clear();
  state_->written.clear();
  // The writes below must reach the disk, not this batch.
  State* open = g_open;
  if (g_open == state_.get()) g_open = nullptr;
  std::string why;
  bool ok = WriteFileAtomically(JournalPath(folder), Encode(ops), 0600, &why);
  if (!ok) {
    if (err) *err = "cannot write the journal: " + why;
  } else {
    ok = ApplyJournal(folder, ops, err);  // on failure the journal stays for recovery
  }
  g_open = open;
  return ok;
}

bool RecoverWriteBatch(const std::string& folder, std::string* err) {
  RemoveStaleTemporaryFiles(folder);
  const std::string path = JournalPath(folder);
  if (!FileExists(path)) return true;
  // Only an apply that was cut short leaves temporary files among the images.
  RemoveStaleTemporaryFiles(folder + "/Images");
  std::optional<std::string> bytes = ReadWholeFile(path);
  if (!bytes) {
    if (err) *err = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  std::vector<Op> ops;
  if (!Decode(*bytes, &ops)) {
    // Only a whole journal is ever renamed into place; this one is not ours.
    std::string aside = path + ".damaged";
    std::rename(path.c_str(), aside.c_str());
    if (err) *err = "the journal " + path + " is damaged; kept as " + aside;
    return false;
  }
  return ApplyJournal(folder, ops, err);
}

bool HasPendingWriteBatch(const std::string& folder) {
  return FileExists(JournalPath(folder));
}

namespace write_batch_internal {

const std::string* HeldContents(const std::string& path) {
  if (!g_open) return nullptr;
  auto it = g_open->written.find(path);
  return it == g_open->written.end() ? nullptr : &g_open->ops[it->second].bytes;
}

bool Hold(const std::string& path, std::string_view bytes, unsigned mode) {
  if (!g_open || !g_open->Covers(path)) return false;
  // A file written again keeps its place: only its last contents count.
  auto [it, fresh] = g_open->written.emplace(path, g_open->ops.size());
  if (fresh) {
    Op op;
    op.kind = OpKind::kWrite;
    op.path = path.substr(g_open->folder.size() + 1);
    g_open->ops.push_back(std::move(op));
  }
  Op& op = g_open->ops[it->second];
  op.bytes.assign(bytes);
  op.mode = mode;
  return true;
}

bool HoldTopImagesReset() {
  if (!g_open) return false;
  Op op;
  op.kind = OpKind::kResetTopImages;
  g_open->ops.push_back(std::move(op));
  return true;
}

bool HoldTopImagesCopy(std::string_view source, std::string_view dest) {
  if (!g_open) return false;
  Op op;
  op.kind = OpKind::kCopyTopImages;
  op.path.assign(source);
  op.bytes.assign(dest);
  g_open->ops.push_back(std::move(op));
  return true;
}

}  // namespace write_batch_internal

}  // namespace gab
