#pragma once
// The running chat statistics of ~/Library/Gabfolio: the totals store
// "talkpulse.plist", the word lists and the page made from
// "statstemplate.html".  UpdateStatistics drives these
// pieces; they are separate so each can be checked on its own.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/dates.h"
#include "platform/plist.h"
#include "transcript/instant_message.h"

namespace gab {

class ICLPChatLog;

// What one chat adds to the totals.  The user is every sender except the
// party named in the file name.
struct ChatFigures {
  int32_t userWords = 0, otherWords = 0;
  int32_t userCurses = 0, otherCurses = 0;
  int32_t userSlang = 0, otherSlang = 0;
  int32_t images = 0, links = 0;
};

// The running totals as stored, with this run's chat already counted.
struct StatisticsTotals {
  int32_t userWords = 0, otherWords = 0;
  int32_t userCurses = 0, otherCurses = 0;
  int32_t userSlang = 0, otherSlang = 0;
  int32_t images = 0, links = 0;
  int32_t chats = 0;
  std::optional<Date> start, end;

  void Add(const ChatFigures& chat);  // wraps like the 32-bit counters it models
};

// Reads the store for one more chat: a missing file starts from zero with the
// start date `now` and one chat; an unreadable one, or one without
// "startDate", takes the data folder's creation date.
StatisticsTotals LoadStatisticsTotals(const std::string& storePath, const std::string& dataFolder,
                                      Date now);

// The totals exactly as stored (no chat added, the stored end date);
// nothing when the store is missing or not a dictionary.
std::optional<StatisticsTotals> StoredStatisticsTotals(const std::string& storePath);

// A word list ("curses.plist", "netspeak.plist"): an array of strings.
// Nothing when the file is missing or is not such a list.
std::optional<WordSet> LoadWordList(const std::string& path);

// The store's dictionary; a missing start date drops both dates, a missing
// end date drops "endDate".
PlistPtr StatisticsStore(const StatisticsTotals& totals);

// The page: every placeholder of the template replaced, in their fixed order.
std::string FillStatisticsTemplate(std::string page, const StatisticsTotals& totals);

// Number forms of the page: "%.1f" / "%.0f" as C prints them, except that a
// not-a-number is always "nan" (glibc would print "-nan" for 0/0).
std::string FormatFixed(double value, int decimals);

// The data folder's creation date: the birth time where the file system
// keeps one, else the older of the change and modification times.  Links
// are not followed.  Nothing when the folder cannot be examined.
std::optional<Date> FolderCreationDate(const std::string& path);

}  // namespace gab
