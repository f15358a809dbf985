#pragma once
// Errors handed to the user: the preferences domain carries them to the
// user's tool ("errorStatus", "reportThis"), and an alert is given when the
// error chances run out.

#include <cstdint>
#include <string_view>

namespace gab {

// The codes stored in "errorStatus"; 0 there means no error.
enum class ErrorCode : int32_t {
  kFileSystem = 1,  // a file could not be written or read
  kMail = 2,        // the server or the transfer failed
  kLogin = 3,       // the server rejected the credentials
  kInternal = 4,    // a corrupt store, a run-loop failure, a parser time-out
};

// Stores `text` in "reportThis"; when the error chances ("emailFails") stand
// at exactly 3, also stores the code and alerts the user.
void reportError(ErrorCode code, std::u16string_view text);

}  // namespace gab
