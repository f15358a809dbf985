#include "delivery/cw_smtp.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>

#include "delivery/mail_transport.h"
#include "delivery/run_loop.h"
#include "platform/module.h"

namespace gab {

namespace {

std::atomic<double> gDefaultTimeout{60.0};

// Writing to a socket the peer has closed raises SIGPIPE, which would end
// the whole process.  While a guard lives the signal is blocked on this
// thread, and one that arrived meanwhile is consumed before unblocking.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe, &old_);
  }
  ~SigpipeGuard() {
    if (!wasPending_) {
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, SIGPIPE) == 1) {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        timespec zero{0, 0};
        sigtimedwait(&pipe, nullptr, &zero);
      }
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }

 private:
  sigset_t old_;
  bool wasPending_ = false;
};

std::string Base64(std::string_view bytes) {
  static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  uint32_t acc = 0;
  int bits = 0;
  for (unsigned char c : bytes) {
    acc = (acc << 8) | c;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out += kAlphabet[(acc >> bits) & 63];
    }
  }
  if (bits > 0) out += kAlphabet[(acc << (6 - bits)) & 63];
  while (out.size() % 4) out += '=';
  return out;
}

std::string LocalHostName() {
  char buf[256] = {};
  std::string host;
  if (gethostname(buf, sizeof buf - 1) == 0)
    for (char* p = buf; *p; ++p)
      if (std::isalnum(static_cast<unsigned char>(*p)) || *p == '.' || *p == '-') host += *p;
  return host.empty() ? "localhost" : host;
}

// Envelope addresses go into command lines: no control character may reach
// the server there.
std::string EnvelopeAddress(std::string_view address) {
  std::string out;
  for (unsigned char c : address)
    if (c >= 0x20 && c != 0x7f && c != '<' && c != '>') out += char(c);
  return out;
}

}  // namespace

// How an exchange broke off: the peer stayed silent too long, or the
// connection failed some other way.
class CWSMTP::Failure {
 public:
  explicit Failure(bool timedOut) : timedOut(timedOut) {}
  // Throws the failure a transport call reported.
  static void Check(TransportStatus status) {
    if (status != TransportStatus::kOk) throw Failure(status == TransportStatus::kTimedOut);
  }
  bool timedOut;
};

struct CWSMTP::Connection {
  std::unique_ptr<MailTransport> transport;
  std::string buffer;  // bytes received and not yet consumed
};

void CWSMTP::SetDefaultTimeout(double seconds) {
  gDefaultTimeout = seconds;
}

CWSMTP::CWSMTP(std::string name, int port)
    : name_(std::move(name)),
      port_(port),
      timeout_(gDefaultTimeout),
      implicitTLS_(port == 465),
      loop_(&RunLoop::Current()) {}

CWSMTP::~CWSMTP() {
  loop_->CancelAll(this);
  Close(false);
}

bool CWSMTP::isEncrypted() const {
  return connection_ && connection_->transport->secure();
}

bool CWSMTP::connect(std::string* err) {
  auto fail = [err](std::string why) {
    if (err) *err = std::move(why);
    return false;
  };
  if (state_ != State::kIdle) return fail("a transfer is under way already");
  if (name_.empty()) return fail("no mail server is set");
  if (port_ <= 0 || port_ > 65535)
    return fail("the port " + std::to_string(port_) + " is not valid");
  std::string why;
  auto* module = LoadModule<MailModule>(kMailModuleFile, kMailModuleEntry, &why);
  if (!module) return fail("mail cannot be sent: " + why);
  auto status = TransportStatus::kOk;
  auto transport = module->connect(name_, port_, timeout_, &status, &why);
  if (status == TransportStatus::kTimedOut) {
    // A server that does not answer the connection counts as one that
    // stops answering later: the transfer ends with a time-out.
    state_ = State::kDone;
    Notify(&Delegate::connectionTimedOut);
    return true;
  }
  if (!transport) return fail(why);
  connection_ = std::make_unique<Connection>(Connection{std::move(transport), {}});
  state_ = State::kConnected;
  loop_->Post([this] { Handshake(); }, this);
  return true;
}

void CWSMTP::Notify(std::function<void()> Delegate::*callback) {
  loop_->Post(
      [this, callback] {
        if (auto& fn = delegate_.*callback) fn();
      },
      this);
}

void CWSMTP::Finish(std::function<void()> Delegate::*callback) {
  state_ = State::kDone;
  Close(true);
  Notify(callback);
}

void CWSMTP::Close(bool sayQuit) {
  if (!connection_) return;
  SigpipeGuard guard;
  if (sayQuit) {
    // Polite but not awaited: the outcome is known already.
    connection_->transport->SetSendTimeout(std::min(timeout_, 1.0));
    connection_->transport->Send("QUIT\r\n");
  }
  connection_.reset();
}

void CWSMTP::Send(std::string_view bytes) {
  SigpipeGuard guard;
  Failure::Check(connection_->transport->Send(bytes));
}

int CWSMTP::ReadReply() {
  constexpr size_t kMaxLine = 64 * 1024;
  constexpr int kMaxLines = 1000;
  for (int lines = 0; lines < kMaxLines; ++lines) {
    std::string& buf = connection_->buffer;
    size_t nl;
    while ((nl = buf.find('\n')) == std::string::npos) {
      if (buf.size() > kMaxLine) throw Failure(false);
      char chunk[4096];
      size_t n = 0;
      Failure::Check(connection_->transport->Receive(chunk, sizeof chunk, &n));
      if (n == 0) throw Failure(false);  // the server hung up
      buf.append(chunk, n);
    }
    std::string line = buf.substr(0, nl);
    buf.erase(0, nl + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lastResponse_ = line;
    replyLines_.push_back(line);
    if (line.size() >= 4 && line[3] == '-') continue;
    if (line.size() < 3 || !std::isdigit(uint8_t(line[0])) || !std::isdigit(uint8_t(line[1])) ||
        !std::isdigit(uint8_t(line[2])))
      return 0;
    return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
  }
  throw Failure(false);
}

int CWSMTP::Command(std::string_view line) {
  replyLines_.clear();
  if (!line.empty()) Send(std::string(line) + "\r\n");
  return ReadReply();
}

void CWSMTP::StartTLS() {
  SigpipeGuard guard;
  Failure::Check(connection_->transport->StartTLS(name_));
  connection_->buffer.clear();
}

bool CWSMTP::Ehlo() {
  std::string host = LocalHostName();
  extensions_.clear();
  int code = Command("EHLO " + host);
  if (code == 250) {
    for (size_t i = 1; i < replyLines_.size(); ++i) {
      std::string keyword = replyLines_[i].size() > 4 ? replyLines_[i].substr(4) : "";
      keyword = keyword.substr(0, keyword.find(' '));
      std::transform(keyword.begin(), keyword.end(), keyword.begin(),
                     [](unsigned char c) { return char(std::toupper(c)); });
      extensions_.push_back(keyword);
    }
    return true;
  }
  return Command("HELO " + host) == 250;
}

void CWSMTP::Handshake() {
  if (state_ != State::kConnected) return;
  try {
    if (implicitTLS_) StartTLS();
    replyLines_.clear();
    if (ReadReply() != 220 || !Ehlo()) return Finish(&Delegate::messageNotSent);
    bool offered =
        std::find(extensions_.begin(), extensions_.end(), "STARTTLS") != extensions_.end();
    if (!connection_->transport->secure() && offered) {
      // Once offered, encryption is not optional: a refusal ends the transfer.
      if (Command("STARTTLS") != 220) return Finish(&Delegate::messageNotSent);
      StartTLS();
      if (!Ehlo()) return Finish(&Delegate::messageNotSent);
    }
    state_ = State::kReady;
  } catch (const Failure& f) {
    Finish(f.timedOut ? &Delegate::connectionTimedOut : &Delegate::messageNotSent);
  }
}

bool CWSMTP::EnsureReady() {
  if (state_ == State::kConnected) Handshake();
  return state_ == State::kReady;
}

void CWSMTP::authenticate(std::string_view username, std::string_view password,
                          std::string_view mechanism) {
  if (state_ == State::kDone) return;  // the transfer has ended already
  if (state_ == State::kIdle) return Finish(&Delegate::authenticationFailed);
  if (!EnsureReady()) return;
  if (mechanism != "LOGIN") return Finish(&Delegate::authenticationFailed);
  try {
    if (Command("AUTH LOGIN") != 334 || Command(Base64(username)) != 334 ||
        Command(Base64(password)) != 235)
      return Finish(&Delegate::authenticationFailed);
    Notify(&Delegate::authenticationCompleted);
  } catch (const Failure& f) {
    Finish(f.timedOut ? &Delegate::connectionTimedOut : &Delegate::messageNotSent);
  }
}

void CWSMTP::sendMessage() {
  if (state_ == State::kDone) return;
  if (state_ == State::kIdle || !message_) return Finish(&Delegate::messageNotSent);
  if (!EnsureReady()) return;
  std::vector<std::string> recipients;
  for (const auto& r : message_->recipients()) recipients.push_back(EnvelopeAddress(r.address()));
  if (recipients.empty()) return Finish(&Delegate::messageNotSent);
  std::string from = message_->from() ? EnvelopeAddress(message_->from()->address()) : "";
  try {
    if (Command("MAIL FROM:<" + from + ">") != 250) return Finish(&Delegate::messageNotSent);
    for (const auto& r : recipients) {
      int code = Command("RCPT TO:<" + r + ">");
      if (code != 250 && code != 251) return Finish(&Delegate::messageNotSent);
    }
    if (Command("DATA") != 354) return Finish(&Delegate::messageNotSent);
    replyLines_.clear();
    Send(SMTPDataStream(message_->DataValue()));
    if (ReadReply() != 250) return Finish(&Delegate::messageNotSent);
    Finish(&Delegate::messageSent);
  } catch (const Failure& f) {
    Finish(f.timedOut ? &Delegate::connectionTimedOut : &Delegate::messageNotSent);
  }
}

std::string SMTPDataStream(std::string_view message) {
  std::string out;
  out.reserve(message.size() + message.size() / 32 + 8);
  bool lineStart = true;
  for (size_t i = 0; i < message.size(); ++i) {
    char c = message[i];
    if (c == '\r' || c == '\n') {
      if (c == '\r' && i + 1 < message.size() && message[i + 1] == '\n') ++i;
      out += "\r\n";
      lineStart = true;
      continue;
    }
    if (lineStart && c == '.') out += '.';
    out += c;
    lineStart = false;
  }
  if (!lineStart) out += "\r\n";
  out += ".\r\n";
  return out;
}

}  // namespace gab
