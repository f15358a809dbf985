#pragma once
// Structural checks on a binary property list before it is handed to
// libplist, which trusts offsets and counts too much, recurses once per
// nesting level and copies a shared subtree at every reference.

#include <string>
#include <string_view>

namespace gab {

// Empty when `bytes` is a well-formed "bplist00" whose object graph is
// acyclic, shallow and does not grow much when shared references are
// expanded; otherwise the reason.
std::string CheckBinaryPlist(std::string_view bytes);

}  // namespace gab
