#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/write_batch.h"

namespace gab {

std::optional<std::string> ReadWholeFile(const std::string& path) {
  if (const std::string* held = write_batch_internal::HeldContents(path)) return *held;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string data;
  struct stat st {};
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
    data.reserve(size_t(st.st_size));
  char buf[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    data.append(buf, size_t(n));
  }
  ::close(fd);
  return data;
}

std::optional<std::string> ReadRegularFile(const std::string& path, size_t limit,
                                           std::string* err) {
  auto fail = [&](std::string why) -> std::optional<std::string> {
    if (err) *err = std::move(why);
    return std::nullopt;
  };
  // O_NONBLOCK: opening a FIFO must not wait for a writer.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return fail(std::string("cannot read the file: ") + std::strerror(errno));
  struct stat st {};
  if (fstat(fd, &st) != 0) {
    int saved = errno;
    ::close(fd);
    return fail(std::string("cannot read the file: ") + std::strerror(saved));
  }
  if (!S_ISREG(st.st_mode)) {
    ::close(fd);
    return fail(S_ISDIR(st.st_mode) ? "it is a folder, not a file"
                                    : "not a regular file (a device, FIFO or socket)");
  }
  if (uint64_t(st.st_size) > limit) {
    ::close(fd);
    return fail("the file is too large (" + std::to_string(st.st_size / (1024 * 1024)) +
                " MiB; at most " + std::to_string(limit / (1024 * 1024)) + " MiB are read)");
  }
  // One byte of room beyond the size tells a file that grew meanwhile
  // without a second read or a doubled buffer.
  std::string data;
  data.resize(size_t(st.st_size) + 1);
  size_t off = 0;
  for (;;) {
    if (off == data.size()) {
      if (data.size() >= limit) break;
      data.resize(std::min(limit, data.size() + (1 << 16)));
    }
    ssize_t n = ::read(fd, data.data() + off, data.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int saved = errno;
      ::close(fd);
      return fail(std::string("cannot read the file: ") + std::strerror(saved));
    }
    if (n == 0) break;
    off += size_t(n);
  }
  ::close(fd);
  data.resize(off);
  return data;
}

size_t UntrustedFileLimit() {
  static const size_t limit = [] {
    constexpr uint64_t kCeiling = uint64_t(256) << 20;  // real transcripts stay below 50 MiB
    long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGE_SIZE);
    uint64_t quarter = pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) / 4 : 0;
    return size_t(quarter ? std::min(kCeiling, quarter) : kCeiling);
  }();
  return limit;
}

bool WriteFileAtomically(const std::string& path, std::string_view bytes, mode_t mode,
                         std::string* error) {
  auto fail = [&](const char* what) {
    if (error) *error = std::string(what) + ": " + std::strerror(errno);
    return false;
  };
  if (write_batch_internal::Hold(path, bytes, mode)) return true;
  struct stat st {};
  if (lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) {
    errno = S_ISDIR(st.st_mode) ? EISDIR : EEXIST;
    return fail("not a regular file");
  }
  // A hidden name beside the file: a process killed before the rename leaves
  // only this behind (see RemoveStaleTemporaryFiles).
  size_t slash = path.rfind('/');
  std::string tmpl = slash == std::string::npos
                         ? "." + path + ".tmp-XXXXXX"
                         : path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".tmp-XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return fail("cannot create temporary file");
  size_t off = 0;
  while (off < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + off, bytes.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      int saved = errno;
      ::close(fd);
      ::unlink(name.data());
      errno = saved;
      return fail("write failed");
    }
    off += size_t(n);
  }
  if (fchmod(fd, mode) != 0 || fsync(fd) != 0) {
    int saved = errno;
    ::close(fd);
    ::unlink(name.data());
    errno = saved;
    return fail("cannot finish temporary file");
  }
  ::close(fd);
  if (::rename(name.data(), path.c_str()) != 0) {
    int saved = errno;
    ::unlink(name.data());
    errno = saved;
    return fail("rename failed");
  }
  return true;
}

bool WriteOutputFile(const std::string& path, std::string_view bytes, std::string* error) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))
    return WriteFileAtomically(path, bytes, 0644, error);
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    if (error) *error = std::string("cannot open: ") + std::strerror(errno);
    return false;
  }
  for (size_t off = 0; off < bytes.size();) {
    ssize_t n = ::write(fd, bytes.data() + off, bytes.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (error) *error = std::string("write failed: ") + std::strerror(errno);
      ::close(fd);
      return false;
    }
    off += size_t(n);
  }
  ::close(fd);
  return true;
}

bool FileExists(const std::string& path) {
  if (write_batch_internal::HeldContents(path)) return true;
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace gab
