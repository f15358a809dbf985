#include <gtest/gtest.h>

#include "platform/testing/temp_home.h"
#include "tool/tests/run_tool.h"

namespace gab {
namespace {

using testing::RunTool;

struct DumpErrorCase {
  const char* label;
  std::vector<std::string> args;  // "@" stands for the temporary home
  int status;
  const char* stderrHolds;
};

void PrintTo(const DumpErrorCase& c, std::ostream* os) {
  *os << c.label;
}

class DumpErrors : public ::testing::TestWithParam<DumpErrorCase> {};

TEST_P(DumpErrors, StatusAndMessage) {
  testing::TempHome home;
  home.Write("Anna on 2005.ichat", "not an archive");
  home.Write("Anna on 2005.chat", "");
  home.Write("Anna on 2005.CHAT", "whatever");
  home.Write("dir on 2005.chat/file", "x");
  const DumpErrorCase& c = GetParam();
  std::vector<std::string> args = {"dump"};
  for (const auto& a : c.args) args.push_back(a[0] == '@' ? home.path() + a.substr(1) : a);
  auto run = RunTool(args);
  EXPECT_EQ(run.status, c.status) << run.err;
  EXPECT_NE(run.err.find(c.stderrHolds), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Dump, DumpErrors,
    ::testing::Values(
        DumpErrorCase{"NoFile", {}, 2, "usage: gabfolio dump FILE"},
        DumpErrorCase{"TwoFiles", {"a.chat", "b.chat"}, 2, "usage:"},
        DumpErrorCase{"UnknownOption", {"-v"}, 2, "usage:"},
        DumpErrorCase{"Missing", {"@/Nobody on 2005.chat"}, 1, "cannot read the file"},
        DumpErrorCase{"Directory", {"@/dir on 2005.chat"}, 1, "cannot read the file"},
        DumpErrorCase{"ExtensionCase", {"@/Anna on 2005.CHAT"}, 1, "extension"},
        DumpErrorCase{"NotKeyedArchive", {"@/Anna on 2005.ichat"}, 1, "iChat 3 archive"},
        DumpErrorCase{"EmptyTypedstream", {"@/Anna on 2005.chat"}, 1, "iChat 2 archive"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(Dump, Help) {
  auto run = RunTool({"dump", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.rfind("usage: gabfolio dump FILE\n", 0), 0u) << run.out;
  EXPECT_EQ(run.err, "");
}

}  // namespace
}  // namespace gab
