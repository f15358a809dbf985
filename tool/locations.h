#pragma once
// Where the tool finds its companions: the other executables beside it (in an
// installed tree) or in their build folders (in a build tree), and the data
// files the product supplies.

#include <string>

namespace gab::tool {

// Folder of the running executable ("" when unknown).
std::string ExecutableFolder();

// The installed companion `name` ("gabfolio-parser", "gabfolio-agent"): beside
// this executable, else in the build tree's folder `buildSubfolder` ("parser",
// "agent").  "" when not found.
std::string CompanionExecutable(const std::string& name, const std::string& buildSubfolder);

// The folder of the supplied data files: <prefix>/share/gabfolio beside an
// installed executable, else the compiled-in data folder, else the source
// tree's data/ (running from a build tree).  "" when none has files.
std::string SuppliedDataFolder();

}  // namespace gab::tool
