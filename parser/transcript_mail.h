#pragma once
// The transcript's own mail: plain and HTML renderings as one
// multipart/alternative message to "emailAddress", sent through the server
// of the preferences.

#include <string>

namespace gab {
class ICLPChatLog;
class Preferences;
}  // namespace gab

namespace gab::parser {

// True when the server accepted the message; otherwise false and `error`
// holds the short reason (what the error reporting stored in "reportThis").
bool MailTranscript(Preferences& prefs, ICLPChatLog& transcript, std::string* error);

}  // namespace gab::parser
