#include "platform/log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace gab {

std::string EscapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      char buf[5];
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    } else {
      out += char(c);
    }
  }
  return out;
}

namespace {
bool g_logEnabled = true;
}  // namespace

void SetLogEnabled(bool enabled) {
  g_logEnabled = enabled;
}

void NSLog(std::string_view message) {
  if (!g_logEnabled) return;
  int saved = errno;
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm local{};
  localtime_r(&tv.tv_sec, &local);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                int(tv.tv_usec / 1000));
  std::string line = stamp;
  line += ' ';
  line += program_invocation_short_name;
  line += '[' + std::to_string(getpid()) + "] ";
  line += EscapeControlCharacters(message);
  line += '\n';
  // One write per line keeps lines whole when several processes share stderr.
  size_t off = 0;
  while (off < line.size()) {
    ssize_t n = ::write(STDERR_FILENO, line.data() + off, line.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    off += size_t(n);
  }
  errno = saved;
}

}  // namespace gab
