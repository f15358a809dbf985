#include "tool/locations.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace gab::tool {
namespace fs = std::filesystem;

std::string ExecutableFolder() {
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return "";
  return exe.parent_path().string();
}

std::string CompanionExecutable(const std::string& name, const std::string& buildSubfolder) {
  fs::path here = ExecutableFolder();
  if (here.empty()) return "";
  for (const fs::path& candidate : {here / name, here.parent_path() / buildSubfolder / name})
    if (access(candidate.c_str(), X_OK) == 0) return fs::weakly_canonical(candidate).string();
  return "";
}

std::string SuppliedDataFolder() {
  auto hasTemplates = [](const fs::path& p) {
    std::error_code ec;
    for (auto it = fs::directory_iterator(p, ec); !ec && it != fs::directory_iterator();
         it.increment(ec))
      if (it->path().extension() == ".html") return true;
    return false;
  };
  fs::path here = ExecutableFolder();
  std::vector<fs::path> candidates;
  if (!here.empty()) candidates.push_back(here.parent_path() / "share" / "gabfolio");
  candidates.emplace_back(GABFOLIO_DATADIR);
  for (const auto& c : candidates)
    if (hasTemplates(c)) return c.string();
  return "";
}

}  // namespace gab::tool
