#pragma once
#include <string>
#include <string_view>

namespace gab {

// The system log: one line per message on standard error,
// "YYYY-MM-DD HH:MM:SS.mmm NAME[PID] message" in local time.  Control
// characters in the message are escaped so that no text can forge a line.
void NSLog(std::string_view message);
// Turns the log off (or on again) for this process: the interactive tool
// says each error once in its own words, and logs only with --verbose.
void SetLogEnabled(bool enabled);

// Escapes control characters as \n, \r, \t and \xNN (used by NSLog).
std::string EscapeControlCharacters(std::string_view text);

}  // namespace gab
