#pragma once
// Every delivery test process runs in a temporary home, set before anything
// binds the shared preferences to it.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/preferences.h"

namespace gab::testing {

const std::string& TestHome();
std::string PrefsPath();

// Leaves exactly these preferences in the shared domain and its file.
void ResetPrefs(const std::map<std::string, PrefValue>& values);
// A key as a fresh reader of the preferences file sees it.
std::optional<PrefValue> StoredPref(const std::string& key);

// The messages of the system-log lines in captured standard error.
std::vector<std::string> LogMessages(const std::string& captured);

}  // namespace gab::testing
