// The search index kept by the real parser and read by `gabfolio search`: a
// transcript that grows adds its new words once, a removed one loses its
// hits, and a damaged index file is built again on the next run.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "library/search_index.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"
#include "tests/fixtures/chats.h"

namespace gab::product {
namespace {

using namespace testing;
using samples::Chat;

constexpr double kMarch2005 = 1110294420;

Chat WithLines(const std::string& party, const std::vector<std::string>& lines) {
  Chat c;
  c.party = party;
  c.start = kMarch2005;
  c.others = {party};
  for (size_t i = 0; i < lines.size(); ++i)
    c.lines.push_back({i % 2 ? "me" : party, "AIM", double(i), lines[i], {}, {}});
  return c;
}

TEST(SearchWithTheParser, GrowRemoveAndDamage) {
  TempHome home;
  ASSERT_EQ(RunProgram({kTool, "setup"}).status, 0);
  const std::string chats = home.transcripts();
  const std::string index = SearchIndexPath(home.data());
  // What the parser put into the index, read without bringing it up to date.
  auto hits = [&](const std::string& word) {
    SearchQuery q;
    q.text = word;
    return SearchIndex::Open(index)->Search(q).size();
  };
  auto parse = [&] { return RunProgram({kParser, kParser}); };

  struct Step {
    const char* what;
    std::vector<std::string> anna;  // Anna's chat; empty: removed
    std::vector<std::pair<const char*, size_t>> found;
  } steps[] = {
      {"new", {"meet the zebra", "ok"}, {{"zebra", 1}, {"quokka", 0}}},
      {"grown",
       {"meet the zebra", "ok", "a quokka!", "zebra again"},
       {{"zebra", 2}, {"quokka", 1}}},
      {"rewritten", {"meet the okapi", "ok"}, {{"zebra", 0}, {"okapi", 1}}},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.what);
    samples::WriteChat(chats, WithLines("Anna", s.anna));
    Result r = parse();
    ASSERT_EQ(r.status, 0) << r.err;
    for (const auto& [word, n] : s.found) EXPECT_EQ(hits(word), n) << word;
  }

  // Removed: the front finds nothing new to parse, and the search itself
  // notices that the transcript is gone.
  std::filesystem::remove(chats + "/" + samples::FileName(WithLines("Anna", {})));
  Result r = RunProgram({kTool, "search", "okapi"});
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_EQ(r.out, "");

  // A damaged index is replaced, with one log line, the next time the parser
  // runs, and filled with every transcript again.
  samples::WriteChat(chats, WithLines("Bo", {"the okapi is back"}));
  ASSERT_EQ(parse().status, 0);
  std::ofstream(index, std::ios::binary | std::ios::trunc) << std::string(8192, 'x');
  samples::WriteChat(chats, WithLines("Cy", {"a new zebra"}));
  r = parse();
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(CountOf(r.err, "search index"), 1) << r.err;
  EXPECT_EQ(hits("okapi"), 1u);
  EXPECT_EQ(hits("zebra"), 1u);

  r = RunProgram({kTool, "search", "okapi", "--json"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\"person\": \"Bo\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"snippet\": \"the okapi is back\""), std::string::npos) << r.out;
  EXPECT_EQ(RunProgram({kTool, "search"}).status, 2);
}

}  // namespace
}  // namespace gab::product
