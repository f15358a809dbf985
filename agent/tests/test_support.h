#pragma once
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/preferences.h"

namespace gab::test {

// The temporary home every agent test runs in (set up once per process,
// before any test, so that the shared preferences bind to it).
const std::string& Home();
std::string PrefsPath();
std::string TranscriptDir();
std::string DataDir();

// Empties the temporary home and creates the data and transcript folders
// (either can be left out).
void ResetHome(bool dataFolder = true, bool transcriptFolder = true);

// Replaces the preferences file with exactly these values (nothing: no file).
void WritePrefs(const std::map<std::string, PrefValue>& values);
// A fresh read of the preferences file.
std::optional<PrefValue> ReadPref(const std::string& key);

// Writes an executable shell script into the home and returns its path.
std::string WriteScript(const std::string& name, const std::string& body);

// Reads a file; "" when missing.
std::string Slurp(const std::string& path);
std::vector<std::string> Lines(const std::string& text);
int CountOf(const std::string& text, const std::string& needle);

// Polls `done` for up to `seconds`.
bool WaitFor(const std::function<bool()>& done, double seconds);

}  // namespace gab::test
