// The HTTP module: Poco's threaded HTTP server.
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include "library/http_server.h"

namespace gab {
namespace {

class Handler : public Poco::Net::HTTPRequestHandler {
 public:
  explicit Handler(const HttpHandler& handler) : handler_(handler) {}
  void handleRequest(Poco::Net::HTTPServerRequest& request,
                     Poco::Net::HTTPServerResponse& response) override {
    HttpRequest in{request.getMethod(), request.getURI()};
    HttpResponse out;
    handler_(in, out);
    for (const auto& [name, value] : out.headers) response.set(name, value);
    response.setStatusAndReason(Poco::Net::HTTPResponse::HTTPStatus(out.status));
    if (!out.contentType.empty()) response.setContentType(out.contentType);
    response.setContentLength(std::streamsize(out.body.size()));
    if (in.method == "HEAD" || out.body.empty())
      response.send();
    else
      response.sendBuffer(out.body.data(), out.body.size());
  }

 private:
  const HttpHandler& handler_;
};

class Factory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  explicit Factory(HttpHandler handler) : handler_(std::move(handler)) {}
  Poco::Net::HTTPRequestHandler* createRequestHandler(
      const Poco::Net::HTTPServerRequest&) override {
    return new Handler(handler_);
  }

 private:
  HttpHandler handler_;
};

class PocoServer : public HttpServer {
 public:
  PocoServer(std::unique_ptr<Poco::Net::HTTPServer> server, uint16_t port)
      : server_(std::move(server)), port_(port) {}
  ~PocoServer() override { server_->stopAll(true); }
  uint16_t port() const override { return port_; }

 private:
  std::unique_ptr<Poco::Net::HTTPServer> server_;
  uint16_t port_;
};

std::unique_ptr<HttpServer> Serve(uint16_t port, int maxThreads, HttpHandler handler,
                                  std::string* err) {
  try {
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", port));
    uint16_t bound = socket.address().port();
    auto* params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(maxThreads);
    params->setKeepAlive(true);
    auto server =
        std::make_unique<Poco::Net::HTTPServer>(new Factory(std::move(handler)), socket, params);
    server->start();
    return std::make_unique<PocoServer>(std::move(server), bound);
  } catch (const Poco::Exception& e) {
    *err = e.displayText();
  } catch (const std::exception& e) {
    *err = e.what();
  }
  return nullptr;
}

}  // namespace
}  // namespace gab

extern "C" __attribute__((visibility("default"))) const gab::HttpModule* gabfolio_http_module() {
  static const gab::HttpModule module{gab::Serve};
  return &module;
}
