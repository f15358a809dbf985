#pragma once

namespace gab {

// Sends the welcome message to the user's own address on the agent's first
// start; does nothing at all when "sendEmails" is off.
void SendWelcomingEmail();

}  // namespace gab
