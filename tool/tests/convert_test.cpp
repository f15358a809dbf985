#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "archive/testing/fixture_writer.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

using testing::kTool;
using testing::RunProgram;

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
    auto text = RunProgram({kTool, "convert", home.path() + "/" + file, "--to", "text"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, plain);
    // -o: a file, standard output ("-"), or into a folder (made when missing).
    std::filesystem::create_directories(home.path() + "/out");
    for (auto [output, path] : {std::pair{"/out.html", "/out.html"}, std::pair{"-", ""},
                                std::pair{"/new/", "/new/anna on 2005-03-08.html"},
                                std::pair{"/out", "/out/anna on 2005-03-08.html"}}) {
      SCOPED_TRACE(output);
      std::string o = *output == '-' ? output : home.path() + output;
      std::filesystem::remove(home.path() + "/out/anna on 2005-03-08.html");
      auto page = RunProgram({kTool, "convert", "--to=html", home.path() + "/" + file, "-o", o});
      EXPECT_EQ(page.status, 0) << page.err;
      std::string written = page.out;
      if (*path) {
        EXPECT_EQ(page.out, "");
        std::ifstream in(home.path() + path, std::ios::binary);
        written.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      }
      EXPECT_EQ(written, html);
    }
  }
}

}  // namespace
}  // namespace gab
