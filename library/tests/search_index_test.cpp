// The search index over real transcript files: the query language, the
// incremental updates, and the chat page's escaping of chat-borne HTML.
#include "library/search_index.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "archive/testing/fixture_writer.h"
#include "library/chat_html.h"
#include "library/reading_pages.h"
#include "platform/text.h"
#include "testing/temp_home.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

namespace fs = std::filesystem;
using fixtures::TextRun;

struct Line {
  std::u16string speaker;  // Jabber account; "" for a status line
  std::vector<TextRun> runs;
};

TextRun Text(std::u16string t) {
  return TextRun(std::move(t));
}

// A transcript file "<party> on 2005-03-0D at 10.00.ichat" in `folder`, one
// message a minute from `start`; returns its key.
std::string Write(const std::string& folder, const std::u16string& party, int day, double start,
                  const std::vector<Line>& lines, std::vector<std::u16string> others = {}) {
  fixtures::Transcript t;
  t.service = u"Jabber";
  if (others.empty()) others = {party};
  for (auto& o : others) t.participants.push_back({u"Jabber", o});
  for (size_t i = 0; i < lines.size(); ++i) {
    fixtures::Message m;
    if (!lines[i].speaker.empty()) m.speaker = fixtures::Speaker{u"Jabber", lines[i].speaker};
    m.time = Date::FromUnix(start + 60.0 * double(i));
    m.runs = lines[i].runs;
    t.messages.push_back(std::move(m));
  }
  std::string key = ToUtf8(party) + " on 2005-03-0" + std::to_string(day) + " at 10.00.ichat";
  std::ofstream(folder + "/" + key, std::ios::binary)
      << fixtures::WriteTranscript(t, fixtures::Format::kKeyed);
  return key;
}

class SearchIndexTest : public ::testing::Test {
 protected:
  SearchIndexTest() {
    fs::create_directories(folder_);
    index_ = SearchIndex::Open(SearchIndexPath(home_.data()));
  }
  std::vector<std::string> Texts(const SearchQuery& q, std::string* error = nullptr) {
    std::vector<std::string> out;
    for (const auto& h : index_->Search(q, error)) out.push_back(h.snippet);
    return out;
  }
  testing::LibraryHome home_;
  std::string folder_ = home_.path() + "/iChats";
  std::unique_ptr<SearchIndex> index_;
};

constexpr double kMarch2005 = 1110294000;  // 2005-03-08 10:00 New York

TEST_F(SearchIndexTest, QueryLanguage) {
  Write(folder_, u"Anna", 1, kMarch2005,
        {{u"anna", {Text(u"Meet me at the Caf\u00e9 Luna")}},
         {u"me", {Text(u"my frequent flyer number is 12345")}},
         {u"anna", {Text(u"don't forget the tickets")}},
         {u"", {Text(u"Anna is away")}}});
  Write(folder_, u"Bo", 2, kMarch2005 + 30 * 86400,
        {{u"bo", {Text(u"cafe au lait please")}},
         {u"bo", {Text(u"the flyer is frequent")}},
         {u"me", {Text(u"Gr\u00fc\u00dfe aus Berlin")}}});
  Write(folder_, u"Book Club", 3, kMarch2005 + 60 * 86400,
        {{u"cy", {Text(u"na\u00efve readers, all of us")}}}, {u"anna", u"cy"});
  ASSERT_TRUE(index_->Sync(folder_).finished);

  const std::string cafeBo =
      "\x01"
      "cafe\x02 au lait please";
  const std::string cafeAnna =
      "Meet me at the \x01"
      "Caf\xC3\xA9\x02 Luna";
  struct Row {
    const char* query;
    std::string person, since, until;
    std::vector<std::string> snippets;  // newest first
  } rows[] = {
      {"cafe", "", "", "", {cafeBo, cafeAnna}},  // accents fold both ways
      {"CAF\xC3\x89", "", "", "", {cafeBo, cafeAnna}},
      {"\"frequent flyer\"",
       "",
       "",
       "",
       {"my \x01"
        "frequent flyer\x02 number is 12345"}},
      {"flyer frequent",
       "",
       "",
       "",
       {"the \x01"
        "flyer\x02 is \x01"
        "frequent\x02",
        "my \x01"
        "frequent\x02 \x01"
        "flyer\x02 number is 12345"}},
      {"fly* numb*",
       "",
       "",
       "",
       {"my frequent \x01"
        "flyer\x02 \x01"
        "number\x02 is 12345"}},
      {"\"forget the\" tick*",
       "",
       "",
       "",
       {"don't \x01"
        "forget the\x02 \x01"
        "tickets\x02"}},
      {"don't",
       "",
       "",
       "",
       {"\x01"
        "don't\x02 forget the tickets"}},
      {"gr\xC3\xBC\xC3\x9F"
       "e",
       "",
       "",
       "",
       {"\x01"
        "Gr\xC3\xBC\xC3\x9F"
        "e\x02 aus Berlin"}},
      {"away", "", "", "", {}},  // status lines are not searched
      {"cafe", "", "2005-04", "", {cafeBo}},
      {"cafe", "", "", "2005-03-31", {cafeAnna}},
      {"cafe", "bo", "", "", {cafeBo}},  // the chat's person, any case
      {"naive",
       "cy",
       "",
       "",
       {"\x01"
        "na\xC3\xAF"
        "ve\x02 readers, all of us"}},  // a participant
      {"naive",
       "Anna",
       "",
       "",
       {"\x01"
        "na\xC3\xAF"
        "ve\x02 readers, all of us"}},
      {"naive", "Bo", "", "", {}},
      {"cafe", "nobody", "", "", {}},
      {"unclosed \"quote", "", "", "", {}},  // not an error, just no match
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.query + std::string(" / ") + r.person + " " + r.since + "-" + r.until);
    SearchQuery q;
    q.text = r.query;
    q.person = r.person;
    if (!r.since.empty()) q.since = ParseSearchDate(r.since, false);
    if (!r.until.empty()) q.until = ParseSearchDate(r.until, true);
    std::string error;
    EXPECT_EQ(Texts(q, &error), r.snippets);
    EXPECT_EQ(error, "");
  }
  for (const char* nothing : {"", "!!!", "\"\" * -"}) {
    std::string error;
    SearchQuery q;
    q.text = nothing;
    EXPECT_TRUE(Texts(q, &error).empty());
    EXPECT_NE(error, "") << nothing;
  }
}

TEST_F(SearchIndexTest, GrowsOnlyWhatIsNewAndReindexesWhatChanged) {
  auto line = [](const char* text) { return Line{u"anna", {Text(ToUtf16(text))}}; };
  struct Step {
    const char* what;
    std::vector<Line> lines;
    SearchIndex::Change change;
    int zebras, messages;
  } steps[] = {
      {"new", {line("a zebra"), line("hello")}, SearchIndex::Change::kAdded, 1, 2},
      {"grown",
       {line("a zebra"), line("hello"), line("zebra again")},
       SearchIndex::Change::kGrown,
       2,
       3},
      {"rewritten",
       {line("a horse"), line("hello"), line("zebra again"), line("bye")},
       SearchIndex::Change::kReindexed,
       1,
       4},
      {"shrunk", {line("a horse")}, SearchIndex::Change::kReindexed, 0, 1},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.what);
    std::string key = Write(folder_, u"Anna", 1, kMarch2005, s.lines);
    std::string path = folder_ + "/" + key;
    auto log = ICLPChatLog::InitWithFilePath(path);
    ASSERT_TRUE(log);
    int64_t size = int64_t(fs::file_size(path));
    // A new size stands for a new modification time: the index compares both.
    EXPECT_EQ(index_->Add(key, size, size, *log), s.change);
    EXPECT_EQ(index_->Add(key, size, size, *log), SearchIndex::Change::kUnchanged);
    SearchQuery q;
    q.text = "zebra";
    EXPECT_EQ(int(Texts(q).size()), s.zebras);
    EXPECT_EQ(index_->MessageCount(), s.messages);
  }
}

TEST_F(SearchIndexTest, ChatPageShowsChatHtmlAsText) {
  TextRun boldRed(u"loud");
  boldRed.fontName = u"Helvetica-Bold";
  boldRed.rgb = std::array<double, 3>{1, 0, 0};
  TextRun evil(u"click");
  evil.link = fixtures::Link(u"javascript:window.pwned=1");
  TextRun fine(u"site");
  fine.link = fixtures::Link(u"http://ok.example/?a=1&b=\"x\"");
  TextRun file(u"");
  file.attachment = fixtures::Attachment(u"\"><img src=x onerror=alert(1)>.pdf", "%PDF-1.4");
  std::string key = Write(folder_, u"<i>Eve", 1, kMarch2005,
                          {{u"eve", {Text(u"<script>window.pwned=1</script>")}},
                           {u"eve", {Text(u"<b>not bold</b> & more")}},
                           {u"eve", {evil, Text(u" "), fine, Text(u" "), boldRed}},
                           {u"eve", {file}}});
  ASSERT_TRUE(index_->Sync(folder_).finished);
  ReadingPages pages(folder_, SearchIndex::Open(SearchIndexPath(home_.data())));
  ViewerReply reply;
  ASSERT_TRUE(pages.Serve("/chat", "t=" + QueryValue(key), reply));
  ASSERT_EQ(reply.status, 200);
  const std::string& page = reply.body;
  for (const char* shown : {
           "&lt;script&gt;window.pwned=1&lt;/script&gt;",
           "&lt;b&gt;not bold&lt;/b&gt; &amp; more",
           "<h1>&lt;i&gt;Eve</h1>",
           "click <a href=\"http://ok.example/?a=1&amp;b=&quot;x&quot;\"",
           "<span style=\"font-weight:bold;color:#ff0000;\">loud</span>",
           "download=\"&quot;&gt;&lt;img src=x onerror=alert(1)&gt;.pdf\"",
       })
    EXPECT_NE(page.find(shown), std::string::npos) << shown;
  for (const char* never : {"<script", "<b>", "javascript:", "<img src=x", "<i>"})
    EXPECT_EQ(page.find(never), std::string::npos) << never;
  bool strict = false;
  for (const auto& [name, value] : reply.headers)
    strict |= name == "Content-Security-Policy" && value.find("default-src 'none'") == 0;
  EXPECT_TRUE(strict);

  // The attachment is served as a download, never as a page.
  ASSERT_TRUE(pages.Serve("/attachment", "t=" + QueryValue(key) + "&m=3&a=0", reply));
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.contentType, "application/octet-stream");
  EXPECT_EQ(reply.body, "%PDF-1.4");
  ASSERT_TRUE(pages.Serve("/attachment", "t=" + QueryValue("../" + key) + "&m=3&a=0", reply));
  EXPECT_EQ(reply.status, 404);
}

}  // namespace
}  // namespace gab
