// The alert module: desktop notifications over D-Bus (sd-bus).
#include <systemd/sd-bus.h>

#include <cstring>
#include <memory>

#include "platform/alert_module.h"

namespace gab {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr uint64_t kBusCallTimeoutUsec = 2'000'000;

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;

struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// True when a notification server owns its name or the bus can start one.
bool ServerAvailable(sd_bus* bus) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int owned = 0;
  if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s",
                         kService) >= 0) {
    sd_bus_message_read(reply, "b", &owned);
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  if (owned) return true;

  char** names = nullptr;
  reply = nullptr;
  bool activatable = false;
  if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "ListActivatableNames", &error, &reply, "") >= 0 &&
      sd_bus_message_read_strv(reply, &names) >= 0 && names) {
    for (char** n = names; *n; ++n) {
      if (std::strcmp(*n, kService) == 0) activatable = true;
      free(*n);
    }
    free(names);
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  return activatable;
}

bool Notify(sd_bus* bus, std::string_view text, std::string* whyNot) {
  sd_bus_set_method_call_timeout(bus, kBusCallTimeoutUsec);
  if (!ServerAvailable(bus)) {
    *whyNot = "no notification server";
    return false;
  }
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_method_call(bus, &raw, kService, kPath, kService, "Notify") < 0) {
    *whyNot = "cannot build the message";
    return false;
  }
  MessagePtr m(raw);
  std::string body(text);
  // Notify(app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout)
  int r = sd_bus_message_append(m.get(), "susss", "Gabfolio", 0u, "", "Gabfolio", body.c_str());
  // One action: its key and its label.
  char ok[] = "OK";
  char* actions[] = {ok, ok, nullptr};
  if (r >= 0) r = sd_bus_message_append_strv(m.get(), actions);
  if (r >= 0) r = sd_bus_message_append(m.get(), "a{sv}", 1, "sound-name", "s", "bell");
  if (r >= 0) r = sd_bus_message_append(m.get(), "i", -1);
  // The answer (the notification's id) is of no use: do not wait for it.
  if (r >= 0) r = sd_bus_message_set_expect_reply(m.get(), 0);
  if (r >= 0) r = sd_bus_send(bus, m.get(), nullptr);
  if (r >= 0) r = sd_bus_flush(bus);
  if (r < 0) {
    *whyNot = std::string("bus error: ") + std::strerror(-r);
    return false;
  }
  return true;
}

bool NotifyOnBus(const char* address, std::string_view text, std::string* whyNot) {
  sd_bus* raw = nullptr;
  if (!address) {
    int r = sd_bus_open_user(&raw);
    BusPtr bus(raw);
    if (r < 0) {
      *whyNot = std::string("no session bus: ") + std::strerror(-r);
      return false;
    }
    return Notify(bus.get(), text, whyNot);
  }
  if (sd_bus_new(&raw) < 0) {
    *whyNot = "no bus";
    return false;
  }
  BusPtr bus(raw);
  int r = sd_bus_set_address(bus.get(), address);
  if (r >= 0) r = sd_bus_set_bus_client(bus.get(), 1);
  if (r >= 0) r = sd_bus_start(bus.get());
  if (r < 0) {
    *whyNot = std::string("no session bus: ") + std::strerror(-r);
    return false;
  }
  return Notify(bus.get(), text, whyNot);
}

}  // namespace
}  // namespace gab

extern "C" __attribute__((visibility("default"))) const gab::AlertModule* gabfolio_alert_module() {
  static const gab::AlertModule module{gab::NotifyOnBus};
  return &module;
}
