#pragma once
// Both decoders throw their own error type internally and hand callers a
// reason string instead; this turns one decode into that string.

#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

namespace gab::archive_detail {

// Runs f; returns "" on success, else "<prefix>: <reason>".
template <class Error, class F>
std::string Guarded(std::string_view prefix, F&& f) {
  std::string p(prefix);
  try {
    f();
    return {};
  } catch (const Error& e) {
    return p + ": " + e.what();
  } catch (const std::bad_alloc&) {
    return p + ": out of memory";
  } catch (const std::length_error&) {
    return p + ": out of memory";
  }
}

}  // namespace gab::archive_detail
