#pragma once
#include <string>

namespace gab {

// The user's home folder: $HOME, or the user database entry when HOME is unset.
// Nothing else in the program reads HOME.
std::string HomeDirectory();

// ~/Library/Gabfolio, the data folder.
std::string DataFolder();

// ~/Documents/iChats, the transcript folder.
std::string TranscriptFolder();

}  // namespace gab
