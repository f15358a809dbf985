#include "platform/module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <vector>

#include "platform/log.h"

namespace gab {
namespace {

// Where the modules are: beside the programs' folder (a build tree, or an
// install whose programs sit in bin/ next to lib/gabfolio), else where they
// were installed.  Named in full, not through the run path: a dlopen the
// sanitizers intercept searches the run path of their library, not ours.
std::vector<std::string> ModuleFolders() {
  std::vector<std::string> folders;
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    std::string path(exe, size_t(n));
    std::string dir = path.substr(0, path.rfind('/'));
    folders.push_back(dir.substr(0, dir.rfind('/')) + "/lib/gabfolio");
  }
  folders.push_back(GABFOLIO_MODULEDIR);
  return folders;
}

}  // namespace

void* ModuleEntry(const char* module, const char* symbol, std::string* err) {
  struct Loaded {
    void* handle = nullptr;
    std::string error;
  };
  static std::mutex mutex;
  static std::map<std::string, Loaded> modules;
  std::lock_guard lock(mutex);
  auto [it, added] = modules.try_emplace(module);
  Loaded& m = it->second;
  if (added) {
    // Never unloaded: the heavy libraries behind a module keep threads and
    // handlers of their own that must not outlive their code.
    const std::vector<std::string> folders = ModuleFolders();
    for (const std::string& folder : folders) {
      std::string path = folder + "/" + module;
      if (access(path.c_str(), F_OK) != 0) continue;
      m.handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
      if (!m.handle) m.error = dlerror();
      break;
    }
    if (!m.handle && m.error.empty()) {
      m.error = std::string(module) + " is in none of";
      for (const std::string& folder : folders) m.error += " " + folder;
    }
  }
  void* entry = m.handle ? dlsym(m.handle, symbol) : nullptr;
  if (!entry && err) *err = m.handle ? std::string(module) + " has no " + symbol : m.error;
  return entry;
}

void* ModuleEntryOrSay(const char* module, const char* symbol, std::string_view unavailable) {
  std::string err;
  void* entry = ModuleEntry(module, symbol, &err);
  if (!entry) NSLog(std::string(unavailable) + ": " + err);
  return entry;
}

}  // namespace gab
