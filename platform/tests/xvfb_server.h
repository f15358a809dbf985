#pragma once
// Test helpers: a private Xvfb on a display it picks itself, and windows made
// to look like the chat client's.  No window manager runs; the helper keeps
// _NET_CLIENT_LIST on the root window up to date, as a manager would.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace gab::testing {

class XvfbServer {
 public:
  XvfbServer() {
    int fds[2];
    if (pipe(fds) != 0) return;
    std::string fd = std::to_string(fds[1]);
    const char* argv[] = {"Xvfb",    "-displayfd", fd.c_str(),   "-nolisten", "tcp",
                          "-screen", "0",          "320x240x24", "-noreset",  nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    int rc = posix_spawnp(&pid_, "Xvfb", &actions, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
      pid_ = -1;
      close(fds[0]);
      return;
    }
    // Xvfb writes the display number once it accepts connections.
    std::string number;
    pollfd p{fds[0], POLLIN, 0};
    while (poll(&p, 1, 15000) > 0) {
      char ch;
      if (read(fds[0], &ch, 1) != 1 || ch == '\n') break;
      number.push_back(ch);
    }
    close(fds[0]);
    if (!number.empty()) display_ = ":" + number;
  }
  ~XvfbServer() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  XvfbServer(const XvfbServer&) = delete;
  XvfbServer& operator=(const XvfbServer&) = delete;

  bool running() const { return !display_.empty(); }
  const std::string& display() const { return display_; }

 private:
  pid_t pid_ = -1;
  std::string display_;
};

// Creates unmapped top-level windows with a class and a title, and lists them
// in the root window's _NET_CLIENT_LIST.
class FakeDesktop {
 public:
  explicit FakeDesktop(const std::string& display) {
    conn_ = xcb_connect(display.c_str(), nullptr);
    if (xcb_connection_has_error(conn_)) return;
    screen_ = xcb_setup_roots_iterator(xcb_get_setup(conn_)).data;
    xcb_ewmh_init_atoms_replies(&ewmh_, xcb_ewmh_init_atoms(conn_, &ewmh_), nullptr);
    ok_ = true;
  }
  ~FakeDesktop() {
    if (ok_) xcb_ewmh_connection_wipe(&ewmh_);
    xcb_disconnect(conn_);
  }
  bool ok() const { return ok_; }

  enum class TitleKind { kNetWmName, kWmNameLatin1, kBoth, kNone };

  // `title` is UTF-8 for _NET_WM_NAME, Latin-1 bytes for WM_NAME.
  xcb_window_t AddWindow(std::string_view wmClass, std::string_view title,
                         TitleKind kind = TitleKind::kNetWmName,
                         std::string_view otherWmName = "legacy name") {
    xcb_window_t w = xcb_generate_id(conn_);
    xcb_create_window(conn_, XCB_COPY_FROM_PARENT, w, screen_->root, 0, 0, 10, 10, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual, 0, nullptr);
    std::string classBytes = "chatclient";
    classBytes.push_back('\0');
    classBytes.append(wmClass);
    classBytes.push_back('\0');
    xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                        uint32_t(classBytes.size()), classBytes.data());
    if (kind == TitleKind::kNetWmName || kind == TitleKind::kBoth)
      xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, ewmh_._NET_WM_NAME, ewmh_.UTF8_STRING, 8,
                          uint32_t(title.size()), title.data());
    if (kind == TitleKind::kWmNameLatin1)
      xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                          uint32_t(title.size()), title.data());
    if (kind == TitleKind::kBoth)
      xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                          uint32_t(otherWmName.size()), otherWmName.data());
    windows_.push_back(w);
    Publish();
    return w;
  }

  void RemoveWindow(xcb_window_t w) {
    std::erase(windows_, w);
    Publish();
    xcb_destroy_window(conn_, w);
    Sync();
  }

  // Destroys a window but leaves it in the client list, as a manager that
  // has not caught up yet would.
  void DestroyWithoutUnlisting(xcb_window_t w) {
    xcb_destroy_window(conn_, w);
    Sync();
  }

  // Writes the client list; with no windows it is empty but present (a
  // manager with no clients).
  void Publish() {
    xcb_ewmh_set_client_list(&ewmh_, 0, uint32_t(windows_.size()), windows_.data());
    Sync();
  }

  void RemoveClientList() {
    xcb_delete_property(conn_, screen_->root, ewmh_._NET_CLIENT_LIST);
    Sync();
  }

 private:
  // Round trip so the server has applied every request before the code
  // under test asks.
  void Sync() { std::free(xcb_get_input_focus_reply(conn_, xcb_get_input_focus(conn_), nullptr)); }

  xcb_connection_t* conn_ = nullptr;
  xcb_screen_t* screen_ = nullptr;
  xcb_ewmh_connection_t ewmh_{};
  std::vector<xcb_window_t> windows_;
  bool ok_ = false;
};

}  // namespace gab::testing
