// gabfolio setup: prepares a user's home the way the preference pane did on
// the Mac: the data folder with the supplied templates, word lists and icon,
// the transcript folder, the empty text logs and the default preferences.
// A second run only fills in what is missing; a supplied file the user
// edited is kept unless --force is given.

#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "delivery/mail_session.h"
#include "platform/files.h"
#include "platform/home.h"
#include "platform/preferences.h"
#include "tool/commands.h"
#include "tool/locations.h"
#include "transcript/chat_log.h"

namespace gab::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kManifest = ".setup-manifest";

// The text-log lines the pane offered: a Markdown link for each link (link,
// link, speaker, date) and the stored file for each image (name, speaker,
// date).
constexpr const char* kBookmarkEntry = "[%@](%@) from %@, %@\n";
constexpr const char* kImageEntry = "Images/%@ from %@, %@\n";

const char* kHelp =
    "usage: gabfolio setup [--force] [--mail [MAIL OPTIONS]]\n"
    "\n"
    "Prepares ~/Library/Gabfolio (templates, word lists, icon, Images/, the\n"
    "empty text logs links.txt and images.txt), ~/Documents/iChats and the\n"
    "default preferences.  Run again at any time: only what is missing is\n"
    "added, and a supplied file you changed is kept.\n"
    "\n"
    "  --force            put back the supplied files and the default\n"
    "                     preferences (the library and statistics are kept)\n"
    "  --mail             configure mail and send a test message; asks for\n"
    "                     what the options below do not give\n"
    "  --server HOST      outgoing SMTP server\n"
    "  --port N           its port (25, 587; 465 for TLS from the start)\n"
    "  --from ADDRESS     sender address of the mails\n"
    "  --to ADDRESS       your address, where the chats are sent\n"
    "  --user NAME        SMTP login (the server requires one)\n"
    "  --password-file F  read the SMTP password from the first line of F\n"
    "  --no-login         the server needs no login (a stored password is removed)\n"
    "  --no-test          do not send the test message\n"
    "\n"
    "When the test message fails, setup asks whether to keep the new mail\n"
    "settings; without a yes the earlier ones stay.\n"
    "\n"
    "Exit status: 0 done, 1 failed (or the test mail failed), 2 bad usage.\n";

// FNV-1a: enough to notice that a file changed since setup copied it.
std::string Fingerprint(std::string_view bytes) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
  return buf;
}

std::map<std::string, std::string> ReadManifest(const fs::path& path) {
  std::map<std::string, std::string> out;
  auto text = ReadWholeFile(path.string());
  if (!text) return out;
  size_t pos = 0;
  while (pos < text->size()) {
    size_t end = text->find('\n', pos);
    if (end == std::string::npos) end = text->size();
    std::string line = text->substr(pos, end - pos);
    pos = end + 1;
    auto space = line.find(' ');
    if (space == 16) out[line.substr(17)] = line.substr(0, 16);
  }
  return out;
}

bool SuppliedKind(const fs::path& p) {
  static const char* kinds[] = {".html", ".plist", ".png", ".icns", ".ico",
                                ".svg",  ".css",   ".gif", ".jpg",  ".jpeg"};
  std::string ext = p.extension().string();
  for (const char* k : kinds)
    if (ext == k) return p.filename() != "CMakeLists.txt";
  return false;
}

struct Report {
  std::vector<std::string> added, updated, kept;
  bool failed = false;
};

// Copies every supplied file into the data folder.  A file is replaced only
// when it is still what setup put there (or with --force).
void InstallSuppliedFiles(const fs::path& from, const fs::path& to, bool force, Report& report) {
  fs::path manifestPath = to / kManifest;
  auto manifest = ReadManifest(manifestPath);
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(from, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (!it->is_regular_file() || !SuppliedKind(it->path())) continue;
    std::string rel = fs::relative(it->path(), from).string();
    auto source = ReadWholeFile(it->path().string());
    if (!source) {
      std::fprintf(stderr, "gabfolio setup: cannot read %s\n", it->path().c_str());
      report.failed = true;
      continue;
    }
    fs::path dest = to / rel;
    std::string fresh = Fingerprint(*source);
    auto current = ReadWholeFile(dest.string());
    if (current && *current == *source) {
      manifest[rel] = fresh;
      continue;
    }
    if (current && !force) {
      auto known = manifest.find(rel);
      if (known == manifest.end() || known->second != Fingerprint(*current)) {
        report.kept.push_back(rel);
        continue;
      }
    }
    fs::create_directories(dest.parent_path(), ec);
    std::string error;
    if (!WriteFileAtomically(dest.string(), *source, 0644, &error)) {
      std::fprintf(stderr, "gabfolio setup: cannot write %s: %s\n", dest.c_str(), error.c_str());
      report.failed = true;
      continue;
    }
    (current ? report.updated : report.added).push_back(rel);
    manifest[rel] = fresh;
  }
  std::string text;
  for (const auto& [name, hash] : manifest) text += hash + " " + name + "\n";
  WriteFileAtomically(manifestPath.string(), text, 0644);
}

bool MakeFolder(const fs::path& p, Report& report) {
  std::error_code ec;
  if (fs::is_directory(p, ec)) return true;
  if (fs::create_directories(p, ec) || fs::is_directory(p)) {
    report.added.push_back(p.string() + "/");
    return true;
  }
  std::fprintf(stderr, "gabfolio setup: cannot create %s: %s\n", p.c_str(), ec.message().c_str());
  report.failed = true;
  return false;
}

void MakeEmptyLog(const fs::path& p, Report& report) {
  if (FileExists(p.string())) return;
  if (WriteFileAtomically(p.string(), "", 0644))
    report.added.push_back(p.filename().string());
  else
    report.failed = true;
}

// Sets a preference unless the user has one already (or --force).
void Default(Preferences& prefs, const char* key, PrefValue value, bool force,
             std::vector<std::string>& set) {
  if (!force && prefs.CopyAppValue(key)) return;
  if (prefs.CopyAppValue(key) == std::optional<PrefValue>(value)) return;
  prefs.SetAppValue(key, std::move(value));
  set.push_back(key);
}

struct MailOptions {
  std::optional<std::string> server, from, to, user, passwordFile;
  std::optional<int> port;
  bool noLogin = false, noTest = false;
};

std::string Ask(const std::string& question, const std::string& fallback, bool secret = false) {
  std::fprintf(stdout, "%s%s%s%s: ", question.c_str(), fallback.empty() ? "" : " [",
               secret && !fallback.empty() ? "keep" : fallback.c_str(),
               fallback.empty() ? "" : "]");
  std::fflush(stdout);
  termios saved{};
  bool hide = secret && isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &saved) == 0;
  if (hide) {
    termios quiet = saved;
    quiet.c_lflag &= ~tcflag_t(ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  }
  std::string line;
  bool got = bool(std::getline(std::cin, line));
  if (hide) {
    tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    std::fprintf(stdout, "\n");
  }
  if (!got || line.empty()) return fallback;
  return line;
}

// A one-line chat from "Gabfolio" that goes out through the transcript mail,
// so the test proves exactly the path the chats take.
std::unique_ptr<ICLPChatLog> TestTranscript() {
  auto sender = std::make_shared<ICLPPresentity>();
  sender->name = u"Gabfolio";
  sender->protocol = u"AIM";
  auto text = std::make_shared<AttributedString>();
  text->Append(
      u"This is the test message of 'gabfolio setup --mail'. Your chats will "
      u"arrive like this.",
      nullptr);
  auto message = std::make_shared<ICLPInstantMessage>();
  message->speaker = sender;
  message->string = text;
  message->timestamp = Date::Now();
  return ICLPChatLog::FromParts(u"Gabfolio setup test", {message}, {sender});
}

int ConfigureMail(Preferences& prefs, const MailOptions& o) {
  bool interactive = isatty(STDIN_FILENO);
  auto current = [&](const char* key) { return prefs.String(key).value_or(""); };
  auto value = [&](const std::optional<std::string>& given, const char* key,
                   const char* question) -> std::string {
    if (given) return *given;
    if (!interactive) return current(key);
    return Ask(question, current(key));
  };
  std::string server = value(o.server, "emailServer", "SMTP server");
  std::string portText;
  if (o.port)
    portText = std::to_string(*o.port);
  else if (interactive)
    portText = Ask("Port", prefs.Int("emailPort") ? std::to_string(prefs.Int("emailPort")) : "587");
  else
    portText = prefs.Int("emailPort") ? std::to_string(prefs.Int("emailPort")) : "587";
  std::string to = value(o.to, "emailAddress", "Your address (the chats are sent there)");
  std::string from = value(o.from, "emailOutgoing", "Sender address");
  if (from.empty()) from = to;

  int port = std::atoi(portText.c_str());
  if (server.empty() || to.empty() || port <= 0 || port > 65535) {
    std::fprintf(stderr,
                 "gabfolio setup: mail needs a server, a port (1-65535) and your address "
                 "(--server, --port, --to)\n");
    return kUsage;
  }

  bool login = !o.noLogin && (o.user || o.passwordFile || prefs.Int("emailNeedsUsername"));
  std::string user = o.user.value_or(current("emailUsername"));
  std::optional<std::string> password;
  if (o.passwordFile) {
    auto text = ReadWholeFile(*o.passwordFile);
    if (!text) {
      std::fprintf(stderr, "gabfolio setup: cannot read %s\n", o.passwordFile->c_str());
      return kFailure;
    }
    password = text->substr(0, text->find('\n'));
  }
  if (interactive && !o.noLogin && !o.user && !o.passwordFile) {
    std::string answer = Ask("Does the server need a login? (y/n)", login ? "y" : "n");
    login = !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
    if (login) {
      user = Ask("Login name", user);
      std::string pw = Ask("Password", current("emailPassword"), true);
      password = pw;
    }
  }

  // What was there before, for a user who would rather keep it than
  // settings whose test failed.
  std::vector<std::pair<const char*, std::optional<PrefValue>>> before;
  for (const char* key : {"emailServer", "emailPort", "emailAddress", "emailOutgoing",
                          "emailNeedsUsername", "emailUsername", "emailPassword", "sendEmails"})
    before.emplace_back(key, prefs.CopyAppValue(key));

  prefs.SetAppValue("emailServer", server);
  prefs.SetAppValue("emailPort", int64_t(port));
  prefs.SetAppValue("emailAddress", to);
  prefs.SetAppValue("emailOutgoing", from);
  prefs.SetAppValue("emailNeedsUsername", int64_t(login ? 1 : 0));
  if (login) {
    prefs.SetAppValue("emailUsername", user);
    if (password) prefs.SetAppValue("emailPassword", *password);
  } else {
    // No login: no password kept lying around for it.
    prefs.SetAppValue("emailPassword", std::nullopt);
  }
  prefs.SetAppValue("sendEmails", true);
  if (!prefs.AppSynchronize()) {
    std::fprintf(stderr, "gabfolio setup: cannot write the preferences %s\n", prefs.path().c_str());
    return kFailure;
  }
  std::printf("Mail: chats go to %s through %s:%d%s.\n", to.c_str(), server.c_str(), port,
              login ? (" as " + user).c_str() : "");
  if (o.noTest) return kOk;

  std::printf("Sending a test message...\n");
  std::fflush(stdout);
  auto transcript = TestTranscript();
  std::string error;
  if (!MailTranscript(*transcript, &error)) {
    std::fprintf(stderr, "gabfolio setup: the test message was not sent: %s\n",
                 error.empty() ? "unknown error" : error.c_str());
    // Asked on standard input, terminal or not; no answer keeps nothing.
    std::printf("Keep these mail settings anyway? [y/N] ");
    std::fflush(stdout);
    std::string answer;
    if (!std::getline(std::cin, answer)) std::printf("\n");
    if (!answer.empty() && (answer[0] == 'y' || answer[0] == 'Y')) {
      std::printf("Kept; chats are mailed with them from the next change on.\n");
      return kFailure;
    }
    for (const auto& [key, value] : before) prefs.SetAppValue(key, value);
    if (!prefs.AppSynchronize()) {
      std::fprintf(stderr, "gabfolio setup: cannot write the preferences %s\n",
                   prefs.path().c_str());
      return kFailure;
    }
    std::printf(
        "Not kept: the mail settings are as they were.  ('--no-test' keeps settings\n"
        "without a test.)\n");
    return kFailure;
  }
  std::printf("The test message was sent; look for \"[IM] Gabfolio setup test\" in %s.\n",
              to.c_str());
  return kOk;
}

}  // namespace

int RunSetup(int argc, char** argv) {
  bool force = false, mail = false;
  MailOptions mo;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&](const char* what) -> std::optional<std::string> {
      if (i + 1 >= argc) {
        UsageError("setup", std::string(what) + " needs a value");
        return std::nullopt;
      }
      return std::string(argv[++i]);
    };
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kOk;
    } else if (a == "--force") {
      force = true;
    } else if (a == "--mail") {
      mail = true;
    } else if (a == "--no-login") {
      mail = mo.noLogin = true;
    } else if (a == "--no-test") {
      mail = mo.noTest = true;
    } else if (a == "--server" || a == "--from" || a == "--to" || a == "--user" ||
               a == "--password-file" || a == "--port") {
      auto v = next(a.c_str());
      if (!v) return kUsage;
      mail = true;
      if (a == "--server") mo.server = *v;
      if (a == "--from") mo.from = *v;
      if (a == "--to") mo.to = *v;
      if (a == "--user") mo.user = *v;
      if (a == "--password-file") mo.passwordFile = *v;
      if (a == "--port") {
        char* end = nullptr;
        long port = std::strtol(v->c_str(), &end, 10);
        if (!end || *end || port <= 0 || port > 65535) {
          return UsageError("setup", "bad port '" + *v + "'");
        }
        mo.port = int(port);
      }
    } else {
      return UsageError("setup", "unknown option '" + a + "'");
    }
  }

  Report report;
  const fs::path home = HomeDirectory();
  const fs::path data = DataFolder();
  MakeFolder(data, report);
  MakeFolder(data / "Images", report);
  MakeFolder(TranscriptFolder(), report);
  if (report.failed) return kFailure;

  std::string supplied = SuppliedDataFolder();
  if (supplied.empty()) {
    std::fprintf(stderr,
                 "gabfolio setup: cannot find the supplied templates and word lists "
                 "(looked beside the program and in %s)\n",
                 GABFOLIO_DATADIR);
    return kFailure;
  }
  InstallSuppliedFiles(supplied, data, force, report);
  MakeEmptyLog(data / "links.txt", report);
  MakeEmptyLog(data / "images.txt", report);

  Preferences& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  std::vector<std::string> set;
  std::string parser = CompanionExecutable("gabfolio-parser", "parser");
  if (parser.empty()) {
    std::fprintf(stderr, "gabfolio setup: warning: gabfolio-parser not found beside %s\n",
                 ExecutableFolder().c_str());
  } else {
    // The parser's place is the one of this installation, even when an
    // earlier setup recorded another.
    Default(prefs, "parserPath", parser, true, set);
  }
  Default(prefs, "handleURLs", true, force, set);
  Default(prefs, "handleImages", true, force, set);
  Default(prefs, "sendEmails", false, force, set);
  Default(prefs, "bookmarkEntry", std::string(kBookmarkEntry), force, set);
  Default(prefs, "imageEntry", std::string(kImageEntry), force, set);
  if (!prefs.AppSynchronize()) {
    std::fprintf(stderr, "gabfolio setup: cannot write the preferences %s\n", prefs.path().c_str());
    return kFailure;
  }

  std::printf("Gabfolio is set up in %s\n", data.c_str());
  for (const auto& f : report.added) std::printf("  added    %s\n", f.c_str());
  for (const auto& f : report.updated) std::printf("  updated  %s\n", f.c_str());
  for (const auto& f : report.kept)
    std::printf("  kept     %s (you changed it; --force puts back ours)\n", f.c_str());
  for (const auto& k : set) std::printf("  set      %s\n", k.c_str());
  std::printf("Transcripts are read from %s\n", TranscriptFolder().c_str());
  if (report.failed) return kFailure;
  if (mail) return ConfigureMail(prefs, mo);
  if (!prefs.Bool("sendEmails"))
    std::printf("Mail is off; 'gabfolio setup --mail' configures it.\n");
  return kOk;
}

}  // namespace gab::tool
