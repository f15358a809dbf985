#include "library/statistics.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "library/log_generator.h"
#include "library/tests/statistics_test_support.h"
#include "platform/dates.h"

namespace gab {
namespace {

using testing::Chat;
using testing::kPlaceholders;
using testing::Line;
using testing::ReadStore;
using testing::StoredTotals;
using testing::WordListXml;

// One "NAME=____NAME" line per placeholder, and one placeholder a second
// time on a line of its own.
std::string TestTemplate() {
  std::string t = "<p>stats</p>\n";
  for (const char* p : kPlaceholders) t += std::string(p) + "=____" + p + "\n";
  t += "AGAIN=____USERTOTAL/____USERTOTAL\n";
  return t;
}

std::map<std::string, std::string> ParsePage(const std::string& page) {
  std::map<std::string, std::string> values;
  size_t from = 0;
  while (from < page.size()) {
    size_t end = page.find('\n', from);
    if (end == std::string::npos) end = page.size();
    std::string line = page.substr(from, end - from);
    if (size_t eq = line.find('='); eq != std::string::npos)
      values[line.substr(0, eq)] = line.substr(eq + 1);
    from = end + 1;
  }
  return values;
}

double At(int y, int mon, int d, int h = 12) {
  tm t{};
  t.tm_year = y - 1900;
  t.tm_mon = mon - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  return double(timegm(&t)) - Date::kUnixOffset;
}

std::string Iso(double since2001) {
  time_t t = time_t(since2001 + Date::kUnixOffset);
  tm u{};
  gmtime_r(&t, &u);
  char buf[32];
  strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &u);
  return buf;
}

// A store as XML: integer keys with values, then optional dates.
std::string StoreXml(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (const auto& [key, value] : entries) xml += "<key>" + key + "</key>" + value + "\n";
  return xml + "</dict>\n</plist>\n";
}
std::string Int(long long v) {
  return "<integer>" + std::to_string(v) + "</integer>";
}
std::string DateXml(double since2001) {
  return "<date>" + Iso(since2001) + "</date>";
}

class Statistics : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = std::getenv("TZ")) savedTz_ = tz;
    setenv("TZ", "UTC", 1);
    tzset();
    folder_ = home_.path() + "/Library/Gabfolio";
    std::filesystem::create_directories(folder_);
  }
  void TearDown() override {
    if (savedTz_)
      setenv("TZ", savedTz_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  void Put(const std::string& name, const std::string& bytes) {
    ASSERT_TRUE(WriteFileAtomically(folder_ + "/" + name, bytes));
  }
  void Remove(const std::string& name) { std::filesystem::remove(folder_ + "/" + name); }
  std::map<std::string, std::string> Page() {
    auto page = ReadWholeFile(folder_ + "/stats.html");
    EXPECT_TRUE(page.has_value());
    return page ? ParsePage(*page) : std::map<std::string, std::string>{};
  }
  std::string Day(Date d) { return FormatDate(d, "%B %e, %Y", DayPadding::kBlank); }

  testing::TempHome home_;
  std::string folder_;
  std::optional<std::string> savedTz_;
};

const std::vector<std::string> kCurses = {"damn", "Damn", "DAMN"};
const std::vector<std::string> kSlang = {"lol", "LOL", "brb", "omg"};

struct Case {
  const char* name;
  std::optional<std::string> store;          // nothing: no store file
  std::optional<std::string> curses, slang;  // file contents; nothing: no file
  std::u16string party;
  std::vector<Line> lines;
  std::map<std::string, std::string> page;  // expected page values
  std::map<std::string, int64_t> counts;    // expected stored counts
  bool startFromFolder = false;             // DATE1 is the folder's creation date
};

TEST_F(Statistics, AccumulatesStoresAndChatsIntoStoreAndPage) {
  const double mar1 = At(2005, 3, 1), mar11 = At(2005, 3, 11);
  const std::string lists = WordListXml(kCurses), slang = WordListXml(kSlang);
  const std::vector<Case> cases = {
      {"nine chats before, ten user words now",
       StoreXml({{"chatcount", Int(9)}, {"usertextcount", Int(90)}, {"startDate", DateXml(mar1)}}),
       lists,
       slang,
       u"Anna",
       {{u"me", u"one two three four five six seven eight nine ten", mar11}},
       {{"USERTOTAL", "100"},
        {"USERWORDAVG", "10.0"},
        {"OTHERTOTAL", "0"},
        {"SUMTOTAL", "100"},
        {"SUMWORDAVG", "10.0"},
        {"CHATRATIOSIZE", "300"},
        {"DATE1", "March  1, 2005"},
        {"DATE2", "March 11, 2005"},
        {"AVGCHATSPERDAY", "1.0"},
        {"AGAIN", "100/100"}},
       {{"chatcount", 10}, {"usertextcount", 100}, {"cursecount", 0}}},
      {"word lists count exact members only",
       std::nullopt,
       lists,
       slang,
       u"Anna",
       {{u"me", u"damn it lol LOL damn, brb", mar1},
        {u"Anna", u"Damn lol", mar1},
        {u"Anna", u"Lol damned", mar1}},
       {{"USERTOTAL", "6"},
        {"OTHERTOTAL", "4"},
        {"USERCURSETOTAL", "1"},
        {"OTHERCURSETOTAL", "1"},
        {"SUMCURSETOTAL", "2"},
        {"NETSPEAKTOTAL", "3"},
        {"NETSPEAKOTHERTOTAL", "1"},
        {"NETSPEAKSUMTOTAL", "4"},
        {"CURSERATIOSIZE", "50"},
        {"CURSERECRATIOSIZE", "75"},
        {"NETSPEAKRATIOSIZE", "150"},
        {"CHATRATIOSIZE", "180"},
        {"USERWORDAVG", "6.0"},
        {"SUMWORDAVG", "10.0"}},
       {{"cursecount", 1},
        {"othercursecount", 1},
        {"netspeakcount", 3},
        {"othernetspeakcount", 1}}},
      {"missing word lists: every word counts",
       StoreXml({{"chatcount", Int(1)},
                 {"usertextcount", Int(5)},
                 {"cursecount", Int(5)},
                 {"othertextcount", Int(1)},
                 {"othernetspeakcount", Int(1)},
                 {"startDate", DateXml(mar1)}}),
       std::nullopt,
       std::nullopt,
       u"Anna",
       {{u"me", u"hello there", mar1}, {u"Anna", u"hi you", mar1}},
       {{"USERCURSETOTAL", "7"},
        {"NETSPEAKTOTAL", "2"},
        {"NETSPEAKOTHERTOTAL", "3"},
        {"CURSERATIOSIZE", "300"},
        {"NETSPEAKRATIOSIZE", "86"}},
       {{"usertextcount", 7},
        {"cursecount", 7},
        {"netspeakcount", 2},
        {"othercursecount", 2},
        {"othertextcount", 3},
        {"othernetspeakcount", 3}}},
      {"unparsable word lists count like missing ones",
       std::nullopt,
       "damn lol",
       "<plist><dict><key>a</key><string>lol</string></dict></plist>",
       u"Anna",
       {{u"me", u"nice day", mar1}},
       {{"USERCURSETOTAL", "2"}, {"NETSPEAKTOTAL", "2"}},
       {{"cursecount", 2}, {"netspeakcount", 2}}},
      {"user never wrote: the user's ratios divide by zero",
       std::nullopt,
       lists,
       slang,
       u"Anna",
       {{u"Anna", u"anyone there lol", mar1}},
       {{"CHATRATIOSIZE", "0"},
        {"CURSERATIOSIZE", "nan"},
        {"NETSPEAKRATIOSIZE", "nan"},
        {"CURSERECRATIOSIZE", "0"},
        {"USERWORDAVG", "0.0"},
        {"OTHERWORDAVG", "3.0"}},
       {}},
      {"nobody wrote: every ratio is nan, never -nan",
       std::nullopt,
       lists,
       slang,
       u"Anna",
       {{std::nullopt, u"Anna went away", mar1}},
       {{"CHATRATIOSIZE", "nan"},
        {"CURSERATIOSIZE", "nan"},
        {"CURSERECRATIOSIZE", "nan"},
        {"NETSPEAKRATIOSIZE", "nan"},
        {"SUMWORDAVG", "0.0"}},
       {{"usertextcount", 0}, {"othertextcount", 0}}},
      {"counts over zero words are infinite",
       StoreXml({{"cursecount", Int(5)},
                 {"netspeakcount", Int(-3)},
                 {"othercursecount", Int(2)},
                 {"startDate", DateXml(mar1)}}),
       lists,
       slang,
       u"Anna",
       {{std::nullopt, u"", mar1}},
       {{"CURSERATIOSIZE", "inf"},
        {"NETSPEAKRATIOSIZE", "-inf"},
        {"CURSERECRATIOSIZE", "inf"},
        {"CHATRATIOSIZE", "nan"},
        {"NETSPEAKTOTAL", "-3"}},
       {{"netspeakcount", -3}}},
      {"two hundred against one hundred",
       StoreXml({{"usertextcount", Int(200)},
                 {"othertextcount", Int(100)},
                 {"chatcount", Int(2)},
                 {"startDate", DateXml(mar1)}}),
       lists,
       slang,
       u"Anna",
       {{std::nullopt, u"", mar1}},
       {{"CHATRATIOSIZE", "200"},
        {"USERWORDAVG", "66.7"},
        {"SUMWORDAVG", "100.0"},
        {"SUMTOTAL", "300"}},
       {{"chatcount", 3}}},
      {"group chat: every sender but the named party is the user",
       std::nullopt,
       lists,
       slang,
       u"Anna",
       {{u"me", u"hi all", mar1},
        {u"Bob", u"hey lol", mar1},
        {u"Anna", u"yo", mar1},
        {u"Annabel", u"hello", mar1}},
       {{"USERTOTAL", "5"}, {"OTHERTOTAL", "1"}, {"NETSPEAKTOTAL", "1"}},
       {}},
      {"images and links from the gathered entries",
       StoreXml({{"imagecount", Int(4)},
                 {"linkcount", Int(1)},
                 {"chatcount", Int(1)},
                 {"startDate", DateXml(mar1)}}),
       lists,
       slang,
       u"Anna",
       {{u"me", u"look", mar1, {u"http://a.example/", u"http://b.example/"}, 1},
        {u"Anna", u"mine", mar1, {}, 2},
        {u"Anna", u"", mar1, {}, 0},
        {std::nullopt, u"status", mar1, {u"http://status.example/"}, 1}},
       {{"CHATIMAGETOTAL", "7"},
        {"CHATLINKTOTAL", "3"},
        {"CHATIMAGEAVG", "3.5"},
        {"CHATLINKAVG", "1.5"}},
       {{"imagecount", 7}, {"linkcount", 3}}},
      {"store without a start date: the folder's creation date",
       StoreXml({{"chatcount", Int(3)}, {"usertextcount", Int(3)}}),
       lists,
       slang,
       u"Anna",
       {{u"me", u"hi", mar1}},
       {{"USERTOTAL", "4"}},
       {{"chatcount", 4}},
       true},
      {"unparsable store: like a store without keys",
       std::string("\x01\x02 not a plist"),
       lists,
       slang,
       u"Anna",
       {{u"me", u"hi", mar1}},
       {{"USERTOTAL", "1"}, {"USERWORDAVG", "1.0"}},
       {{"chatcount", 1}, {"usertextcount", 1}},
       true},
      {"store that is not a dictionary",
       std::string("<plist><array><integer>5</integer></array></plist>"),
       lists,
       slang,
       u"Anna",
       {{u"me", u"hi", mar1}},
       {{"USERTOTAL", "1"}},
       {{"chatcount", 1}},
       true},
      {"counts stored in other forms read as their integer value",
       StoreXml({{"usertextcount", "<string>41 words</string>"},
                 {"othertextcount", "<real>2.9</real>"},
                 {"chatcount", "<true/>"},
                 {"imagecount", "<data>AAAA</data>"},
                 {"startDate", DateXml(mar1)}}),
       lists,
       slang,
       u"Anna",
       {{u"me", u"hi", mar1}},
       {{"USERTOTAL", "42"}, {"OTHERTOTAL", "2"}, {"CHATIMAGETOTAL", "0"}},
       {{"chatcount", 2}, {"usertextcount", 42}, {"othertextcount", 2}}},
      {"counters wrap at 32 bits",
       StoreXml({{"usertextcount", Int(2147483647)}, {"startDate", DateXml(mar1)}}),
       lists,
       slang,
       u"Anna",
       {{u"me", u"overflow", mar1}},
       {{"USERTOTAL", "-2147483648"}},
       {{"usertextcount", -2147483648LL}}},
      {"chat ending before the start date: negative days",
       StoreXml({{"chatcount", Int(4)}, {"startDate", DateXml(mar11)}}),
       lists,
       slang,
       u"Anna",
       {{u"me", u"hi", mar1}},
       {{"AVGCHATSPERDAY", "-0.5"}, {"DATE1", "March 11, 2005"}, {"DATE2", "March  1, 2005"}},
       {}},
      {"chat without messages: no end date",
       StoreXml({{"chatcount", Int(4)}, {"startDate", DateXml(mar1)}, {"endDate", DateXml(mar11)}}),
       lists,
       slang,
       u"Anna",
       {},
       {{"DATE1", "March  1, 2005"},
        {"DATE2", ""},
        {"AVGCHATSPERDAY", "0.0"},
        {"USERWORDAVG", "0.0"}},
       {{"chatcount", 5}}},
  };
  Put("statstemplate.html", TestTemplate());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.store)
      Put("talkpulse.plist", *c.store);
    else
      Remove("talkpulse.plist");
    if (c.curses)
      Put("curses.plist", *c.curses);
    else
      Remove("curses.plist");
    if (c.slang)
      Put("netspeak.plist", *c.slang);
    else
      Remove("netspeak.plist");
    Remove("stats.html");

    auto chat = Chat(c.party, c.lines);
    UpdateStatistics(chat.get());

    auto page = Page();
    for (const char* p : kPlaceholders) EXPECT_TRUE(page.count(p)) << p;
    for (const auto& [key, value] : page) EXPECT_EQ(value.find("____"), std::string::npos) << key;
    for (const auto& [key, value] : c.page) EXPECT_EQ(page[key], value) << key;

    std::optional<StoredTotals> stored = ReadStore(folder_ + "/talkpulse.plist");
    ASSERT_TRUE(stored.has_value());
    for (const auto& [key, value] : c.counts) EXPECT_EQ(stored->counts[key], value) << key;
    EXPECT_EQ(stored->counts.size(), 9u);
    ASSERT_TRUE(stored->dates.count("startDate"));
    if (c.lines.empty()) {
      EXPECT_FALSE(stored->dates.count("endDate"));
    } else {
      ASSERT_TRUE(stored->dates.count("endDate"));
      EXPECT_EQ(stored->dates["endDate"], c.lines.back().time);
    }
    if (c.startFromFolder) {
      auto created = FolderCreationDate(folder_);
      ASSERT_TRUE(created.has_value());
      EXPECT_EQ(page["DATE1"], Day(*created));
      EXPECT_EQ(stored->dates["startDate"], std::floor(created->time));
    }
    // The page agrees with the store it came with.
    EXPECT_EQ(page["USERTOTAL"], std::to_string(stored->counts["usertextcount"]));
  }
}

TEST_F(Statistics, FirstChatStartsTheTotalsNow) {
  Put("statstemplate.html", TestTemplate());
  const Date before = Date::Now();
  auto chat = Chat(u"Anna", {{u"me", u"first words", before.time}, {u"Anna", u"hi", before.time}});
  UpdateStatistics(chat.get());
  const Date after = Date::Now();

  auto stored = ReadStore(folder_ + "/talkpulse.plist");
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->counts["chatcount"], 1);
  EXPECT_EQ(stored->keys.size(), 11u);
  EXPECT_GE(stored->dates["startDate"], std::floor(before.time));
  EXPECT_LE(stored->dates["startDate"], after.time);
  auto page = Page();
  EXPECT_EQ(page["AVGCHATSPERDAY"], "0.0");
  EXPECT_EQ(page["USERTOTAL"], "2");
  EXPECT_EQ(page["USERCURSETOTAL"], "2") << "no curse list: every word counts";
  EXPECT_EQ(page["DATE1"], Day(before));

  // The second call counts on from the first.
  UpdateStatistics(chat.get());
  stored = ReadStore(folder_ + "/talkpulse.plist");
  EXPECT_EQ(stored->counts["chatcount"], 2);
  EXPECT_EQ(stored->counts["usertextcount"], 4);
  EXPECT_EQ(Page()["USERWORDAVG"], "2.0");
}

TEST_F(Statistics, NoTranscriptCountsAChatThatEndsNow) {
  Put("statstemplate.html", TestTemplate());
  Put("talkpulse.plist", StoreXml({{"chatcount", Int(1)},
                                   {"usertextcount", Int(8)},
                                   {"startDate", DateXml(At(2005, 3, 1))}}));
  const Date before = Date::Now();
  UpdateStatistics(nullptr);
  auto stored = ReadStore(folder_ + "/talkpulse.plist");
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->counts["chatcount"], 2);
  EXPECT_EQ(stored->counts["usertextcount"], 8);
  EXPECT_GE(stored->dates["endDate"], std::floor(before.time));
  auto page = Page();
  EXPECT_EQ(page["DATE2"], Day(before));
  EXPECT_EQ(page["USERWORDAVG"], "4.0");
}

TEST_F(Statistics, MissingTemplateStillWritesTheStore) {
  auto chat = Chat(u"Anna", {{u"me", u"hello", At(2005, 3, 1)}});
  UpdateStatistics(chat.get());
  EXPECT_TRUE(ReadStore(folder_ + "/talkpulse.plist").has_value());
  EXPECT_FALSE(FileExists(folder_ + "/stats.html"));
}

TEST_F(Statistics, NoDataFolderWritesNothingAnywhere) {
  std::filesystem::remove_all(folder_);
  auto chat = Chat(u"Anna", {{u"me", u"hello", At(2005, 3, 1)}});
  UpdateStatistics(chat.get());
  EXPECT_TRUE(std::filesystem::is_empty(home_.path() + "/Library"));
}

TEST_F(Statistics, PageReplacesEveryOccurrenceAndLeavesTheRest) {
  Put("statstemplate.html",
      "a ____USERTOTAL b ____USERTOTAL ____usertotal ____UNKNOWN ____DATE1____DATE1 "
      "\xc3\xa9\xe2\x82\xac\n");
  Put("talkpulse.plist",
      StoreXml({{"usertextcount", Int(6)}, {"startDate", DateXml(At(2005, 3, 1))}}));
  auto chat = Chat(u"Anna", {{u"me", u"x", At(2005, 3, 2)}});
  UpdateStatistics(chat.get());
  EXPECT_EQ(
      ReadWholeFile(folder_ + "/stats.html").value_or(""),
      "a 7 b 7 ____usertotal ____UNKNOWN March  1, 2005March  1, 2005 \xc3\xa9\xe2\x82\xac\n");
}

TEST(StatisticsStore, BuildingStopsAtTheFirstMissingDate) {
  testing::TempHome home;
  StatisticsTotals t;
  t.chats = 3;
  struct Case {
    std::optional<Date> start, end;
    size_t keys;
  };
  for (const Case& c : std::vector<Case>{{Date{100}, Date{200}, 11},
                                         {Date{100}, std::nullopt, 10},
                                         {std::nullopt, Date{200}, 9},
                                         {std::nullopt, std::nullopt, 9}}) {
    t.start = c.start;
    t.end = c.end;
    PlistPtr store = StatisticsStore(t);
    EXPECT_EQ(plist_dict_get_size(store.get()), c.keys);
    EXPECT_EQ(plist_dict_get_item(store.get(), "startDate") != nullptr, c.keys >= 10);
    EXPECT_EQ(plist_dict_get_item(store.get(), "endDate") != nullptr, c.keys == 11);
  }
}

TEST(StatisticsNumbers, PrintedAsCDoesButNanHasNoSign) {
  testing::TempHome home;
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    double value;
    int decimals;
    const char* text;
  };
  for (const Case& c : std::vector<Case>{{nan, 0, "nan"},
                                         {-nan, 0, "nan"},
                                         {double(0.0f / 0.0f), 1, "nan"},
                                         {inf, 0, "inf"},
                                         {-inf, 1, "-inf"},
                                         {66.66666412353516, 1, "66.7"},
                                         {85.71428571428571, 0, "86"},
                                         {-0.5, 1, "-0.5"},
                                         {1e20, 0, "100000000000000000000"}}) {
    EXPECT_EQ(FormatFixed(c.value, c.decimals), c.text) << c.value;
  }
}

TEST(StatisticsNumbers, AveragesAreSinglePrecision) {
  testing::TempHome home;
  // 16777217 has no single-precision form: it rounds to 16777216 first.
  StatisticsTotals t;
  t.userWords = 16777217;
  t.chats = 1;
  auto page = FillStatisticsTemplate("____USERWORDAVG ____USERTOTAL", t);
  EXPECT_EQ(page, "16777216.0 16777217");
}

}  // namespace
}  // namespace gab
