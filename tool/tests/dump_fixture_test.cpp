#include <gtest/gtest.h>

#include "archive/testing/fixture_writer.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

namespace fx = fixtures;

TEST(Dump, PrintsParticipantsAndMessages) {
  testing::TempHome home;
  home.Write("Library/Application Support/AddressBook/Contacts.vcf",
             "BEGIN:VCARD\nN:Stone;Bob\nX-AIM:buddy1\nEND:VCARD\n");
  fx::Speaker bob{u"AIM", u"buddy1"};
  fx::Transcript t;
  t.participants = {bob};
  fx::TextRun link(u"site");
  link.link = fx::Link(u"http://example.org/", true);
  fx::TextRun file(u"");
  file.attachment = fx::Attachment(u"photo.jpg", "12345");
  t.messages = {
      fx::Message{bob, Date{0}, {fx::TextRun(u"see\nthis "), link, file}},
      fx::Message{std::nullopt, Date{60}, {fx::TextRun(u"Bob went \x1b[31maway")}},
  };
  for (auto format : {fx::Format::kTypedstreamBigEndian, fx::Format::kKeyed}) {
    std::string name =
        format == fx::Format::kKeyed ? "/Bob Stone on 2005.ichat" : "/Bob Stone on 2005.chat";
    home.Write(name.substr(1), fx::WriteTranscript(t, format));
    auto run = testing::RunProgram({testing::kTool, "dump", home.path() + name});
    ASSERT_EQ(run.status, 0) << run.err;
    const char* expected[] = {
        "Other party: Bob Stone\n",
        "Participants: 1 (speakers: 2)\n",
        "  buddy1 on AIM: Bob Stone\n",
        "Messages: 2 (last: ",
        "Bob Stone (buddy1 on AIM)\n    see\n    this site\xEF\xBF\xBC\n",
        "    link: http://example.org/\n",
        "    attachment: photo.jpg (5 bytes)\n",
        "(no sender) status\n    Bob went \\x1b[31maway\n",
    };
    size_t at = 0;
    for (const char* line : expected) {
      size_t found = run.out.find(line, at);
      EXPECT_NE(found, std::string::npos) << line << "\nin:\n" << run.out;
      if (found != std::string::npos) at = found;
    }
  }
}

}  // namespace
}  // namespace gab
