#include "testing/smtp_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/files.h"
#include "testing/run_process.h"

namespace gab::testing {

namespace fs = std::filesystem;

namespace {

const char kPython[] = "/usr/bin/python3";

std::string TempDir(const char* tag) {
  std::string tmpl = (fs::temp_directory_path() / (std::string("gabfolio-") + tag + "-XXXXXX"));
  return mkdtemp(tmpl.data()) ? tmpl : std::string();
}

}  // namespace

bool HaveAiosmtpd() {
  static const bool have =
      std::system((std::string(kPython) + " -c 'import aiosmtpd' >/dev/null 2>&1").c_str()) == 0;
  return have;
}

SmtpServer::SmtpServer(std::vector<std::string> args)
    : args_(std::move(args)), out_(TempDir("smtp")) {
  Start();
}

SmtpServer::~SmtpServer() {
  Stop();
  std::error_code ec;
  fs::remove_all(out_, ec);
}

bool SmtpServer::Start() {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return false;
  std::vector<std::string> argv = {kPython,  GABFOLIO_SOURCE_DIR "/testing/smtp_server.py",
                                   "--out",  out_,
                                   "--port", std::to_string(port_)};
  argv.insert(argv.end(), args_.begin(), args_.end());
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    // The server's own diagnostics go beside its messages.
    int log = open((out_ + "/server.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log >= 0) dup2(log, 2);
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    execv(kPython, cargv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  stdin_ = in[1];
  std::string line;
  char c;
  pollfd p{out[0], POLLIN, 0};
  while (poll(&p, 1, 15000) > 0 && read(out[0], &c, 1) == 1 && c != '\n') line += c;
  close(out[0]);
  port_ = line.rfind("PORT ", 0) == 0 ? std::atoi(line.c_str() + 5) : 0;
  return port_ != 0;
}

void SmtpServer::Stop() {
  if (stdin_ >= 0) close(stdin_);
  stdin_ = -1;
  if (pid_ <= 0) return;
  // The server ends when its standard input closes; make sure of it.
  if (!WaitFor([&] { return waitpid(pid_, nullptr, WNOHANG) == pid_; }, 1)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
}

int SmtpServer::MessageCount() const {
  int n = 0;
  while (fs::exists(out_ + "/msg-" + std::to_string(n + 1) + "/done")) ++n;
  return n;
}

std::string SmtpServer::Message(int n, const std::string& file) const {
  return ReadWholeFile(out_ + "/msg-" + std::to_string(n) + "/" + file).value_or("<missing>");
}

int SmtpServer::Connections() const {
  int n = 0;
  while (fs::exists(out_ + "/conn-" + std::to_string(n + 1))) ++n;
  return n;
}

std::string Header(const std::string& raw, const std::string& name) {
  std::string value;
  bool in = false;
  for (size_t pos = 0; pos < raw.size();) {
    size_t end = raw.find("\r\n", pos);
    if (end == std::string::npos || end == pos) break;  // the end of the header block
    std::string line = raw.substr(pos, end - pos);
    pos = end + 2;
    if (line[0] == ' ' || line[0] == '\t') {
      if (in) value += line;
    } else if (in) {
      break;
    } else if (line.rfind(name + ": ", 0) == 0) {
      in = true;
      value = line.substr(name.size() + 2);
    }
  }
  return value;
}

TestCertificates::TestCertificates(const std::string& names) : dir_(TempDir("tls")) {
  std::ofstream(dir_ + "/ext.cnf")
      << "subjectAltName=" << names << "\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n";
  const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  std::string cmd =
      "(cd '" + dir_ + "' && openssl req -x509" + key +
      " -keyout ca.key -out ca.pem -days 2 -subj '/CN=Gabfolio Test CA'"
      " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=keyCertSign,cRLSign"
      " && openssl req" +
      key +
      " -keyout server.key -out server.csr -subj '/CN=localhost'"
      " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
      " -out server.pem -days 2 -extfile ext.cnf) >/dev/null 2>&1";
  ok_ = std::system(cmd.c_str()) == 0;
}

TestCertificates::~TestCertificates() {
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

}  // namespace gab::testing
