#pragma once
// Helpers shared by the archive tests: corpus access and a compact,
// unambiguous rendering of decoded object graphs.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "archive/object.h"

namespace gab::testing {

// The shared corpus of real archives, or "" when it is not present.
std::string CorpusDir();
std::optional<std::string> ReadCorpusFile(const std::string& relative);

// e.g. [s"a", i1, m{s"k": r2.5}, url(s"x" base url(...)), as(s"hi" 2{...}), <NSSet>]
std::string Dump(const ObjectPtr& o);

}  // namespace gab::testing

#define GAB_CORPUS_OR_SKIP(var, path)                               \
  auto var##_opt = ::gab::testing::ReadCorpusFile(path);            \
  if (!var##_opt) GTEST_SKIP() << "corpus file absent: " << (path); \
  const std::string& var = *var##_opt
