// The mail module: TCP and TLS through Poco's sockets and OpenSSL.
#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/X509Certificate.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>

#include "delivery/mail_transport.h"

namespace gab {
namespace {

Poco::Timespan ToTimespan(double seconds) {
  return Poco::Timespan(Poco::Timespan::TimeDiff(std::max(0.001, seconds) * 1e6));
}

class PocoTransport : public MailTransport {
 public:
  explicit PocoTransport(Poco::Net::StreamSocket socket) : socket_(std::move(socket)) {}
  ~PocoTransport() override {
    try {
      socket_.close();
    } catch (...) {
    }
  }

  TransportStatus Send(std::string_view bytes) override {
    try {
      size_t off = 0;
      while (off < bytes.size()) {
        int n = socket_.sendBytes(bytes.data() + off, int(bytes.size() - off),
                                  secure_ ? 0 : MSG_NOSIGNAL);
        // A TLS socket says -1 when it would have to wait longer.
        if (n <= 0) return n < 0 ? TransportStatus::kTimedOut : TransportStatus::kFailed;
        off += size_t(n);
      }
      return TransportStatus::kOk;
    } catch (const Poco::TimeoutException&) {
      return TransportStatus::kTimedOut;
    } catch (const Poco::Exception&) {
      return TransportStatus::kFailed;
    }
  }

  TransportStatus Receive(char* buffer, size_t size, size_t* received) override {
    *received = 0;
    try {
      int n = socket_.receiveBytes(buffer, int(size));
      if (n < 0) return TransportStatus::kTimedOut;  // TLS wants more than the time-out gave
      *received = size_t(n);
      return TransportStatus::kOk;
    } catch (const Poco::TimeoutException&) {
      return TransportStatus::kTimedOut;
    } catch (const Poco::Exception&) {
      return TransportStatus::kFailed;
    }
  }

  TransportStatus StartTLS(const std::string& host) override {
    static std::once_flag once;
    std::call_once(once, [] { Poco::Net::initializeSSL(); });
    try {
      // A fresh context per connection: the CA locations are read from the
      // environment at the time of the transfer.
      Poco::Net::Context::Ptr context = new Poco::Net::Context(
          Poco::Net::Context::TLS_CLIENT_USE, "", Poco::Net::Context::VERIFY_RELAXED, 9, true);
      context->disableProtocols(Poco::Net::Context::PROTO_SSLV2 | Poco::Net::Context::PROTO_SSLV3 |
                                Poco::Net::Context::PROTO_TLSV1 |
                                Poco::Net::Context::PROTO_TLSV1_1);
      context->enableExtendedCertificateVerification(true);
      Poco::Net::SecureStreamSocket secure =
          Poco::Net::SecureStreamSocket::attach(socket_, host, context);
      // The chain is checked during the handshake; the name is checked here,
      // so that a trusted certificate for another host is refused as well.
      if (!secure.havePeerCertificate() || !secure.peerCertificate().verify(host))
        return TransportStatus::kFailed;
      socket_ = secure;
      secure_ = true;
      return TransportStatus::kOk;
    } catch (const Poco::TimeoutException&) {
      return TransportStatus::kTimedOut;
    } catch (const Poco::Exception&) {
      return TransportStatus::kFailed;
    }
  }

  void SetSendTimeout(double seconds) override {
    try {
      socket_.setSendTimeout(ToTimespan(seconds));
    } catch (...) {
    }
  }

  bool secure() const override { return secure_; }

 private:
  Poco::Net::StreamSocket socket_;
  bool secure_ = false;
};

std::unique_ptr<MailTransport> Connect(const std::string& host, int port, double timeout,
                                       TransportStatus* status, std::string* err) {
  try {
    Poco::Net::StreamSocket socket;
    Poco::Net::SocketAddress address(host, static_cast<Poco::UInt16>(port));
    socket.connect(address, ToTimespan(timeout));
    socket.setReceiveTimeout(ToTimespan(timeout));
    socket.setSendTimeout(ToTimespan(timeout));
    socket.setNoDelay(true);
    *status = TransportStatus::kOk;
    return std::make_unique<PocoTransport>(std::move(socket));
  } catch (const Poco::TimeoutException& e) {
    *status = TransportStatus::kTimedOut;
    *err = e.displayText();
  } catch (const Poco::Exception& e) {
    *status = TransportStatus::kFailed;
    *err = e.displayText();
  } catch (const std::exception& e) {
    *status = TransportStatus::kFailed;
    *err = e.what();
  }
  return nullptr;
}

}  // namespace
}  // namespace gab

extern "C" __attribute__((visibility("default"))) const gab::MailModule* gabfolio_mail_module() {
  static const gab::MailModule module{gab::Connect};
  return &module;
}
