#pragma once
// The interface of the alert module (sd-bus), loaded by ShowAlert.
#include <string>
#include <string_view>

namespace gab {

struct AlertModule {
  // Hands `text` to the notification server on the bus at `address` (null:
  // the user's session bus); false with the reason in `whyNot`.
  bool (*notify)(const char* address, std::string_view text, std::string* whyNot);
};
inline constexpr const char* kAlertModuleFile = "gabfolio-alert.so";
inline constexpr const char* kAlertModuleEntry = "gabfolio_alert_module";

}  // namespace gab
