#pragma once
// A private Xvfb, and windows made to look like the chat client's.  No
// window manager runs; FakeDesktop keeps the root window's _NET_CLIENT_LIST
// up to date, as a manager would.

#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <string>
#include <string_view>
#include <vector>

namespace gab::testing {

class Xvfb {
 public:
  Xvfb();  // on a display it picks itself
  ~Xvfb();
  Xvfb(const Xvfb&) = delete;
  Xvfb& operator=(const Xvfb&) = delete;
  bool running() const { return !display_.empty(); }
  const std::string& display() const { return display_; }

 private:
  pid_t pid_ = -1;
  std::string display_;
};

// Unmapped top-level windows with a class and a title, listed in
// _NET_CLIENT_LIST.
class FakeDesktop {
 public:
  explicit FakeDesktop(const std::string& display);
  ~FakeDesktop();
  bool ok() const { return ok_; }

  enum class TitleKind { kNetWmName, kWmNameLatin1, kBoth, kNone };
  // `title` is UTF-8 for _NET_WM_NAME, Latin-1 for WM_NAME; kBoth puts
  // another name into WM_NAME.
  xcb_window_t AddWindow(std::string_view wmClass, std::string_view title,
                         TitleKind kind = TitleKind::kNetWmName);
  void RemoveWindow(xcb_window_t w);
  // Destroys a window but leaves it listed, as a manager that has not
  // caught up yet would.
  void DestroyWithoutUnlisting(xcb_window_t w);
  // Writes the client list; with no windows it is empty but present.
  void Publish();
  void RemoveClientList();

 private:
  void Sync();  // a round trip, so the server has applied every request

  xcb_connection_t* conn_ = nullptr;
  xcb_screen_t* screen_ = nullptr;
  xcb_ewmh_connection_t ewmh_{};
  std::vector<xcb_window_t> windows_;
  bool ok_ = false;
};

}  // namespace gab::testing
