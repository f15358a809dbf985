#include "platform/alert.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/alert_module.h"
#include "platform/log.h"
#include "platform/module.h"

namespace gab {
namespace {

bool Show(const char* address, std::string_view text) {
  std::string why;
  auto* module = LoadModule<AlertModule>(kAlertModuleFile, kAlertModuleEntry, &why);
  if (module && module->notify(address, text, &why)) return true;
  NSLog("Alert not shown (" + why + "): " + std::string(text));
  return false;
}

}  // namespace

void Beep() {
  int fd = ::open("/dev/tty", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return;
  [[maybe_unused]] ssize_t n = ::write(fd, "\a", 1);
  ::close(fd);
}

bool ShowAlert(std::string_view text) {
  return Show(nullptr, text);
}

bool ShowAlertOnBus(const std::string& address, std::string_view text) {
  return Show(address.c_str(), text);
}

}  // namespace gab
