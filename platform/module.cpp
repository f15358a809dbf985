#include "platform/module.h"

#include <dlfcn.h>

#include <map>
#include <mutex>

namespace gab {

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
    m.handle = dlopen(module, RTLD_NOW | RTLD_LOCAL);
    if (!m.handle) m.error = dlerror();
  }
  void* entry = m.handle ? dlsym(m.handle, symbol) : nullptr;
  if (!entry && err) *err = m.handle ? std::string(module) + " has no " + symbol : m.error;
  return entry;
}

}  // namespace gab
