#include "library/viewer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "library/http_server.h"
#include "platform/module.h"
#include "platform/text.h"

namespace gab {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// One character of the request as the page had it: a plain byte, or a
// percent-encoded byte sequence the browser made of one character (ASCII or
// UTF-8).  Returns the code point, or -1.
long ReadBrowserChar(std::string_view raw, size_t& i) {
  auto byteAt = [&](size_t& j) -> int {
    if (j >= raw.size()) return -1;
    if (raw[j] != '%') return static_cast<unsigned char>(raw[j++]);
    if (j + 2 >= raw.size()) return -1;
    int h = HexValue(raw[j + 1]), l = HexValue(raw[j + 2]);
    if (h < 0 || l < 0) return -1;
    j += 3;
    return h * 16 + l;
  };
  int b = byteAt(i);
  if (b < 0) return -1;
  if (b < 0x80) return b;
  int extra = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : -1;
  if (extra < 0) return -1;
  long cp = b & (0x3F >> extra);
  for (int k = 0; k < extra; ++k) {
    int c = byteAt(i);
    if (c < 0 || (c & 0xC0) != 0x80) return -1;
    cp = (cp << 6) | (c & 0x3F);
  }
  return cp;
}

}  // namespace

std::optional<std::u16string> DecodeLibraryPath(std::string_view raw) {
  std::u16string out;
  size_t i = 0;
  while (i < raw.size()) {
    if (raw[i] != '%') {
      long c = ReadBrowserChar(raw, i);  // a plain character (raw UTF-8 too)
      if (c < 0 || c > 0xFFFF) return std::nullopt;
      out += char16_t(c);
      continue;
    }
    ++i;
    // The first digit: '0'-'9' stands for 0-9, anything from 'A' up for the
    // value plus 0x37 (so 'A'-'F' are 10-15, and larger values go on).  It is
    // never a plain '%', so a '%' here is the browser's encoding of it.
    long high = ReadBrowserChar(raw, i);
    if (high < '0' || (high > '9' && high < 'A') || high > 0x37 + 0xFFF) return std::nullopt;
    long value = high <= '9' ? high - '0' : high - 0x37;
    if (i >= raw.size()) return std::nullopt;
    int low = HexValue(raw[i]);
    if (low < 0 || (raw[i] >= 'a' && raw[i] <= 'f')) return std::nullopt;
    ++i;
    out += char16_t((value << 4) | low);
  }
  return out;
}

namespace {

std::string TypeFor(const std::string& name, std::string_view head) {
  auto ext = name.substr(name.rfind('.') == std::string::npos ? name.size() : name.rfind('.') + 1);
  if (ext == "html" || ext == "htm") return "text/html; charset=utf-8";
  auto starts = [&](std::string_view magic) { return head.substr(0, magic.size()) == magic; };
  // Attachments keep whatever extension they came with (or ".image"): the
  // bytes decide.
  if (starts("\x89PNG")) return "image/png";
  if (starts("\xFF\xD8\xFF")) return "image/jpeg";
  if (starts("GIF8")) return "image/gif";
  if (starts("%PDF")) return "application/pdf";
  if (starts("BM")) return "image/bmp";
  if (starts("II*") || starts("MM\0*")) return "image/tiff";
  if (starts("RIFF") && head.substr(8, 4) == "WEBP") return "image/webp";
  if (ext == "txt") return "text/plain; charset=utf-8";
  return "application/octet-stream";
}

}  // namespace

LibraryFile ResolveLibraryRequest(const std::string& folder, std::string_view target) {
  LibraryFile file;
  std::string_view raw = target.substr(0, target.find_first_of("?#"));
  if (raw.empty() || raw[0] != '/') return file;
  if (raw == "/") {
    file.status = 301;
    file.location = "/Links.html";
    return file;
  }
  auto decoded = DecodeLibraryPath(raw.substr(1));
  if (!decoded) return file;
  std::string path = ToUtf8(*decoded);
  std::vector<std::string> parts;
  for (size_t from = 0;;) {
    size_t slash = path.find('/', from);
    parts.push_back(path.substr(from, slash - from));
    if (slash == std::string::npos) break;
    from = slash + 1;
  }
  for (const auto& p : parts)
    if (p.empty() || p == "." || p == ".." || p.find('\0') != std::string::npos) {
      file.status = 403;
      return file;
    }
  // Walk down without following links, so nothing outside the folder is reached.
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (size_t k = 0; fd >= 0 && k < parts.size(); ++k) {
    bool last = k + 1 == parts.size();
    int next =
        openat(fd, parts[k].c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | (last ? 0 : O_DIRECTORY));
    close(fd);
    fd = next;
  }
  if (fd < 0) return file;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    file.status = 403;
    return file;
  }
  std::string body;
  body.reserve(size_t(st.st_size));
  char buf[1 << 16];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    body.append(buf, size_t(n));
  }
  close(fd);
  file.status = 200;
  file.contentType = TypeFor(parts.back(), std::string_view(body).substr(0, 16));
  file.body = std::move(body);
  return file;
}

namespace {

// Answers one request: a page made on request, else a file of the folder.
void Answer(const std::string& folder, ViewerPages* pages, const HttpRequest& request,
            HttpResponse& response) {
  // Chat text never runs as script here, whatever the page or file.
  response.headers = {{"Content-Security-Policy", "script-src 'none'"},
                      {"X-Content-Type-Options", "nosniff"},
                      {"Cache-Control", "no-cache"}};
  if (request.method != "GET" && request.method != "HEAD") {
    response.headers.emplace_back("Allow", "GET, HEAD");
    response.status = 405;
    return;
  }
  if (pages) {
    std::string_view target = request.target;
    target = target.substr(0, target.find('#'));
    size_t q = target.find('?');
    ViewerReply reply;
    if (pages->Serve(target.substr(0, q),
                     q == std::string_view::npos ? std::string_view() : target.substr(q + 1),
                     reply)) {
      for (auto& header : reply.headers) response.headers.push_back(std::move(header));
      response.status = reply.status;
      response.contentType = std::move(reply.contentType);
      response.body = std::move(reply.body);
      return;
    }
  }
  LibraryFile file = ResolveLibraryRequest(folder, request.target);
  response.status = file.status;
  if (file.status == 301) {
    response.headers.emplace_back("Location", file.location);
  } else if (file.status != 200) {
    response.contentType = "text/plain; charset=utf-8";
    response.body = file.status == 403 ? "Forbidden\n" : "Not found\n";
  } else {
    response.contentType = std::move(file.contentType);
    response.body = std::move(file.body);
  }
}

}  // namespace

struct LibraryViewer::Impl {
  std::unique_ptr<HttpServer> server;
};

LibraryViewer::LibraryViewer(std::string folder, uint16_t port, std::shared_ptr<ViewerPages> pages)
    : impl_(std::make_unique<Impl>()) {
  auto* module = LoadModule<HttpModule>(kHttpModuleFile, kHttpModuleEntry, &error_);
  if (!module) return;
  impl_->server = module->serve(
      port, 4,
      [folder = std::move(folder), pages = std::move(pages)](const HttpRequest& request,
                                                             HttpResponse& response) {
        Answer(folder, pages.get(), request, response);
      },
      &error_);
  if (impl_->server) port_ = impl_->server->port();
}

LibraryViewer::~LibraryViewer() = default;

}  // namespace gab
