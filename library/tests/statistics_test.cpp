#include "library/statistics.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "library/log_generator.h"
#include "platform/dates.h"
#include "platform/files.h"
#include "platform/plist.h"
#include "testing/temp_home.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

using testing::Chat;
using testing::Line;

const char* const kPlaceholders[] = {"USERTOTAL",
                                     "OTHERTOTAL",
                                     "SUMTOTAL",
                                     "USERWORDAVG",
                                     "OTHERWORDAVG",
                                     "SUMWORDAVG",
                                     "CHATRATIOSIZE",
                                     "CHATIMAGEAVG",
                                     "CHATLINKAVG",
                                     "CHATIMAGETOTAL",
                                     "CHATLINKTOTAL",
                                     "USERCURSETOTAL",
                                     "OTHERCURSETOTAL",
                                     "SUMCURSETOTAL",
                                     "CURSERATIOSIZE",
                                     "CURSERECRATIOSIZE",
                                     "NETSPEAKTOTAL",
                                     "NETSPEAKOTHERTOTAL",
                                     "NETSPEAKSUMTOTAL",
                                     "NETSPEAKRATIOSIZE",
                                     "DATE1",
                                     "DATE2",
                                     "AVGCHATSPERDAY"};

// One "NAME=____NAME" line per placeholder, and one placeholder twice.
std::string Template() {
  std::string t = "<p>stats</p>\n";
  for (const char* p : kPlaceholders) t += std::string(p) + "=____" + p + "\n";
  return t + "AGAIN=____USERTOTAL/____USERTOTAL\n";
}

std::map<std::string, std::string> ParsePage(const std::string& page) {
  std::map<std::string, std::string> values;
  std::istringstream in(page);
  for (std::string line; std::getline(in, line);)
    if (size_t eq = line.find('='); eq != std::string::npos)
      values[line.substr(0, eq)] = line.substr(eq + 1);
  return values;
}

// The store read back: integers by key, dates as seconds since 2001.
struct Stored {
  std::map<std::string, int64_t> counts;
  std::map<std::string, double> dates;
};

Stored ReadStore(const std::string& path) {
  Stored out;
  PlistPtr root = ReadPlistFile(path);
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(root.get(), &it);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(root.get(), it, &key, &value);
    if (!value) break;
    if (plist_get_node_type(value) == PLIST_UINT) {
      uint64_t v = 0;
      plist_get_uint_val(value, &v);
      out.counts[key] = int64_t(v);
    } else if (plist_get_node_type(value) == PLIST_DATE) {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(value, &sec, &usec);
      out.dates[key] = sec + usec / 1e6;
    }
    std::free(key);
  }
  std::free(it);
  return out;
}

double At(int day) {  // noon on a day of March 2005, UTC, in seconds since 2001
  return Date::FromUnix(1109678400 + 86400.0 * (day - 1)).time;
}

// A store from "key=value" entries: an integer, or XML as it is.
std::string Store(const std::vector<std::string>& entries) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (const auto& e : entries) {
    std::string key = e.substr(0, e.find('=')), value = e.substr(e.find('=') + 1);
    if (value[0] != '<') value = "<integer>" + value + "</integer>";
    xml += "<key>" + key + "</key>" + value + "\n";
  }
  return xml + "</dict>\n</plist>\n";
}
std::string Day(int day) {
  return "<date>2005-03-" + std::string(day < 10 ? "0" : "") + std::to_string(day) +
         "T12:00:00Z</date>";
}

std::string WordList(const std::vector<std::string>& words) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<array>\n";
  for (const std::string& w : words) xml += "<string>" + w + "</string>\n";
  return xml + "</array>\n</plist>\n";
}

class Statistics : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void Put(const std::string& name, const std::optional<std::string>& bytes) {
    std::filesystem::remove(home_.data() + "/" + name);
    if (bytes) home_.Put(name, *bytes);
  }
  std::map<std::string, std::string> Page() {
    return ParsePage(home_.Get("stats.html").value_or(""));
  }
  Stored Totals() { return ReadStore(home_.data() + "/talkpulse.plist"); }
  std::string DayOf(Date d) { return FormatDate(d, "%B %e, %Y", DayPadding::kBlank); }

  testing::LibraryHome home_;
};

const std::string kCurses = WordList({"damn", "Damn"}), kSlang = WordList({"lol", "LOL", "brb"});

TEST_F(Statistics, AccumulatesStoresAndChatsIntoStoreAndPage) {
  const std::string mar1 = "startDate=" + Day(1);
  struct Case {
    const char* name;
    std::optional<std::string> store;  // nothing: no store file
    std::vector<Line> lines;
    // "NAME=value" of the page, or "key=value" of the stored counts.
    std::vector<std::string> expected;
    std::optional<std::string> curses = kCurses, slang = kSlang;  // nothing: no file
    bool startFromFolder = false;  // DATE1 is the folder's creation date
  };
  const Case cases[] = {
      {"nine chats before, ten user words now",
       Store({"chatcount=9", "usertextcount=90", mar1}),
       {{u"me", u"one two three four five six seven eight nine ten", At(11)}},
       {"USERTOTAL=100", "USERWORDAVG=10.0", "SUMTOTAL=100", "CHATRATIOSIZE=300",
        "DATE1=March  1, 2005", "DATE2=March 11, 2005", "AVGCHATSPERDAY=1.0", "AGAIN=100/100",
        "chatcount=10", "usertextcount=100", "cursecount=0"}},
      {"word lists count exact members only",
       std::nullopt,
       {{u"me", u"damn it lol LOL damn, brb", At(1)},
        {u"Anna", u"Damn lol", At(1)},
        {u"Anna", u"Lol damned", At(1)}},
       {"USERTOTAL=6", "OTHERTOTAL=4", "USERCURSETOTAL=1", "SUMCURSETOTAL=2", "NETSPEAKTOTAL=3",
        "NETSPEAKOTHERTOTAL=1", "CURSERATIOSIZE=50", "CURSERECRATIOSIZE=75",
        "NETSPEAKRATIOSIZE=150", "CHATRATIOSIZE=180", "othercursecount=1", "netspeakcount=3"}},
      {"missing or unparsable word lists: every word counts",
       Store({"usertextcount=5", "cursecount=5", "othertextcount=1", "othernetspeakcount=1", mar1}),
       {{u"me", u"hello there", At(1)}, {u"Anna", u"hi you", At(1)}},
       {"USERCURSETOTAL=7", "NETSPEAKTOTAL=2", "NETSPEAKOTHERTOTAL=3", "CURSERATIOSIZE=300",
        "NETSPEAKRATIOSIZE=86", "cursecount=7", "othercursecount=2", "othertextcount=3"},
       std::nullopt,
       "damn lol"},
      {"nobody wrote: every ratio is nan, never -nan",
       std::nullopt,
       {{std::nullopt, u"Anna went away", At(1)}},
       {"CHATRATIOSIZE=nan", "CURSERATIOSIZE=nan", "CURSERECRATIOSIZE=nan", "NETSPEAKRATIOSIZE=nan",
        "SUMWORDAVG=0.0", "usertextcount=0"}},
      {"counts over zero words are infinite",
       Store({"cursecount=5", "netspeakcount=-3", "othercursecount=2", mar1}),
       {{std::nullopt, u"", At(1)}},
       {"CURSERATIOSIZE=inf", "NETSPEAKRATIOSIZE=-inf", "CURSERECRATIOSIZE=inf",
        "netspeakcount=-3"}},
      {"images and links from the gathered entries",
       Store({"imagecount=4", "linkcount=1", "chatcount=1", mar1}),
       {{u"me", u"look", At(1), {u"http://a.example/", u"http://b.example/"}, 1},
        {u"Anna", u"mine", At(1), {}, 2},
        {std::nullopt, u"status", At(1), {u"http://status.example/"}, 1}},
       {"CHATIMAGETOTAL=7", "CHATLINKTOTAL=3", "CHATIMAGEAVG=3.5", "CHATLINKAVG=1.5",
        "imagecount=7", "linkcount=3"}},
      {"store without a start date: the folder's creation date",
       Store({"chatcount=3", "usertextcount=3"}),
       {{u"me", u"hi", At(1)}},
       {"USERTOTAL=4", "chatcount=4"},
       kCurses,
       kSlang,
       true},
      {"unparsable store: like a store without keys",
       std::string("\x01\x02 not a plist"),
       {{u"me", u"hi", At(1)}},
       {"USERTOTAL=1", "USERWORDAVG=1.0", "chatcount=1"},
       kCurses,
       kSlang,
       true},
      {"counts stored in other forms read as their integer value",
       Store({"usertextcount=<string>41 words</string>", "othertextcount=<real>2.9</real>",
              "chatcount=<true/>", "imagecount=<data>AAAA</data>", mar1}),
       {{u"me", u"hi", At(1)}},
       {"USERTOTAL=42", "OTHERTOTAL=2", "CHATIMAGETOTAL=0", "chatcount=2", "usertextcount=42"}},
      {"counters wrap at 32 bits",
       Store({"usertextcount=2147483647", mar1}),
       {{u"me", u"overflow", At(1)}},
       {"USERTOTAL=-2147483648", "usertextcount=-2147483648"}},
      {"chat ending before the start date: negative days",
       Store({"chatcount=4", "startDate=" + Day(11)}),
       {{u"me", u"hi", At(1)}},
       {"AVGCHATSPERDAY=-0.5", "DATE1=March 11, 2005", "DATE2=March  1, 2005"}},
      {"chat without messages: no end date",
       Store({"chatcount=4", mar1, "endDate=" + Day(11)}),
       {},
       {"DATE2=", "AVGCHATSPERDAY=0.0", "chatcount=5"}},
  };
  home_.Put("statstemplate.html", Template());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Put("talkpulse.plist", c.store);
    Put("curses.plist", c.curses);
    Put("netspeak.plist", c.slang);
    UpdateStatistics(Chat(u"Anna", c.lines).get());

    auto page = Page();
    Stored stored = Totals();
    for (const char* p : kPlaceholders) EXPECT_TRUE(page.count(p)) << p;
    for (const auto& [key, value] : page) EXPECT_EQ(value.find("____"), std::string::npos) << key;
    for (const auto& e : c.expected) {
      std::string key = e.substr(0, e.find('=')), value = e.substr(e.find('=') + 1);
      EXPECT_EQ(isupper(key[0]) ? page[key] : std::to_string(stored.counts[key]), value) << key;
    }
    EXPECT_EQ(stored.counts.size(), 9u);
    EXPECT_EQ(stored.dates.count("endDate"), c.lines.empty() ? 0u : 1u);
    if (!c.lines.empty()) {
      EXPECT_EQ(stored.dates["endDate"], c.lines.back().time);
    }
    if (c.startFromFolder) {
      auto created = FolderCreationDate(home_.data());
      ASSERT_TRUE(created.has_value());
      EXPECT_EQ(page["DATE1"], DayOf(*created));
      EXPECT_EQ(stored.dates["startDate"], std::floor(created->time));
    }
    EXPECT_EQ(page["USERTOTAL"], std::to_string(stored.counts["usertextcount"]));
  }
}

TEST_F(Statistics, FirstChatStartsNowAndTheNextCountsOn) {
  home_.Put("statstemplate.html", Template());
  const Date before = Date::Now();
  auto chat = Chat(u"Anna", {{u"me", u"first words", before.time}, {u"Anna", u"hi", before.time}});
  UpdateStatistics(chat.get());
  Stored stored = Totals();
  EXPECT_EQ(stored.counts["chatcount"], 1);
  EXPECT_GE(stored.dates["startDate"], std::floor(before.time));
  EXPECT_LE(stored.dates["startDate"], Date::Now().time);
  EXPECT_EQ(Page()["DATE1"], DayOf(before));
  UpdateStatistics(chat.get());
  EXPECT_EQ(Totals().counts["usertextcount"], 4);
  EXPECT_EQ(Page()["USERWORDAVG"], "2.0");
}

TEST_F(Statistics, NoTranscriptCountsAChatThatEndsNow) {
  home_.Put("statstemplate.html", Template());
  home_.Put("talkpulse.plist", Store({"chatcount=1", "usertextcount=8", "startDate=" + Day(1)}));
  const Date before = Date::Now();
  UpdateStatistics(nullptr);
  Stored stored = Totals();
  EXPECT_EQ(stored.counts["chatcount"], 2);
  EXPECT_GE(stored.dates["endDate"], std::floor(before.time));
  EXPECT_EQ(Page()["USERWORDAVG"], "4.0");
}

TEST_F(Statistics, MissingTemplateOrDataFolder) {
  auto chat = Chat(u"Anna", {{u"me", u"hello", At(1)}});
  UpdateStatistics(chat.get());
  EXPECT_TRUE(home_.Has("talkpulse.plist"));
  EXPECT_FALSE(home_.Has("stats.html"));
  std::filesystem::remove_all(home_.data());
  UpdateStatistics(chat.get());
  EXPECT_TRUE(std::filesystem::is_empty(home_.path() + "/Library"));
}

TEST_F(Statistics, PageReplacesEveryOccurrenceAndLeavesTheRest) {
  home_.Put("statstemplate.html",
            "a ____USERTOTAL b ____USERTOTAL ____usertotal ____UNKNOWN ____DATE1____DATE1 "
            "\xc3\xa9\xe2\x82\xac\n");
  home_.Put("talkpulse.plist", Store({"usertextcount=6", "startDate=" + Day(1)}));
  UpdateStatistics(Chat(u"Anna", {{u"me", u"x", At(2)}}).get());
  EXPECT_EQ(
      home_.Get("stats.html"),
      "a 7 b 7 ____usertotal ____UNKNOWN March  1, 2005March  1, 2005 \xc3\xa9\xe2\x82\xac\n");
}

// The shipped files: the word lists hold the common forms, the template
// fills completely and forbids scripts.
TEST_F(Statistics, ShippedFiles) {
  const std::string data = GABFOLIO_SOURCE_DIR "/data/";
  auto curses = LoadWordList(data + "curses.plist");
  auto slang = LoadWordList(data + "netspeak.plist");
  ASSERT_TRUE(curses && slang);
  for (const char16_t* w : {u"damn", u"DAMN", u"Hell"}) EXPECT_TRUE(curses->count(w));
  for (const char16_t* w : {u"lol", u"LOL", u"brb", u"omg"}) EXPECT_TRUE(slang->count(w));
  EXPECT_FALSE(slang->count(u"hello") || curses->count(u"hello"));

  for (const char* f : {"statstemplate.html", "curses.plist", "netspeak.plist"})
    std::filesystem::copy_file(data + f, home_.data() + "/" + f);
  auto page = home_.Get("statstemplate.html");
  EXPECT_NE(page->find("content=\"script-src 'none'\""), std::string::npos);
  UpdateStatistics(
      Chat(u"Anna", {{u"me", u"omg hi <script>", 1e8}, {u"Anna", u"damn lol", 1e8}}).get());
  auto out = home_.Get("stats.html");
  ASSERT_TRUE(out);
  EXPECT_EQ(out->find("____"), std::string::npos);
  // 3 of 5 words are the user's; one of the other party's 2 is a curse.
  EXPECT_NE(out->find("style=\"width: 180px\""), std::string::npos);
  EXPECT_NE(out->find("style=\"width: 150px\""), std::string::npos);
}

TEST(StatisticsStore, BuildingStopsAtTheFirstMissingDate) {
  StatisticsTotals t;
  for (auto [start, end, keys] :
       {std::tuple{true, true, 11u}, {true, false, 10u}, {false, true, 9u}}) {
    t.start = start ? std::optional(Date{100}) : std::nullopt;
    t.end = end ? std::optional(Date{200}) : std::nullopt;
    EXPECT_EQ(plist_dict_get_size(StatisticsStore(t).get()), keys);
  }
}

TEST(StatisticsNumbers, PrintedAsCDoesButNanHasNoSign) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    double value;
    int decimals;
    const char* text;
  };
  for (const Case& c : std::vector<Case>{{-nan, 0, "nan"},
                                         {-inf, 1, "-inf"},
                                         {66.66666412353516, 1, "66.7"},
                                         {85.71428571428571, 0, "86"},
                                         {1e20, 0, "100000000000000000000"}})
    EXPECT_EQ(FormatFixed(c.value, c.decimals), c.text) << c.value;
  // Averages are single precision: 16777217 has no such form.
  StatisticsTotals t;
  t.userWords = 16777217;
  t.chats = 1;
  EXPECT_EQ(FillStatisticsTemplate("____USERWORDAVG ____USERTOTAL", t), "16777216.0 16777217");
}

}  // namespace
}  // namespace gab
