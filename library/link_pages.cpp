#include <algorithm>
#include <unordered_map>

#include "library/gathering.h"
#include "library/log_generator.h"
#include "library/page_text.h"
#include "library/stores.h"
#include "platform/data_folder.h"
#include "platform/log.h"
#include "platform/report_error.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

constexpr std::string_view kAllPage = "Links.html";

std::string SectionOpening(std::string_view label) {
  std::string s = "\n<h3>";
  s += label;
  s += "</h3><ul class=\"links\">\n";
  return s;
}

void AppendLinkItem(std::string& out, const LinkItem& link, std::string_view speaker) {
  out += "<li><span><a href=\"";
  out += ToUtf8(link.url);
  out += "\" target=\"_blank\">";
  out += ToUtf8(CompressedLinkForList(link.url));
  out += "</a> -- ";
  out += speaker;
  out += ", ";
  out += FormatDate(link.date, "%a %B %e, %I:%M%p");
  out += "</span></li>";
}

// Merges the transcript into the store and saves it; false (reported) when
// the save failed, and then no page is built.
bool MergeAndSave(const ICLPChatLog& transcript, plist_t store) {
  std::string path = LinkStorePath();
  auto writeFailed = [&] {
    NSLog("Link file failed to write to path: " + path);
    reportError(ErrorCode::kFileSystem, u"permissions");
    return false;
  };
  // A store that did not parse is left as it is; saving "nothing" fails.
  if (!store) return writeFailed();
  MergeLinkEntries(store, GatheredURLs(transcript));
  SortEveryList(store, "urls");
  std::string xml = PlistToXml(store);
  if (xml.empty()) {
    NSLog("Error while serializing link database: the store has no XML form");
    reportError(ErrorCode::kInternal, u"corrupt cache");
    return false;
  }
  if (!WriteStoreIntoDataFolder(kLinkStoreName, xml)) return writeFailed();
  return true;
}

void BuildLinkPages(const std::vector<SpeakerLinks>& speakers) {
  auto tmpl = ReadTemplate("linktemplate.html");
  if (!tmpl) return;

  int64_t total = 0;
  for (const auto& s : speakers) total += int64_t(s.links.size());

  // One navigation item per speaker, prepared once; the page's own item is
  // the active form.
  std::vector<std::string> names(speakers.size()), hrefs(speakers.size());
  for (size_t i = 0; i < speakers.size(); ++i) {
    names[i] = ToUtf8(speakers[i].speaker);
    hrefs[i] = ToUtf8(stringWithFunkyURLStuffInserted(speakers[i].speaker)) + ".html";
  }
  auto navigation = [&](size_t active) {
    std::string nav;
    AppendNavigationItem(nav, active == speakers.size(), kAllPage, "All", total);
    for (size_t j = 0; j < speakers.size(); ++j)
      AppendNavigationItem(nav, j == active, hrefs[j], names[j], int64_t(speakers[j].links.size()));
    return nav;
  };

  std::unordered_map<std::string, std::string> allSections;
  for (size_t i = 0; i < speakers.size(); ++i) {
    const auto& links = speakers[i].links;
    if (links.empty()) continue;
    std::string page = *tmpl;
    ReplaceAll(page, "____NAME", names[i]);
    ReplaceAll(page, "____CONTENTS", navigation(i));

    std::string sections, buffer;
    int month = LocalMonth(links.front().date);
    std::string label = FormatDate(links.front().date, "%B %Y");
    buffer = SectionOpening(label);
    std::string* all = &allSections.try_emplace(label, SectionOpening(label)).first->second;
    for (const auto& link : links) {
      int m = LocalMonth(link.date);
      if (m != month) {
        // Only the month number is compared: March 2004 after March 2005
        // stays in the March 2005 section.
        buffer += "</ul>";
        sections += buffer;
        label = FormatDate(link.date, "%B %Y");
        buffer = SectionOpening(label);
        month = m;
        all = &allSections.try_emplace(label, SectionOpening(label)).first->second;
      }
      size_t start = buffer.size();
      AppendLinkItem(buffer, link, names[i]);
      all->append(buffer, start, std::string::npos);
    }
    sections += buffer;  // the last section stays open on a speaker page
    ReplaceAll(page, "____LINKS", sections);
    WriteIntoDataFolder("", names[i] + ".html", page);
  }

  std::string page = *tmpl;
  ReplaceAll(page, "____NAME", "Links");
  ReplaceAll(page, "____CONTENTS", navigation(speakers.size()));
  // Newest month first, each section closed, and one closing more at the end.
  std::vector<std::pair<std::u16string, std::string*>> labels;
  for (auto& [label, section] : allSections) labels.emplace_back(ToUtf16(label), &section);
  std::sort(labels.begin(), labels.end(), [](const auto& a, const auto& b) {
    return compareLinkDateString(a.first, b.first) == kOrderedDescending;
  });
  std::string assembled;
  for (const auto& [label, section] : labels) {
    assembled += *section;
    assembled += "</ul>";
  }
  assembled += "</ul>";
  ReplaceAll(page, "____LINKS", assembled);
  WriteLibraryPage(kAllPage, page);
}

}  // namespace

std::u16string CompressedLinkForList(std::u16string_view link) {
  if (link.size() <= 40) return std::u16string(link);
  std::u16string out(link.substr(0, 20));
  out += u" . . . ";
  out += link.substr(link.size() - 20);
  return out;
}

std::u16string stringWithFunkyURLStuffInserted(std::u16string_view text) {
  std::u16string out;
  out.reserve(text.size() * 3);
  for (char16_t c : text) {
    if ((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9')) {
      out += c;
      continue;
    }
    // The high digit is computed from the whole shifted value, so above 0xFF
    // it is not a hexadecimal digit; the viewer decodes it the same way.
    char16_t high = char16_t((c >> 4) + u'0');
    if (high > u'9') high = char16_t(high + 7);
    char16_t low = char16_t((c & 0xF) + u'0');
    if (low > u'9') low = char16_t(low + 7);
    out += u'%';
    out += high;
    out += low;
  }
  return out;
}

void GenerateLinkFiles(const ICLPChatLog* transcript) {
  PlistPtr store = LoadStore(LinkStorePath());
  if (transcript) {
    if (!MergeAndSave(*transcript, store.get())) return;
  } else {
    SortEveryList(store.get(), "urls");  // in memory only
  }
  BuildLinkPages(ReadLinkSpeakers(store.get()));
}

}  // namespace gab
