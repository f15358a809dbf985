#include <algorithm>
#include <map>
#include <unordered_map>

#include "library/gathering.h"
#include "library/log_generator.h"
#include "library/page_text.h"
#include "library/stores.h"
#include "platform/data_folder.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

constexpr std::string_view kAllPage = "Images.html";
constexpr std::string_view kRowBreak = "</tr><tr>";
constexpr std::string_view kSectionClosing = "</tr></table></ul>";

std::string SectionOpening(std::string_view label) {
  std::string s = "\n<h3>";
  s += label;
  s += "</h3>\n<table class=\"images\" cellpadding=0 cellspacing=10>\n";
  return s;
}

std::string Cell(const ImageItem& image) {
  std::string file = ToUtf8(stringWithFunkyURLStuffInserted(image.filename));
  std::string cell = "<td><a href=\"" + file + "\" target=\"_blank\"><img src=\"";
  if (PathExtension(image.filename) == u"pdf") {
    cell += "Images/pdf.png\"/>";
  } else {
    cell += file;
    cell += image.width > image.height ? "\" width=\"90\"/>" : "\" height=\"90\"/>";
  }
  cell += "</a></td>";
  return cell;
}

struct MonthTable {
  std::string text;
  int64_t cells = 0;
};

// Rebuilds Images/topimages with the three newest images, 01 the oldest.
void CopyNewestImages(const std::map<double, std::u16string>& newest) {
  ResetTopImagesFolder();
  auto from = newest.size() > 3 ? std::prev(newest.end(), 3) : newest.begin();
  int k = 1;
  for (auto it = from; it != newest.end(); ++it, ++k) {
    std::string dest = "0" + std::to_string(k) + "." + ToUtf8(PathExtension(it->second));
    CopyIntoTopImages(ToUtf8(it->second), dest);
  }
}

void BuildGallery(const std::vector<SpeakerImages>& speakers) {
  auto tmpl = ReadTemplate("imagetemplate.html");

  int64_t total = 0;
  for (const auto& s : speakers) total += int64_t(s.images.size());
  std::vector<std::string> names(speakers.size()), hrefs(speakers.size());
  for (size_t i = 0; i < speakers.size(); ++i) {
    names[i] = ToUtf8(speakers[i].speaker);
    hrefs[i] = ToUtf8(stringWithFunkyURLStuffInserted(speakers[i].speaker)) + "-images.html";
  }
  auto navigation = [&](size_t active) {
    std::string nav;
    AppendNavigationItem(nav, active == speakers.size(), kAllPage, "All", total);
    for (size_t j = 0; j < speakers.size(); ++j)
      AppendNavigationItem(nav, j == active, hrefs[j], names[j],
                           int64_t(speakers[j].images.size()));
    return nav;
  };

  std::unordered_map<std::string, MonthTable> tables;
  std::map<double, std::u16string> newest;  // an equal date replaces the earlier one
  for (size_t i = 0; i < speakers.size(); ++i) {
    const auto& list = speakers[i].images;
    if (list.empty()) continue;
    int month = LocalMonth(list.front().date);
    std::string label = FormatDate(list.front().date, "%B %Y");
    std::string section = SectionOpening(label), pageImages;
    MonthTable* table =
        &tables.try_emplace(label, MonthTable{SectionOpening(label), 0}).first->second;
    int64_t cellCounter = 0;
    for (const auto& image : list) {
      ++cellCounter;
      int m = LocalMonth(image.date);
      if (m != month) {  // the month number alone, not the year
        section += kSectionClosing;
        pageImages += section;
        label = FormatDate(image.date, "%B %Y");
        section = SectionOpening(label);
        month = m;
        cellCounter = 1;
        table = &tables.try_emplace(label, MonthTable{SectionOpening(label), 0}).first->second;
      }
      std::string cell = Cell(image);
      section += cell;
      if (cellCounter % 5 == 0) section += kRowBreak;
      table->text += cell;
      if (++table->cells % 5 == 0) table->text += kRowBreak;
      newest[image.date.time] = image.filename;
    }
    pageImages += section;  // the last section stays unclosed on the page
    if (!tmpl) continue;
    std::string page = *tmpl;
    ReplaceAll(page, "____NAME", names[i]);
    ReplaceAll(page, "____CONTENTS", navigation(i));
    ReplaceAll(page, "____IMAGES", pageImages);
    WriteIntoDataFolder("", names[i] + "-images.html", page);
  }

  if (tmpl) {
    std::string page = *tmpl;
    ReplaceAll(page, "____NAME", "Images");
    ReplaceAll(page, "____CONTENTS", navigation(speakers.size()));
    std::vector<std::pair<std::u16string, const MonthTable*>> keys;
    for (const auto& [label, table] : tables) keys.emplace_back(ToUtf16(label), &table);
    std::sort(keys.begin(), keys.end(), [](const auto& a, const auto& b) {
      return compareImageDateString(a.first, b.first) == kOrderedDescending;
    });
    std::string images;
    for (const auto& [label, table] : keys) {
      images += table->text;
      images += kSectionClosing;
    }
    images += kSectionClosing;
    ReplaceAll(page, "____IMAGES", images);
    WriteLibraryPage(kAllPage, page);
  }
  CopyNewestImages(newest);
}

}  // namespace

void GenerateImageFiles(const ICLPChatLog* transcript) {
  PlistPtr store = LoadStore(ImageStorePath());
  if (transcript && store) {
    MergeImageEntries(store.get(), GatheredImages(*transcript));
    SortEveryList(store.get(), "filenames");
    std::string xml = PlistToXml(store.get());
    if (!xml.empty()) WriteStoreIntoDataFolder(kImageStoreName, xml);  // not checked
  }
  // Without a transcript the store is used in the order it was read.
  BuildGallery(ReadImageSpeakers(store.get()));
}

}  // namespace gab
