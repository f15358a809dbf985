#pragma once
// One agent pass runs the parser once for every entry of the transcript
// folder.  Each run that looks at every transcript makes a pass cost the
// square of the folder's size, although the runs after the first that found
// nothing to do would find nothing too (a change made meanwhile starts
// another pass).  So the runs of a pass share a note: a scratch file the
// agent makes for the pass and names in the parser's environment.  The
// first run that finds nothing to do writes it; the later runs of the pass
// read it and stop at once.  A parser started without the note (by hand)
// always looks.
#include <string>

namespace gab {

inline constexpr const char* kPassNoteVariable = "GABFOLIO_PASS_NOTE";

// The agent's side: made empty on construction, removed on destruction.
class PassNote {
 public:
  PassNote();
  ~PassNote();
  PassNote(const PassNote&) = delete;
  PassNote& operator=(const PassNote&) = delete;
  // "GABFOLIO_PASS_NOTE=path", or "" when no note could be made.
  const std::string& environmentEntry() const { return entry_; }

 private:
  std::string path_, entry_;
};

// The parser's side, on the note its environment names (if any).
bool PassFoundNothingToDo();
void NotePassFoundNothingToDo();

}  // namespace gab
