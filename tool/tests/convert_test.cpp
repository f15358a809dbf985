#include <gtest/gtest.h>

#include <filesystem>

#include "archive/testing/fixture_writer.h"
#include "platform/testing/temp_home.h"
#include "tool/tests/run_tool.h"

namespace gab {
namespace {

using testing::RunTool;

struct ConvertErrorCase {
  const char* label;
  std::vector<std::string> args;  // "@" stands for the temporary home
  int status;
  const char* stderrHolds;
};

void PrintTo(const ConvertErrorCase& c, std::ostream* os) {
  *os << c.label;
}

class ConvertErrors : public ::testing::TestWithParam<ConvertErrorCase> {};

TEST_P(ConvertErrors, StatusAndMessage) {
  testing::TempHome home;
  home.Write("Anna on 2005.ichat", "not an archive");
  home.Write("Anna on 2005.chat", "");
  const ConvertErrorCase& c = GetParam();
  std::vector<std::string> args = {"convert"};
  for (const auto& a : c.args) args.push_back(a[0] == '@' ? home.path() + a.substr(1) : a);
  auto run = RunTool(args);
  EXPECT_EQ(run.status, c.status) << run.err;
  EXPECT_NE(run.err.find(c.stderrHolds), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
  // A failed conversion leaves no output file behind.
  EXPECT_FALSE(std::filesystem::exists(home.path() + "/out.html"));
}

INSTANTIATE_TEST_SUITE_P(
    Convert, ConvertErrors,
    ::testing::Values(
        ConvertErrorCase{"NoArguments", {}, 2, "no FILE given"},
        ConvertErrorCase{"NoFormat", {"a.chat"}, 2, "--to text or --to html is required"},
        ConvertErrorCase{"UnknownFormat", {"a.chat", "--to", "pdf"}, 2, "unknown format pdf"},
        ConvertErrorCase{"FormatWithoutValue", {"a.chat", "--to"}, 2, "--to needs a value"},
        ConvertErrorCase{"TwoFormats", {"a.chat", "--to", "text", "--to=html"}, 2, "twice"},
        ConvertErrorCase{"TwoFiles", {"a.chat", "b.chat", "--to", "text"}, 2, "one FILE"},
        ConvertErrorCase{"UnknownOption", {"a.chat", "--to", "text", "-v"}, 2, "unknown option"},
        ConvertErrorCase{"EmptyOutputName", {"a.chat", "--to", "text", "-o", ""}, 2, "-o needs"},
        ConvertErrorCase{"Missing", {"@/Nobody on 2005.chat", "--to", "text"}, 1, "Nobody"},
        ConvertErrorCase{"NotAnArchive",
                         {"@/Anna on 2005.ichat", "--to", "html", "-o", "@/out.html"},
                         1,
                         "iChat 3 archive"},
        ConvertErrorCase{
            "EmptyTypedstream", {"--to", "text", "@/Anna on 2005.chat"}, 1, "iChat 2 archive"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(Convert, Help) {
  auto run = RunTool({"convert", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.rfind("usage: gabfolio convert FILE --to text|html [-o OUT]\n", 0), 0u)
      << run.out;
  EXPECT_EQ(run.err, "");
}

// A small chat in each archive format, converted both ways.
TEST(Convert, WritesBothRenderings) {
  using namespace fixtures;
  Transcript t;
  Speaker anna{u"AIM", u"anna"}, me{u"AIM", u"me"};
  t.participants = {anna};
  Message hello;
  hello.speaker = anna;
  hello.runs = {TextRun(u"hi <b>")};
  TextRun red(u"red");
  red.rgb = std::array<double, 3>{1.0, 0.0, 0.0};
  hello.runs.push_back(red);
  Message status;  // left out of both renderings
  status.runs = {TextRun(u"anna went away")};
  Message reply;
  reply.speaker = me;
  TextRun link(u"site");
  link.link = Link(u"http://example.org/");
  reply.runs = {link};
  t.messages = {hello, status, reply};

  const std::string bold = "<font face=\"Helvetica-Bold\" point-size=\"12\">";
  const std::string plain =
      "Sent by Gabfolio ( https://gabfolio.example.org/ )anna: hi <b>red\nme: site\n";
  const std::string html =
      "<html><head><title>Gabfolio log</title></head><body>" + bold +
      "anna</font>: hi <b><font color=\"#ff0000\">red</font>\n\n<br>\n" + bold +
      "me</font>: <a href=\"http://example.org/\">site</a>\n\n<br>\n<br><hr><i>Sent by <a "
      "href=\"https://gabfolio.example.org/\">Gabfolio</a>.</i></body></html>";

  for (auto [format, ext] :
       {std::pair{Format::kKeyed, ".ichat"}, std::pair{Format::kTypedstreamBigEndian, ".chat"},
        std::pair{Format::kTypedstreamLittleEndian, ".chat"}}) {
    SCOPED_TRACE(ext);
    testing::TempHome home;
    std::string file = std::string("anna on 2005-03-08") + ext;
    home.Write(file, WriteTranscript(t, format));
    auto text = RunTool({"convert", home.path() + "/" + file, "--to", "text"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, plain);
    auto page = RunTool(
        {"convert", "--to=html", home.path() + "/" + file, "-o", home.path() + "/out.html"});
    EXPECT_EQ(page.status, 0) << page.err;
    EXPECT_EQ(page.out, "");
    std::ifstream in(home.path() + "/out.html", std::ios::binary);
    std::string written((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(written, html);
  }
}

}  // namespace
}  // namespace gab
