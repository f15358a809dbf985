#pragma once
// A small HTTP server on 127.0.0.1 that hands every request to one handler.
// It lives in the HTTP module (Poco's server), loaded only by `view`.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace gab {

struct HttpRequest {
  std::string method;
  std::string target;  // as sent: path, query and fragment
};

struct HttpResponse {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string contentType;  // none when empty
  std::string body;         // its length is sent; the bytes too, except for HEAD
};

using HttpHandler = std::function<void(const HttpRequest&, HttpResponse&)>;

// A running server; stops when destroyed.
class HttpServer {
 public:
  virtual ~HttpServer() = default;
  virtual uint16_t port() const = 0;
};

struct HttpModule {
  // Listens on 127.0.0.1:`port` (0 picks a free port) with up to
  // `maxThreads` threads calling `handler` at once; null with the reason in
  // `err` when the port cannot be had.
  std::unique_ptr<HttpServer> (*serve)(uint16_t port, int maxThreads, HttpHandler handler,
                                       std::string* err);
};
inline constexpr const char* kHttpModuleFile = "gabfolio-http.so";
inline constexpr const char* kHttpModuleEntry = "gabfolio_http_module";

}  // namespace gab
