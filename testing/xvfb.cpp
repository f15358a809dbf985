#include "testing/xvfb.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

extern char** environ;

namespace gab::testing {

Xvfb::Xvfb() {
  int fds[2];
  if (pipe(fds) != 0) return;
  std::string fd = std::to_string(fds[1]);
  const char* argv[] = {"Xvfb",    "-displayfd", fd.c_str(),   "-nolisten", "tcp",
                        "-screen", "0",          "320x240x24", "-noreset",  nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  if (posix_spawnp(&pid_, "Xvfb", &actions, nullptr, const_cast<char**>(argv), environ) != 0)
    pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  // Xvfb writes the display number once it accepts connections.
  std::string number;
  pollfd p{fds[0], POLLIN, 0};
  char ch;
  while (pid_ > 0 && poll(&p, 1, 15000) > 0 && read(fds[0], &ch, 1) == 1 && ch != '\n')
    number.push_back(ch);
  close(fds[0]);
  if (!number.empty()) display_ = ":" + number;
}

Xvfb::~Xvfb() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

FakeDesktop::FakeDesktop(const std::string& display) {
  conn_ = xcb_connect(display.c_str(), nullptr);
  if (xcb_connection_has_error(conn_)) return;
  screen_ = xcb_setup_roots_iterator(xcb_get_setup(conn_)).data;
  xcb_ewmh_init_atoms_replies(&ewmh_, xcb_ewmh_init_atoms(conn_, &ewmh_), nullptr);
  ok_ = true;
  Publish();  // start from an empty client list
}

FakeDesktop::~FakeDesktop() {
  if (ok_) xcb_ewmh_connection_wipe(&ewmh_);
  xcb_disconnect(conn_);
}

xcb_window_t FakeDesktop::AddWindow(std::string_view wmClass, std::string_view title,
                                    TitleKind kind) {
  xcb_window_t w = xcb_generate_id(conn_);
  xcb_create_window(conn_, XCB_COPY_FROM_PARENT, w, screen_->root, 0, 0, 10, 10, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual, 0, nullptr);
  std::string classBytes = "chatclient";
  classBytes.push_back('\0');
  classBytes.append(wmClass);
  classBytes.push_back('\0');
  auto set = [&](xcb_atom_t property, xcb_atom_t type, std::string_view value) {
    xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, property, type, 8, uint32_t(value.size()),
                        value.data());
  };
  set(XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, classBytes);
  if (kind == TitleKind::kNetWmName || kind == TitleKind::kBoth)
    set(ewmh_._NET_WM_NAME, ewmh_.UTF8_STRING, title);
  if (kind == TitleKind::kWmNameLatin1) set(XCB_ATOM_WM_NAME, XCB_ATOM_STRING, title);
  if (kind == TitleKind::kBoth) set(XCB_ATOM_WM_NAME, XCB_ATOM_STRING, "legacy name");
  windows_.push_back(w);
  Publish();
  return w;
}

void FakeDesktop::RemoveWindow(xcb_window_t w) {
  std::erase(windows_, w);
  Publish();
  DestroyWithoutUnlisting(w);
}

void FakeDesktop::DestroyWithoutUnlisting(xcb_window_t w) {
  xcb_destroy_window(conn_, w);
  Sync();
}

void FakeDesktop::Publish() {
  xcb_ewmh_set_client_list(&ewmh_, 0, uint32_t(windows_.size()), windows_.data());
  Sync();
}

void FakeDesktop::RemoveClientList() {
  xcb_delete_property(conn_, screen_->root, ewmh_._NET_CLIENT_LIST);
  Sync();
}

void FakeDesktop::Sync() {
  std::free(xcb_get_input_focus_reply(conn_, xcb_get_input_focus(conn_), nullptr));
}

}  // namespace gab::testing
