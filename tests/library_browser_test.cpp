// The library as a user sees it: a generated library served by
// `gabfolio view` and loaded in headless Chromium, where every link of every
// page must resolve and every gallery image must load.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

namespace {

TEST(LibraryInBrowser, EveryLinkResolvesAndEveryImageLoads) {
  if (access("/usr/bin/chromium", X_OK) != 0) GTEST_SKIP() << "chromium is not installed";
  std::string command = std::string("python3 ") + GABFOLIO_SOURCE_DIR +
                        "/tests/browser/check_library.py " + GABFOLIO_BINARY_DIR +
                        "/tool/gabfolio " + GABFOLIO_SOURCE_DIR + "/data 2>&1";
  FILE* p = popen(command.c_str(), "r");
  ASSERT_TRUE(p);
  std::string output;
  std::array<char, 4096> buf;
  while (size_t n = fread(buf.data(), 1, buf.size(), p)) output.append(buf.data(), n);
  int status = pclose(p);
  EXPECT_EQ(status, 0) << output;
  EXPECT_NE(output.find("\nOK\n"), std::string::npos) << output;
}

}  // namespace
