#pragma once
// The library viewer: a read-only HTTP server on 127.0.0.1 over the data
// folder.  The pages escape names their own way (stringWithFunkyURLStuffInserted:
// every "%" and the two characters after it stand for one UTF-16 unit, and
// above 0xFF the first character is not a hexadecimal digit), so the viewer
// decodes exactly that escaping to find the file a link means.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gab {

// Decodes a request path as a browser sends it: the product's escapes, in
// which a non-ASCII first digit arrives percent-encoded as UTF-8 by the
// browser.  Nothing when the path cannot be one of ours.
std::optional<std::u16string> DecodeLibraryPath(std::string_view rawPath);

struct LibraryFile {
  int status = 404;         // 200, 301 (to `location`), 403, 404
  std::string contentType;  // for 200
  std::string body;         // for 200
  std::string location;     // for 301
};

// Resolves a raw request path (query and fragment allowed) against `folder`:
// no "." or ".." components, no symbolic links, regular files only.
LibraryFile ResolveLibraryRequest(const std::string& folder, std::string_view rawTarget);

// A page made on request.
struct ViewerReply {
  int status = 200;
  std::string contentType = "text/html; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // beside the usual ones
};

// Pages the viewer makes on request beside the library's files (reading and
// search); called from several server threads at once.
class ViewerPages {
 public:
  virtual ~ViewerPages() = default;
  // True when `path` (as requested, without query) is one of these pages.
  virtual bool Serve(std::string_view path, std::string_view query, ViewerReply& reply) = 0;
};

// A running viewer; stops when destroyed.
class LibraryViewer {
 public:
  // Binds 127.0.0.1:`port` (0 picks a free port).  Throws nothing: check ok().
  LibraryViewer(std::string folder, uint16_t port, std::shared_ptr<ViewerPages> pages = nullptr);
  ~LibraryViewer();
  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  uint16_t port() const { return port_; }

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  std::string error_;
  uint16_t port_ = 0;
};

}  // namespace gab
