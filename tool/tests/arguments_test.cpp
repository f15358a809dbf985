// Every subcommand's help and argument errors: exit status, which stream the
// text goes to, and that a failed run writes nothing.
#include <gtest/gtest.h>

#include <filesystem>

#include "testing/run_process.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

TEST(Arguments, HelpAndErrors) {
  struct Case {
    std::vector<std::string> args;  // "@" stands for the temporary home
    int status;
    const char* text;  // help: the start of stdout; errors: held by stderr
  };
  const Case cases[] = {
      {{"--version"}, 0, "gabfolio 0."},
      {{"status"}, 1, "not set up yet; run 'gabfolio setup'"},
      {{"convert", "--help"}, 0, "usage: gabfolio convert FILE --to text|html [-o OUT]\n"},
      {{"convert"}, 2, "no FILE given"},
      {{"convert", "a.chat"}, 2, "--to text or --to html is required"},
      {{"convert", "a.chat", "--to", "pdf"}, 2, "unknown format pdf"},
      {{"convert", "a.chat", "--to"}, 2, "--to needs a value"},
      {{"convert", "a.chat", "--to", "text", "--to=html"}, 2, "twice"},
      {{"convert", "a.chat", "b.chat", "--to", "text"}, 2, "one FILE"},
      {{"convert", "a.chat", "--to", "text", "-v"}, 2, "unknown option"},
      {{"convert", "a.chat", "--to", "text", "-o", ""}, 2, "-o needs"},
      {{"convert", "@/Nobody on 2005.chat", "--to", "text"}, 1, "Nobody"},
      {{"convert", "@/Anna on 2005.ichat", "--to", "html", "-o", "@/out.html"},
       1,
       "not an iChat transcript"},
      {{"convert", "--to", "text", "@/Anna on 2005.chat"}, 1, "the file is empty"},
      {{"dump", "--help"}, 0, "usage: gabfolio dump FILE\n"},
      {{"dump"}, 2, "no FILE given"},
      {{"dump", "a.chat", "b.chat"}, 2, "one FILE at a time"},
      {{"dump", "-v"}, 2, "unknown option '-v'"},
      {{"dump", "@/Nobody on 2005.chat"}, 1, "cannot read the file"},
      {{"dump", "@/dir on 2005.chat"}, 1, "it is a folder, not a file"},
      {{"dump", "@/Anna on 2005.CHAT"}, 1, "the extension must be in lower case (.chat)"},
      {{"dump", "@/Anna on 2005.ichat"}, 1, "not an iChat transcript"},
      {{"dump", "@/Anna on 2005.chat"}, 1, "the file is empty"},
      {{"view", "--help"}, 0, "usage: gabfolio view [--port N] [--no-open]"},
      {{"view", "--port", "http"}, 2, "bad port"},
      {{"view", "--port", "70000"}, 2, "bad port"},
      {{"view", "--quiet"}, 2, "unknown option '--quiet'"},
      {{"rebuild", "--help"}, 0, "usage: gabfolio rebuild"},
      {{"rebuild", "extra"}, 2, "takes no arguments"},
      {{"status", "--help"}, 0, "usage: gabfolio status"},
      {{"status", "extra"}, 2, "takes no arguments"},
      {{"defaults", "--help"}, 0, "usage: gabfolio defaults"},
      {{"defaults", "write", "k", "-int", "x"}, 2, "'x' is not a valid -int value"},
      {{"setup", "--help"}, 0, "usage: gabfolio setup"},
      {{"setup", "--bogus"}, 2, "unknown option"},
      {{"setup", "--port", "99999"}, 2, "bad port"},
      {{"setup", "--server"}, 2, "needs a value"},
      {{"import", "--help"}, 0, "usage: gabfolio import"},
      {{"import", "a", "b"}, 2, "one folder"},
      {{"import", "--quiet"}, 2, "unknown option '--quiet'"},
      {{"service"}, 2, "install, uninstall or status?"},
      {{"service", "restart"}, 2, "unknown action"},
      {{"search"}, 2, "no QUERY given"},
      {{"reindex", "now"}, 2, "takes no arguments"},
      {{"contacts", "forget"}, 2, "unknown action 'forget'"},
      {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    testing::TempHome home;
    home.Write("Anna on 2005.ichat", "not an archive");
    home.Write("Anna on 2005.chat", "");
    home.Write("Anna on 2005.CHAT", "whatever");
    home.Write("dir on 2005.chat/file", "x");
    std::vector<std::string> args = {testing::kTool};
    for (const auto& a : c.args)
      args.push_back(!a.empty() && a[0] == '@' ? home.path() + a.substr(1) : a);
    auto run = testing::RunProgram(args);
    EXPECT_EQ(run.status, c.status) << run.err;
    if (c.status == 0) {
      EXPECT_EQ(run.out.rfind(c.text, 0), 0u) << run.out;
      EXPECT_EQ(run.err, "");
    } else {
      EXPECT_NE(run.err.find(c.text), std::string::npos) << run.err;
      EXPECT_EQ(run.out, "");
    }
    if (c.status == 2) {
      // One line for the problem and one saying where the help is.
      std::string command = c.args[0] == "frobnicate" ? "" : " " + c.args[0];
      EXPECT_EQ(run.err.substr(run.err.find('\n') + 1), "try 'gabfolio" + command + " --help'\n")
          << run.err;
    }
    EXPECT_FALSE(std::filesystem::exists(home.path() + "/out.html"));
  }
}

}  // namespace
}  // namespace gab
