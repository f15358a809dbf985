#pragma once
#include <string>
#include <string_view>

namespace gab {

// The audible alert: a bell on the controlling terminal, when there is one.
void Beep();

// Shows `text` to the user as a desktop notification (summary "Gabfolio",
// one "OK" action, the bell sound hint) over the session bus, without waiting
// for the user.  Without a session bus or a notification server it writes a
// line to the system log instead.  True when the notification was handed to
// the bus.
bool ShowAlert(std::string_view text);

// The same, on the bus at `address` (a D-Bus address); for tests and callers
// that hold a bus address of their own.
bool ShowAlertOnBus(const std::string& address, std::string_view text);

}  // namespace gab
