// gabfolio service install|uninstall: the systemd user unit that starts the
// agent at login (the Mac started it with the preference pane).

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/home.h"
#include "tool/commands.h"
#include "tool/locations.h"

namespace gab::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUnit = "gabfolio-agent.service";

const char* kHelp =
    "usage: gabfolio service install [--autostart] | uninstall | status\n"
    "\n"
    "  install      installs the systemd user unit gabfolio-agent.service in\n"
    "               ~/.config/systemd/user, enables it and starts the agent now\n"
    "               (it then starts at every login)\n"
    "  --autostart  instead, starts the agent with the desktop session: writes\n"
    "               ~/.config/autostart/gabfolio-agent.desktop (for systems\n"
    "               without a systemd user session)\n"
    "  uninstall    stops the agent, disables the unit and removes it and the\n"
    "               autostart entry\n"
    "  status       shows what systemd knows about the unit\n"
    "\n"
    "The agent's messages go to the journal: journalctl --user -u gabfolio-agent\n"
    "Exit status: 0 done, 1 failed, 2 bad usage.\n";

// Runs systemctl --user with arguments; its own messages pass through.
int Systemctl(std::vector<std::string> args) {
  args.insert(args.begin(), {"systemctl", "--user"});
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    execvp("systemctl", argv.data());
    std::fprintf(stderr, "gabfolio service: cannot run systemctl: %s\n", std::strerror(errno));
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

fs::path ConfigFolder() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) return fs::path(xdg);
  return fs::path(HomeDirectory()) / ".config";
}

fs::path UnitFolder() {
  return ConfigFolder() / "systemd" / "user";
}

fs::path AutostartEntry() {
  return ConfigFolder() / "autostart" / "gabfolio-agent.desktop";
}

// systemctl --user talks to the user's service manager through sockets in
// $XDG_RUNTIME_DIR; without them (a container, an ssh login with no
// lingering) it can only fail.
bool HaveUserManager() {
  const char* run = std::getenv("XDG_RUNTIME_DIR");
  if (!run || !*run) return false;
  std::error_code ec;
  return fs::exists(fs::path(run) / "systemd" / "private", ec) ||
         fs::exists(fs::path(run) / "bus", ec);
}

// An Exec= value that the desktop reads back as this one program.
std::string DesktopExec(const std::string& program) {
  if (program.find_first_of(" \t\n\"'\\><~|&;$*?#()`") == std::string::npos) return program;
  std::string out = "\"";
  // Quoting escapes these with a backslash, and the file's own string
  // escapes double every backslash once more.
  for (char c : program) {
    if (c == '\\')
      out += "\\\\\\\\";
    else if (c == '"' || c == '`' || c == '$')
      out += std::string("\\\\") + c;
    else
      out += c;
  }
  return out + "\"";
}

int InstallAutostart(const std::string& agent) {
  fs::path entry = AutostartEntry();
  std::error_code ec;
  fs::create_directories(entry.parent_path(), ec);
  std::string text =
      "[Desktop Entry]\nType=Application\nName=Gabfolio agent\n"
      "Comment=Keeps the Gabfolio library up to date with ~/Documents/iChats\n"
      "Exec=" +
      DesktopExec(agent) + "\nTerminal=false\nNoDisplay=true\nX-GNOME-Autostart-enabled=true\n";
  std::string error;
  if (!WriteFileAtomically(entry.string(), text, 0644, &error)) {
    std::fprintf(stderr, "gabfolio service: cannot write %s: %s\n", entry.c_str(), error.c_str());
    return kFailure;
  }
  std::printf(
      "Installed %s (agent: %s)\nThe agent starts with your next desktop session; to start it "
      "now, run\n  %s &\n",
      entry.c_str(), agent.c_str(), agent.c_str());
  return kOk;
}

// The unit we ship: installed under <prefix>/lib/systemd/user, or configured
// in the build tree.
std::optional<std::string> ShippedUnit() {
  std::vector<fs::path> places;
  fs::path here = ExecutableFolder();
  if (!here.empty()) {
    places.push_back(here.parent_path() / "lib" / "systemd" / "user" / kUnit);  // installed
    places.push_back(here.parent_path() / "agent" / kUnit);                     // build tree
  }
  for (const auto& p : places)
    if (auto text = ReadWholeFile(p.string())) return text;
  return std::nullopt;
}

// Points ExecStart= at the agent of this installation, so that a build tree
// or another prefix works as well as /usr/bin.
std::string WithAgentPath(const std::string& unit, const std::string& agent) {
  std::string out;
  size_t pos = 0;
  while (pos < unit.size()) {
    size_t end = unit.find('\n', pos);
    if (end == std::string::npos) end = unit.size();
    std::string line = unit.substr(pos, end - pos);
    if (line.rfind("ExecStart=", 0) == 0) {
      // Keep the arguments after the program.
      std::string rest = line.substr(10);
      size_t space = rest.find(' ');
      line = "ExecStart=" + agent + (space == std::string::npos ? "" : rest.substr(space));
    }
    out += line;
    if (end < unit.size()) out += "\n";
    pos = end + 1;
  }
  return out;
}

int Install(bool autostart) {
  std::string agent = CompanionExecutable("gabfolio-agent", "agent");
  if (agent.empty()) {
    std::fprintf(stderr, "gabfolio service: gabfolio-agent not found beside %s\n",
                 ExecutableFolder().c_str());
    return kFailure;
  }
  if (autostart) return InstallAutostart(agent);
  if (!HaveUserManager()) {
    const char* user = std::getenv("USER");
    std::fprintf(stderr,
                 "gabfolio service: there is no systemd user session here ($XDG_RUNTIME_DIR has\n"
                 "no user manager), so systemctl --user cannot run the agent.  Either\n"
                 "  - let your user manager run without a login:\n"
                 "      sudo loginctl enable-linger %s\n"
                 "    then log in again and run 'gabfolio service install'; or\n"
                 "  - start the agent with your desktop session:\n"
                 "      gabfolio service install --autostart\n",
                 user && *user ? user : "$USER");
    return kFailure;
  }
  auto unit = ShippedUnit();
  if (!unit) {
    std::fprintf(stderr, "gabfolio service: the unit file %s is not installed\n", kUnit);
    return kFailure;
  }
  fs::path folder = UnitFolder();
  std::error_code ec;
  fs::create_directories(folder, ec);
  std::string error;
  fs::path target = folder / kUnit;
  if (!WriteFileAtomically(target.string(), WithAgentPath(*unit, agent), 0644, &error)) {
    std::fprintf(stderr, "gabfolio service: cannot write %s: %s\n", target.c_str(), error.c_str());
    return kFailure;
  }
  std::printf("Installed %s (agent: %s)\n", target.c_str(), agent.c_str());
  if (Systemctl({"daemon-reload"}) != 0 || Systemctl({"enable", "--now", kUnit}) != 0) {
    std::fprintf(stderr,
                 "gabfolio service: systemctl --user failed (is there a user session?); "
                 "the unit file stays in place\n");
    return kFailure;
  }
  std::printf("The agent runs now and will start at every login.\n");
  return kOk;
}

int Uninstall() {
  std::error_code ec;
  bool autostart = fs::remove(AutostartEntry(), ec);
  if (autostart)
    std::printf("Removed %s; the agent no longer starts with the desktop.\n",
                AutostartEntry().c_str());
  fs::path target = UnitFolder() / kUnit;
  if (!fs::exists(target, ec) && !HaveUserManager()) {
    if (!autostart) std::printf("Nothing was installed.\n");
    return kOk;
  }
  bool present = fs::exists(target, ec);
  int rc = Systemctl({"disable", "--now", kUnit});
  if (present) fs::remove(target, ec);
  Systemctl({"daemon-reload"});
  if (!present) {
    std::printf("No unit was installed in %s\n", UnitFolder().c_str());
    return rc == 0 ? kOk : kFailure;
  }
  if (ec) {
    std::fprintf(stderr, "gabfolio service: cannot remove %s: %s\n", target.c_str(),
                 ec.message().c_str());
    return kFailure;
  }
  std::printf("Removed %s; the agent no longer starts at login.\n", target.c_str());
  return kOk;
}

}  // namespace

int RunService(int argc, char** argv) {
  if (argc < 2) return UsageError("service", "install, uninstall or status?");
  if (argc == 3 && std::strcmp(argv[1], "install") == 0 && std::strcmp(argv[2], "--autostart") == 0)
    return Install(true);
  if (argc > 2) return UsageError("service", std::string("unexpected '") + argv[2] + "'");
  std::string what = argv[1];
  if (what == "--help" || what == "-h") {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (what == "install") return Install(false);
  if (what == "uninstall") return Uninstall();
  if (what == "status") return Systemctl({"status", "--no-pager", kUnit}) == 0 ? kOk : kFailure;
  return UsageError("service", "unknown action '" + what + "'");
}

}  // namespace gab::tool
