#pragma once
// Several whole-file writes under one folder that reach the disk together.
//
// While a batch is open, every write the platform makes under its folder
// (WriteFileAtomically and the data-folder helpers built on it) is held in
// memory, and reads of those paths (ReadWholeFile, FileExists) see the held
// contents.  Commit writes one journal (a redo log: the final contents of
// every file, in order) with an atomic replace, then applies it and removes
// it.  A process killed at any moment thus leaves either none of the batch or
// a journal that RecoverWriteBatch applies in full: the library never holds
// half a batch, and a batch is never applied twice in part.

#include <memory>
#include <string>
#include <string_view>

namespace gab {

class WriteBatch {
 public:
  // Opens a batch over `folder`; at most one is open per process.
  explicit WriteBatch(std::string folder);
  // Drops whatever was not committed.
  ~WriteBatch();
  WriteBatch(const WriteBatch&) = delete;
  WriteBatch& operator=(const WriteBatch&) = delete;

  // Makes every held write durable; the batch is then empty and stays open.
  // False with the reason when the journal or a file could not be written:
  // nothing of the batch is lost (the journal, when written, is applied by
  // the next RecoverWriteBatch).
  bool Commit(std::string* err);
  // Files the batch holds, not yet committed.
  size_t HeldFiles() const;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

// Applies and removes a journal that a killed process left in `folder`.
// True when there was none or it was applied; false with the reason (the
// journal is kept) otherwise.  Call it before reading what the batch wrote.
bool RecoverWriteBatch(const std::string& folder, std::string* err);

// True when `folder` holds a journal not yet applied.
bool HasPendingWriteBatch(const std::string& folder);

namespace write_batch_internal {
// Hooks for the file helpers: the held contents of `path` when a batch holds
// a write of it, and whether the batch took a write of `path` (true: held).
const std::string* HeldContents(const std::string& path);
bool Hold(const std::string& path, std::string_view bytes, unsigned mode);
// Operations on the newest-images folder, replayed in order at commit.
bool HoldTopImagesReset();
bool HoldTopImagesCopy(std::string_view source, std::string_view dest);
}  // namespace write_batch_internal

}  // namespace gab
