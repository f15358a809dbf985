#include "platform/pass_note.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace gab {
namespace {

namespace fs = std::filesystem;

// The runs of a pass share what the first quiet one found; a note that is
// missing, foreign or a link never stops a run (it would stop mail and
// gathering for good), and the agent's note goes with its pass.
TEST(PassNoteTest, OnlyTheAgentsOwnNoteStopsARun) {
  fs::path dir = fs::temp_directory_path() / ("gabfolio-note-" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "quiet") << "nothing to do\n";
  fs::create_symlink(dir / "quiet", dir / "link");
  std::ofstream(dir / "other") << "something else\n";
  struct Case {
    const char* name;
    const char* note;  // null: no variable
    bool stops;
  };
  const Case cases[] = {
      {"no note", nullptr, false},    {"empty variable", "", false},
      {"quiet note", "quiet", true},  {"link to a quiet note", "link", false},
      {"other text", "other", false}, {"missing file", "absent", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.note)
      unsetenv(kPassNoteVariable);
    else
      setenv(kPassNoteVariable, *c.note ? (dir / c.note).c_str() : "", 1);
    EXPECT_EQ(PassFoundNothingToDo(), c.stops);
  }

  std::string path;
  {
    PassNote note;
    const std::string& entry = note.environmentEntry();
    ASSERT_EQ(entry.rfind(std::string(kPassNoteVariable) + "=", 0), 0u) << entry;
    path = entry.substr(entry.find('=') + 1);
    setenv(kPassNoteVariable, path.c_str(), 1);
    EXPECT_FALSE(PassFoundNothingToDo());
    NotePassFoundNothingToDo();
    EXPECT_TRUE(PassFoundNothingToDo());
  }
  EXPECT_FALSE(fs::exists(path));
  EXPECT_FALSE(PassFoundNothingToDo());
  // Noting never creates a file where the variable points.
  setenv(kPassNoteVariable, (dir / "absent").c_str(), 1);
  NotePassFoundNothingToDo();
  EXPECT_FALSE(fs::exists(dir / "absent"));
  unsetenv(kPassNoteVariable);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace gab
