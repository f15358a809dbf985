#include "testing/session_bus.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "testing/run_process.h"

namespace gab::testing {

SessionBus::SessionBus() {
  int fds[2];
  if (pipe(fds) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    close(fds[0]);
    std::string fd = "--print-address=" + std::to_string(fds[1]);
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", fd.c_str(), nullptr);
    _exit(127);
  }
  close(fds[1]);
  char buf[512];
  ssize_t n = read(fds[0], buf, sizeof buf - 1);
  close(fds[0]);
  if (n > 0) address_.assign(buf, size_t(n));
  while (!address_.empty() && address_.back() == '\n') address_.pop_back();
}

SessionBus::~SessionBus() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

NotificationServer::NotificationServer(const std::string& address) {
  std::promise<bool> ready;
  auto readyFuture = ready.get_future();
  thread_ = std::thread(&NotificationServer::Serve, this, address, &ready);
  ready_ = readyFuture.get();
}

NotificationServer::~NotificationServer() {
  stop_ = true;
  thread_.join();
}

std::vector<Notification> NotificationServer::Received(size_t count, double seconds) {
  WaitFor(
      [&] {
        std::lock_guard lock(mutex_);
        return received_.size() >= count;
      },
      seconds);
  std::lock_guard lock(mutex_);
  return received_;
}

int NotificationServer::OnNotify(sd_bus_message* m, void* self, sd_bus_error*) {
  Notification n;
  const char *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
  uint32_t replaces = 0;
  sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body);
  n.appName = app ? app : "";
  n.summary = summary ? summary : "";
  n.body = body ? body : "";
  char** actions = nullptr;
  sd_bus_message_read_strv(m, &actions);
  for (char** a = actions; a && *a; ++a) {
    n.actions.push_back(*a);
    free(*a);
  }
  free(actions);
  sd_bus_message_enter_container(m, 'a', "{sv}");
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* key = nullptr;
    sd_bus_message_read(m, "s", &key);
    std::string k = key ? key : "";
    const char* type = nullptr;
    sd_bus_message_peek_type(m, nullptr, &type);
    if (type && std::string(type) == "s") {
      const char* value = nullptr;
      sd_bus_message_read(m, "v", "s", &value);
      n.stringHints[k] = value ? value : "";
    } else {
      sd_bus_message_skip(m, "v");
    }
    sd_bus_message_exit_container(m);
  }
  sd_bus_message_exit_container(m);
  sd_bus_message_read(m, "i", &n.timeout);
  auto* server = static_cast<NotificationServer*>(self);
  {
    std::lock_guard lock(server->mutex_);
    server->received_.push_back(n);
  }
  return sd_bus_reply_method_return(m, "u", 1u);
}

void NotificationServer::Serve(std::string address, std::promise<bool>* ready) {
  static const sd_bus_vtable vtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", OnNotify, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  sd_bus* bus = nullptr;
  bool ok = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
            sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
            sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/Notifications",
                                     "org.freedesktop.Notifications", vtable, this) >= 0 &&
            sd_bus_request_name(bus, "org.freedesktop.Notifications", 0) >= 0;
  ready->set_value(ok);
  while (ok && !stop_) {
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) break;
    if (r == 0) sd_bus_wait(bus, 50'000);
  }
  sd_bus_flush_close_unref(bus);
}

}  // namespace gab::testing
