#include "platform/report_error.h"

#include <string>

#include "platform/alert.h"
#include "platform/preferences.h"
#include "platform/text.h"

namespace gab {

namespace {
constexpr const char* kAlertText =
    "Gabfolio has encountered an error. Please go to the Gabfolio preferences pane for more "
    "information.";
}  // namespace

// Hands the error to the user's tool through the preferences domain; the user
// is alerted only when the error-chances counter stands at exactly 3.
void reportError(ErrorCode code, std::u16string_view text) {
  auto& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  int32_t fails = prefs.Int("emailFails");
  prefs.SetAppValue("emailFails", PrefValue(int64_t(fails)));
  prefs.SetAppValue("reportThis", PrefValue(ToUtf8(text)));
  prefs.AppSynchronize();
  if (fails != 3) return;
  prefs.SetAppValue("errorStatus", PrefValue(int64_t(static_cast<int32_t>(code))));
  prefs.AppSynchronize();
  Beep();
  ShowAlert(kAlertText);
}

}  // namespace gab
