#pragma once

namespace gab::parser {

// What `gabfolio-parser --help` prints; the worker answers --help the same way.
inline constexpr const char* kUsage =
    "usage: gabfolio-parser [PATH]\n\n"
    "Brings the Gabfolio library up to date with ~/Documents/iChats: new and\n"
    "changed transcripts are mailed (when \"sendEmails\" is on), their links and\n"
    "images gathered and their words counted.  The agent runs it with its own\n"
    "path as the only argument; it can be run by hand the same way.\n";

}  // namespace gab::parser
