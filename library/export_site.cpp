// The static web site: an index of people, a page per person and per chat,
// each chat's attachments in a folder beside its page.  Every link is
// relative and percent-encoded, so the site opens straight from disk; every
// text is escaped and no page holds a script.

#include <algorithm>
#include <map>

#include "library/chat_html.h"
#include "library/export_files.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab::exporting {
namespace {

constexpr const char* kPolicy =
    "default-src 'none'; img-src 'self'; style-src 'self' 'unsafe-inline'; base-uri 'none'; "
    "form-action 'none'";

constexpr const char* kSiteStyle = R"css(
main.site { margin: 0 auto; }
nav.crumbs { margin: 0 0 14px; font-size: 14px; color: var(--muted); }
)css";

// A path segment of a link: every byte but the unreserved ones percent-encoded.
std::string Segment(const std::string& name) {
  return QueryValue(name);
}

std::string Page(const std::string& title, const std::string& root, const std::string& crumbs,
                 const std::string& main) {
  std::string out =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"";
  out += kPolicy;
  out +=
      "\">\n<meta name=\"referrer\" content=\"no-referrer\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>";
  AppendEscaped(out, title);
  out += " \xC2\xB7 Gabfolio</title>\n<link rel=\"stylesheet\" href=\"" + root +
         "style.css\">\n</head>\n<body>\n<main class=\"site\">\n";
  if (!crumbs.empty()) out += "<nav class=\"crumbs\">" + crumbs + "</nav>\n";
  out += main;
  out += "</main>\n</body>\n</html>\n";
  return out;
}

std::string DayText(Date d) {
  return FormatDate(d, "%a %B %e, %Y");
}

void AppendNames(std::string& out, const std::vector<std::string>& names) {
  for (size_t i = 0; i < names.size(); ++i) {
    if (i) out += ", ";
    AppendEscaped(out, names[i]);
  }
}

std::string Count(int64_t n, const char* one, const char* many) {
  return std::to_string(n) + (n == 1 ? one : many);
}

class SiteWriter : public Writer {
 public:
  SiteWriter() : places_({"index.html", "style.css"}, {"index"}) {}

  bool Open(const std::string& out, std::string* error) {
    return folder_.Open(out, Format::kHtml, nullptr, error) &&
           folder_.Write("style.css", std::string(kReadingStyle) + kSiteStyle, "", error);
  }

  bool Add(const Chat& chat, std::string* error) override {
    const ICLPChatLog& log = *chat.log;
    ChatPlaces::Place place = places_.For(chat);
    Entry e;
    e.person = ToUtf8(log.primaryOtherParty());
    e.folder = place.folder;
    e.stem = place.stem;
    e.group = log.Participants().size() > 1;
    for (const auto& p : log.Participants())
      if (auto name = p ? p->Name() : std::nullopt) e.people.push_back(ToUtf8(*name));

    std::optional<Date> first;
    for (const auto& m : log.Messages())
      if (m && m->timestamp && !first) first = m->timestamp;
    Date time = first.value_or(chat.fileTime);
    e.first = e.last = time;
    NameSpace files({}, true);
    std::vector<std::pair<std::string, const FileWrapper*>> pending;
    std::map<const ICLPPresentity*, std::pair<std::string, ChatMessage::Side>> speakers;
    std::vector<ChatMessage> messages;
    for (size_t i = 0; i < log.Messages().size(); ++i) {
      const auto& m = log.Messages()[i];
      if (!m) continue;
      if (m->timestamp) time = e.last = *m->timestamp;
      ChatMessage shown;
      shown.position = int64_t(i);
      shown.time = time;
      if (m->isStatusMessage()) {
        shown.side = ChatMessage::kStatus;
        AppendTextHtml(shown.html, ToUtf8(SearchableText(*m)));
        messages.push_back(std::move(shown));
        continue;
      }
      ++e.messages;
      if (e.firstLine.empty()) e.firstLine = FirstLine(SearchableText(*m), 120);
      auto who = speakers.find(m->speaker.get());
      if (who == speakers.end()) {
        auto raw = m->rawSpeaker();
        auto side = raw && log.NameInSpeakerList(*raw) ? ChatMessage::kOther : ChatMessage::kUser;
        who =
            speakers.emplace(m->speaker.get(), std::pair{ToUtf8(m->Speaker().value_or(u"")), side})
                .first;
      }
      std::tie(shown.speaker, shown.side) = who->second;
      shown.html = MessageBodyHtml(*m->string, [&](size_t k, const FileWrapper& file) {
        std::string wanted = file.preferredFilename && !file.preferredFilename->empty()
                                 ? ToUtf8(*file.preferredFilename)
                                 : "attachment";
        std::string name =
            files.Claim(SafeName(wanted, true), std::to_string(i) + "/" + std::to_string(k));
        pending.emplace_back(name, &file);
        return Segment(place.stem + "_files") + "/" + Segment(name);
      });
      if (shown.html.empty()) AppendTextHtml(shown.html, ToUtf8(m->string->text));
      messages.push_back(std::move(shown));
    }
    for (const auto& [name, file] : pending)
      if (!folder_.Write(place.folder + "/" + place.stem + "_files/" + name, file->contents,
                         chat.key, error))
        return false;

    std::string main = "<header><h1>";
    AppendEscaped(main, e.person);
    main += "</h1><p>" + Escaped(FormatDate(e.first, "%A, %B %e, %Y")) + " \xC2\xB7 " +
            Count(e.messages, " message", " messages");
    if (e.people.size() > 1) {
      main += " \xC2\xB7 with ";
      AppendNames(main, e.people);
    }
    main += "</p></header>\n<div class=\"chat\">\n";
    AppendChatMessages(main, messages);
    main += "</div>\n";
    std::string crumbs =
        "<a href=\"../index.html\">People</a> \xE2\x80\xBA <a href=\"index.html\">";
    AppendEscaped(crumbs, e.person);
    crumbs += "</a>";
    std::string page =
        Page(e.person + ", " + FormatDate(e.first, "%B %e, %Y"), "../", crumbs, main);
    if (!folder_.Write(place.folder + "/" + place.stem + ".html", page, chat.key, error))
      return false;
    entries_.push_back(std::move(e));
    return true;
  }

  void Keep(const std::string& key) override { folder_.Keep(key); }

  bool Finish(bool complete, std::string* error) override {
    if (complete && !(WritePersonPages(error) && WriteIndex(error))) return false;
    return folder_.Finish(complete, error);
  }

 private:
  struct Entry {
    std::string person, folder, stem, firstLine;
    std::vector<std::string> people;
    Date first, last;
    int64_t messages = 0;
    bool group = false;
  };

  // The chats of each person's folder, newest first.
  std::map<std::string, std::vector<const Entry*>> ByFolder() const {
    std::map<std::string, std::vector<const Entry*>> out;
    for (const auto& e : entries_) out[e.folder].push_back(&e);
    for (auto& [folder, chats] : out)
      std::stable_sort(chats.begin(), chats.end(),
                       [](const Entry* a, const Entry* b) { return a->first > b->first; });
    return out;
  }

  bool WritePersonPages(std::string* error) {
    for (const auto& [folder, chats] : ByFolder()) {
      const std::string& person = chats.front()->person;
      std::string main = "<header><h1>";
      AppendEscaped(main, person);
      main += "</h1><p>" + Count(int64_t(chats.size()), " chat", " chats") +
              ", newest first.</p></header>\n<ul class=\"list\">\n";
      for (const Entry* c : chats) {
        main += "<li><a href=\"" + Escaped(Segment(c->stem) + ".html") + "\">" +
                Escaped(FormatDate(c->first, "%a %B %e, %Y, %I:%M %p")) +
                "</a> <span class=\"meta\">" + Count(c->messages, " message", " messages");
        if (c->people.size() > 1) {
          main += " \xC2\xB7 with ";
          AppendNames(main, c->people);
        }
        main += "</span><p class=\"line\">";
        AppendEscaped(main, c->firstLine);
        main += "</p></li>\n";
      }
      main += "</ul>\n";
      std::string crumbs = "<a href=\"../index.html\">People</a>";
      if (!folder_.Write(folder + "/index.html", Page(person, "../", crumbs, main), "", error))
        return false;
    }
    return true;
  }

  bool WriteIndex(std::string* error) {
    auto folders = ByFolder();
    std::vector<std::pair<std::string, const std::vector<const Entry*>*>> people;
    for (const auto& [folder, chats] : folders) people.emplace_back(folder, &chats);
    auto lower = [](std::string s) {
      for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
      return s;
    };
    std::stable_sort(people.begin(), people.end(), [&](const auto& a, const auto& b) {
      return lower(a.second->front()->person) < lower(b.second->front()->person);
    });
    int64_t chatCount = int64_t(entries_.size());
    std::string main = "<header><h1>People</h1><p>" +
                       Count(int64_t(people.size()), " person or group, ", " people and groups, ") +
                       Count(chatCount, " chat", " chats") + ".</p></header>\n";
    if (people.empty()) {
      main += "<p class=\"card\" style=\"padding:16px\">No chats were exported.</p>\n";
      return folder_.Write("index.html", Page("People", "", "", main), "", error);
    }
    main +=
        "<div class=\"card\"><table class=\"people\"><thead><tr><th>Name</th><th>Chats</th>"
        "<th>Messages</th><th>First chat</th><th>Last chat</th></tr></thead><tbody>\n";
    for (const auto& [folder, chats] : people) {
      int64_t messages = 0;
      Date first = chats->front()->first, last = chats->front()->last;
      bool group = true;
      for (const Entry* c : *chats) {
        messages += c->messages;
        first = std::min(first, c->first);
        last = std::max(last, c->last);
        group = group && c->group;
      }
      const std::string& person = chats->front()->person;
      main += "<tr><td><a href=\"" + Escaped(Segment(folder) + "/index.html") + "\">";
      AppendEscaped(main, person.empty() ? "(no name)" : person);
      main += "</a>";
      if (group) main += "<span class=\"tag\">group</span>";
      main += "</td><td class=\"n\">" + std::to_string(chats->size()) + "</td><td class=\"n\">" +
              std::to_string(messages) + "</td><td class=\"n\">" + Escaped(DayText(first)) +
              "</td><td class=\"n\">" + Escaped(DayText(last)) + "</td></tr>\n";
    }
    main += "</tbody></table></div>\n";
    return folder_.Write("index.html", Page("People", "", "", main), "", error);
  }

  OutputFolder folder_;
  ChatPlaces places_;
  std::vector<Entry> entries_;
};

}  // namespace

std::unique_ptr<Writer> MakeSiteWriter(const std::string& out, std::string* error) {
  auto writer = std::make_unique<SiteWriter>();
  if (!writer->Open(out, error)) return nullptr;
  return writer;
}

}  // namespace gab::exporting
