#pragma once
// A private D-Bus session bus (a real dbus-daemon), and a stand-in desktop
// notification server on it that records what it is sent.

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace gab::testing {

class SessionBus {
 public:
  SessionBus();
  ~SessionBus();
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;
  // "" when dbus-daemon could not be started.
  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

struct Notification {
  std::string appName, summary, body;
  std::vector<std::string> actions;
  std::map<std::string, std::string> stringHints;
  int32_t timeout = 0;
};

// org.freedesktop.Notifications on the bus, served by a thread.
class NotificationServer {
 public:
  explicit NotificationServer(const std::string& address);
  ~NotificationServer();
  bool ready() const { return ready_; }
  // What arrived, after waiting up to `seconds` for `count` notifications.
  std::vector<Notification> Received(size_t count = 0, double seconds = 5);

 private:
  void Serve(std::string address, std::promise<bool>* ready);
  static int OnNotify(sd_bus_message* m, void* self, sd_bus_error*);

  std::thread thread_;
  std::atomic<bool> stop_{false};
  bool ready_ = false;
  std::mutex mutex_;
  std::vector<Notification> received_;
};

}  // namespace gab::testing
