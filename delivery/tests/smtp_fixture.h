#pragma once
// Test helpers: a real SMTP server (smtp_server.py, aiosmtpd) on a loopback
// port, a test certificate authority made with openssl, and readers for what
// the server stored.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace gab::testing {

inline const char* kPython = "/usr/bin/python3";

inline bool HaveAiosmtpd() {
  static int have = -1;
  if (have < 0) {
    std::string cmd = std::string(kPython) + " -c 'import aiosmtpd' >/dev/null 2>&1";
    have = std::system(cmd.c_str()) == 0;
  }
  return have == 1;
}

inline std::string MakeTempDir(const char* tag) {
  std::string pattern =
      std::filesystem::temp_directory_path() / (std::string("gab-") + tag + "-XXXXXX");
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  return mkdtemp(buf.data()) ? std::string(buf.data()) : std::string();
}

inline std::string ReadFileOr(const std::string& path, std::string fallback = "<missing>") {
  std::ifstream in(path, std::ios::binary);
  if (!in) return fallback;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

class SmtpServer {
 public:
  // Starts the server with extra arguments (see smtp_server.py); port() is
  // 0 when it failed to start.
  explicit SmtpServer(std::vector<std::string> args) {
    out_ = MakeTempDir("smtp");
    int in[2], outp[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(outp, O_CLOEXEC) != 0) return;
    std::vector<std::string> argv = {kPython, GABFOLIO_SOURCE_DIR "/delivery/tests/smtp_server.py",
                                     "--out", out_};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(outp[1], 1);
      // The server's own diagnostics go to a file beside its messages.
      int log =
          open((out_ + "/server.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (log >= 0) dup2(log, 2);
      std::vector<char*> cargv;
      for (auto& a : argv) cargv.push_back(a.data());
      cargv.push_back(nullptr);
      execv(kPython, cargv.data());
      _exit(127);
    }
    close(in[0]);
    close(outp[1]);
    stdin_ = in[1];
    std::string line;
    char c;
    while (read(outp[0], &c, 1) == 1 && c != '\n') line += c;
    close(outp[0]);
    if (line.rfind("PORT ", 0) == 0) port_ = std::atoi(line.c_str() + 5);
  }
  ~SmtpServer() {
    if (stdin_ >= 0) close(stdin_);
    if (pid_ > 0) {
      // The server ends when its standard input closes; make sure of it.
      for (int i = 0; i < 50; ++i) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
          pid_ = -1;
          break;
        }
        usleep(20000);
      }
      if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
      }
    }
    std::error_code ec;
    std::filesystem::remove_all(out_, ec);
  }
  SmtpServer(const SmtpServer&) = delete;
  SmtpServer& operator=(const SmtpServer&) = delete;

  int port() const { return port_; }
  // A file the server wrote for its n-th accepted message (from 1).
  std::string Message(int n, const std::string& file) const {
    return ReadFileOr(out_ + "/msg-" + std::to_string(n) + "/" + file);
  }
  // Connections the silent server accepted.
  int Connections() const {
    int n = 0;
    while (std::filesystem::exists(out_ + "/conn-" + std::to_string(n + 1))) ++n;
    return n;
  }
  int MessageCount() const {
    int n = 0;
    while (std::filesystem::exists(out_ + "/msg-" + std::to_string(n + 1) + "/done")) ++n;
    return n;
  }

 private:
  std::string out_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int port_ = 0;
};

// A certificate authority and a server certificate (by default for
// "localhost" and 127.0.0.1), made with openssl in a temporary folder.
class TestCertificates {
 public:
  explicit TestCertificates(const std::string& names = "DNS:localhost,IP:127.0.0.1") {
    dir_ = MakeTempDir("tls");
    std::string d = dir_;
    std::ofstream(d + "/ext.cnf") << "subjectAltName=" << names
                                  << "\n"
                                     "basicConstraints=CA:FALSE\n"
                                     "extendedKeyUsage=serverAuth\n";
    std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    std::string cmd =
        "cd '" + d + "' && openssl req -x509" + ec +
        " -keyout ca.key -out ca.pem -days 2 -subj '/CN=Gabfolio Test CA'"
        " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=keyCertSign,cRLSign"
        " && openssl req" +
        ec +
        " -keyout server.key -out server.csr -subj '/CN=localhost'"
        " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out server.pem -days 2 -extfile ext.cnf";
    ok_ = std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
  }
  ~TestCertificates() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  bool ok() const { return ok_; }
  std::string ca() const { return dir_ + "/ca.pem"; }
  std::string cert() const { return dir_ + "/server.pem"; }
  std::string key() const { return dir_ + "/server.key"; }

 private:
  std::string dir_;
  bool ok_ = false;
};

// Points OpenSSL's default verify paths at a file for one scope.
class ScopedCAFile {
 public:
  explicit ScopedCAFile(const std::string& file) {
    if (const char* old = std::getenv("SSL_CERT_FILE")) old_ = old;
    setenv("SSL_CERT_FILE", file.c_str(), 1);
  }
  ~ScopedCAFile() {
    if (old_.empty()) {
      unsetenv("SSL_CERT_FILE");
    } else {
      setenv("SSL_CERT_FILE", old_.c_str(), 1);
    }
  }

 private:
  std::string old_;
};

}  // namespace gab::testing
