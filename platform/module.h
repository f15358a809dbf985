#pragma once
// Facilities that need a heavy library (libvips, libsystemd, xcb, Poco's
// networking and TLS) live in small modules loaded on first use, so that a
// command which never mails, sizes an image, asks the X server or alerts
// never pays for loading those libraries.  The modules live in lib/gabfolio
// beside the programs' folder (a build tree) or where they were installed.
#include <string>
#include <string_view>

namespace gab {

// The entry point `symbol` of the module file `module` (a name such as
// "gabfolio-images.so"), loaded once and kept for the life of the process.
// Null when the module or its symbol cannot be found, with the reason in
// `err`.  Safe to call from several threads.
void* ModuleEntry(const char* module, const char* symbol, std::string* err = nullptr);

// The same, saying in the log that `unavailable` ("Image sizes are not
// available") when the module cannot be had.
void* ModuleEntryOrSay(const char* module, const char* symbol, std::string_view unavailable);

// The module's interface: its entry point is an `extern "C"` function
// without arguments that returns a pointer to `Api`.
template <class Api>
const Api* LoadModule(const char* module, const char* symbol, std::string* err = nullptr) {
  void* entry = ModuleEntry(module, symbol, err);
  return entry ? reinterpret_cast<const Api* (*)()>(entry)() : nullptr;
}

// The module's interface, or null after a line in the log; for facilities
// that hold on to it for the whole process (and so say it once).
template <class Api>
const Api* LoadModuleOrSay(const char* module, const char* symbol, std::string_view unavailable) {
  void* entry = ModuleEntryOrSay(module, symbol, unavailable);
  return entry ? reinterpret_cast<const Api* (*)()>(entry)() : nullptr;
}

}  // namespace gab
