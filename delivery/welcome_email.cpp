#include "delivery/welcome_email.h"

#include "platform/preferences.h"

namespace gab {

void SendWelcomingEmail() {
  auto& prefs = Preferences::Shared();
  // Read in the order the pane's keys are documented; only the gate is used yet.
  prefs.CopyAppValue("emailAddress");
  prefs.CopyAppValue("emailOutgoing");
  prefs.Bool("handleURLs");
  prefs.Bool("handleImages");
  if (!prefs.Bool("sendEmails")) return;
}

}  // namespace gab
