#pragma once
// Builders for the statistics tests: transcripts made in memory and a data
// folder under a temporary HOME.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archive/object.h"
#include "library/tests/transcript_builder.h"
#include "platform/files.h"
#include "platform/plist.h"
#include "testing/temp_home.h"
#include "transcript/chat_log.h"

namespace gab::testing {

struct Line {
  std::optional<std::u16string> speaker;  // nothing: a status line without sender
  std::u16string text;
  double time = 0;                         // seconds since 2001
  std::vector<std::u16string> links = {};  // each one linked over its own run
  int attachments = 0;                     // files attached after the text
};

inline std::shared_ptr<ICLPInstantMessage> Message(const Line& line) {
  std::vector<Piece> pieces = {{line.text}};
  for (const std::u16string& link : line.links) {
    pieces.push_back({u" "});
    pieces.push_back({link, LinkString(link)});
  }
  for (int i = 0; i < line.attachments; ++i) {
    std::u16string name = u"photo" + std::u16string(1, char16_t(u'0' + i)) + u".jpg";
    pieces.push_back({u"\uFFFC", nullptr, FileNamed(name, "")});
  }
  return Message(line.speaker.value_or(u""), Date{line.time}, pieces);
}

inline std::unique_ptr<ICLPChatLog> Chat(std::u16string party, const std::vector<Line>& lines,
                                         int participants = 1) {
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
  for (const Line& l : lines) messages.push_back(Message(l));
  std::vector<std::shared_ptr<ICLPPresentity>> people(static_cast<size_t>(participants));
  for (auto& p : people) {
    p = std::make_shared<ICLPPresentity>();
    p->protocol = u"Jabber";
    p->name = party;
  }
  return ICLPChatLog::FromParts(std::move(party), std::move(messages), std::move(people));
}

// Every placeholder the statistics page fills.
inline const char* const kPlaceholders[] = {
    "USERTOTAL",
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
    "AVGCHATSPERDAY",
};

// A word list file as the product ships them.
inline std::string WordListXml(const std::vector<std::string>& words) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
      "1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist "
      "version=\"1.0\">\n<array>\n";
  for (const std::string& w : words) xml += "<string>" + w + "</string>\n";
  return xml + "</array>\n</plist>\n";
}

// The stored totals read back: integers by key, dates as seconds since 2001.
struct StoredTotals {
  std::map<std::string, int64_t> counts;
  std::map<std::string, double> dates;
  std::vector<std::string> keys;
};

inline std::optional<StoredTotals> ReadStore(const std::string& path) {
  PlistPtr root = ReadPlistFile(path);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
  StoredTotals out;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(root.get(), &it);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(root.get(), it, &key, &value);
    if (!value) {
      std::free(key);
      break;
    }
    out.keys.push_back(key);
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

}  // namespace gab::testing
