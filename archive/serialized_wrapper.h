#pragma once
// NSFileWrapper's serialized representation (the "rtfd" container) and the
// NeXT serialized property list that NSFont keeps its name in.  Both come
// from archives and are parsed defensively: every count and length is
// checked against the bytes that remain.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "archive/object.h"

namespace gab {

// Parses an "rtfd" container into a file wrapper; null when malformed.
std::shared_ptr<FileWrapper> ParseSerializedFileWrapper(std::string_view bytes);

// The string held by a NeXT serialized property list (type 5 or 6, after an
// optional leading zero word); nothing for other contents or malformed bytes.
std::optional<std::u16string> ParseNeXTSerializedString(std::string_view bytes);

}  // namespace gab
