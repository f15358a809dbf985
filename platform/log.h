#pragma once
#include <string>
#include <string_view>

namespace gab {

// The system log: one line per message on standard error,
// "YYYY-MM-DD HH:MM:SS.mmm NAME[PID] message" in local time.  Control
// characters in the message are escaped so that no text can forge a line.
void NSLog(std::string_view message);

// Escapes control characters as \n, \r, \t and \xNN (used by NSLog).
std::string EscapeControlCharacters(std::string_view text);

}  // namespace gab
