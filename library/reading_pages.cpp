#include "library/reading_pages.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <unordered_map>

#include "library/chat_html.h"
#include "platform/files.h"
#include "platform/image_size.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

constexpr const char* kPolicy =
    "default-src 'none'; img-src 'self'; style-src 'unsafe-inline'; form-action 'self'; "
    "base-uri 'none'; frame-ancestors 'none'";
constexpr int kHitsPerPage = 50;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Form values: "+" is a space, %XX a byte; bytes that are not UTF-8 become
// U+FFFD.
std::map<std::string, std::string> ParseQuery(std::string_view query) {
  std::map<std::string, std::string> out;
  auto decode = [](std::string_view s) {
    std::string v;
    for (size_t i = 0; i < s.size(); ++i) {
      if (s[i] == '+') {
        v += ' ';
      } else if (s[i] == '%' && i + 2 < s.size() + 0 && HexValue(s[i + 1]) >= 0 &&
                 HexValue(s[i + 2]) >= 0) {
        v += char(HexValue(s[i + 1]) * 16 + HexValue(s[i + 2]));
        i += 2;
      } else {
        v += s[i];
      }
    }
    return IsValidUtf8(v) ? v : ToUtf8(ToUtf16(v));
  };
  size_t from = 0;
  while (from <= query.size()) {
    size_t amp = query.find('&', from);
    if (amp == std::string_view::npos) amp = query.size();
    std::string_view pair = query.substr(from, amp - from);
    size_t eq = pair.find('=');
    if (!pair.empty())
      out.emplace(decode(pair.substr(0, eq)),
                  eq == std::string_view::npos ? "" : decode(pair.substr(eq + 1)));
    from = amp + 1;
  }
  return out;
}

std::string Get(const std::map<std::string, std::string>& q, const char* key) {
  auto it = q.find(key);
  return it == q.end() ? std::string() : it->second;
}

std::string DayText(Date d) {
  return FormatDate(d, "%a %B %e, %Y");
}

std::string ChatHref(const std::string& key) {
  return "chat?t=" + QueryValue(key);
}

std::string PersonHref(const std::string& name) {
  return "person?name=" + QueryValue(name);
}

// A key names a file in the transcript folder (or, absolute, an imported one
// elsewhere); it never climbs out of it.
bool PlainKey(const std::string& key) {
  if (key.empty() || key.find('\0') != std::string::npos) return false;
  size_t from = key[0] == '/' ? 1 : 0;
  for (;;) {
    size_t slash = key.find('/', from);
    std::string_view part = std::string_view(key).substr(from, slash - from);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == std::string::npos) return true;
    from = slash + 1;
  }
}

ViewerReply Html(std::string body, int status = 200) {
  ViewerReply r;
  r.status = status;
  r.body = std::move(body);
  r.headers = {{"Content-Security-Policy", kPolicy}, {"Referrer-Policy", "no-referrer"}};
  return r;
}

}  // namespace

struct ReadingPages::Cached {
  std::string key;
  int64_t size = 0, mtimeNs = 0;
  std::shared_ptr<ICLPChatLog> log;
};

ReadingPages::ReadingPages(std::string transcriptFolder, std::unique_ptr<SearchIndex> index,
                           std::string dataFolder)
    : transcriptFolder_(std::move(transcriptFolder)),
      dataFolder_(std::move(dataFolder)),
      index_(std::move(index)),
      lastRefresh_(std::chrono::steady_clock::now()) {}

ReadingPages::~ReadingPages() = default;

// Called with indexMutex_ held.  The parser keeps the index current; this
// catches what it does not see (removed files, changes while it is idle).
void ReadingPages::Refresh() {
  auto now = std::chrono::steady_clock::now();
  if (now - lastRefresh_ < std::chrono::seconds(10)) return;
  lastRefresh_ = now;
  SyncOptions options;
  options.budgetSeconds = 2;
  index_->Sync(transcriptFolder_, options);
}

bool ReadingPages::Serve(std::string_view path, std::string_view query, ViewerReply& reply) {
  auto q = [&] { return ParseQuery(query); };
  if (path == "/people") {
    reply = People();
  } else if (path == "/person") {
    reply = Person(Get(q(), "name"));
  } else if (path == "/chat") {
    reply = Chat(Get(q(), "t"));
  } else if (path == "/search") {
    reply = Search(query);
  } else if (path == "/stats.html" && !dataFolder_.empty() &&
             !FileExists(dataFolder_ + "/stats.html")) {
    reply = Html(Shell("Statistics", "Stats", "", "",
                       "<header><h1>Statistics</h1><p>None yet: they begin with the first chat "
                       "counted, by 'gabfolio import' or by the agent.</p></header>\n"));
  } else if (path == "/attachment") {
    auto values = q();
    reply = Attachment(Get(values, "t"), Get(values, "m"), Get(values, "a"));
  } else {
    return false;
  }
  return true;
}

std::string ReadingPages::Shell(const std::string& title, const char* section,
                                const std::string& person, const std::string& query,
                                const std::string& main) {
  std::vector<PersonSummary> people;
  {
    std::lock_guard<std::mutex> lock(indexMutex_);
    people = index_->People();
  }
  std::string out;
  out.reserve(main.size() + 16384);
  out +=
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>";
  AppendEscaped(out, title);
  out += " \xC2\xB7 Gabfolio</title>\n<style>";
  out += kReadingStyle;
  out += "</style>\n</head>\n<body>\n<div class=\"shell\">\n<aside class=\"sidebar\">\n";
  out += "<span class=\"brand\">Gabfolio</span>\n<nav class=\"sections\">";
  for (auto [href, label] : {std::pair{"people", "People"}, std::pair{"Links.html", "Links"},
                             std::pair{"Images.html", "Images"}, std::pair{"stats.html", "Stats"}})
    out += std::string("<a") + (std::string_view(section) == label ? " class=\"here\"" : "") +
           " href=\"" + href + "\">" + label + "</a>";
  out += "</nav>\n<form class=\"box\" action=\"search\" method=\"get\" role=\"search\">";
  out +=
      "<input type=\"search\" name=\"q\" placeholder=\"Search all chats\" "
      "aria-label=\"Search all chats\" value=\"";
  AppendEscaped(out, query);
  out += "\"><button type=\"submit\">Go</button></form>\n<h2>People</h2>\n<ul class=\"nav\">";
  for (const auto& p : people) {
    out += p.name == person ? "<li class=\"active\">" : "<li>";
    out += "<a href=\"" + Escaped(PersonHref(p.name)) + "\">";
    AppendEscaped(out, p.name.empty() ? "(no name)" : p.name);
    out += "</a><span class=\"numb\">" + std::to_string(p.chats) + "</span></li>";
  }
  out += "</ul>\n</aside>\n<main>\n";
  out += main;
  out += "</main>\n</div>\n</body>\n</html>\n";
  return out;
}

ViewerReply ReadingPages::NotFound(const std::string& what) {
  std::string main = "<header><h1>Not found</h1><p>";
  AppendEscaped(main, what);
  main += "</p></header>\n";
  return Html(Shell("Not found", "", "", "", main), 404);
}

ViewerReply ReadingPages::People() {
  std::vector<PersonSummary> people;
  {
    std::lock_guard<std::mutex> lock(indexMutex_);
    Refresh();
    people = index_->People();
  }
  int64_t chats = 0;
  for (const auto& p : people) chats += p.chats;
  std::string main = "<header><h1>People</h1><p>" + std::to_string(people.size()) +
                     (people.size() == 1 ? " person or group, " : " people and groups, ") +
                     std::to_string(chats) + (chats == 1 ? " chat" : " chats") + ".</p></header>\n";
  if (people.empty()) {
    main +=
        "<p class=\"card\" style=\"padding:16px\">No chats yet: the transcripts in "
        "~/Documents/iChats appear here once they are indexed.</p>\n";
  } else {
    main +=
        "<div class=\"card\"><table class=\"people\"><thead><tr><th>Name</th><th>Chats</th>"
        "<th>Messages</th><th>First chat</th><th>Last chat</th></tr></thead><tbody>\n";
    for (const auto& p : people) {
      main += "<tr><td><a href=\"" + Escaped(PersonHref(p.name)) + "\">";
      AppendEscaped(main, p.name.empty() ? "(no name)" : p.name);
      main += "</a>";
      if (p.group) main += "<span class=\"tag\">group</span>";
      main += "</td><td class=\"n\">" + std::to_string(p.chats) + "</td><td class=\"n\">" +
              std::to_string(p.messages) + "</td><td class=\"n\">" + Escaped(DayText(p.first)) +
              "</td><td class=\"n\">" + Escaped(DayText(p.last)) + "</td></tr>\n";
    }
    main += "</tbody></table></div>\n";
  }
  return Html(Shell("People", "People", "", "", main));
}

ViewerReply ReadingPages::Person(const std::string& name) {
  std::vector<ChatSummary> chats;
  {
    std::lock_guard<std::mutex> lock(indexMutex_);
    Refresh();
    chats = index_->Chats(name);
  }
  if (chats.empty()) return NotFound("There are no chats with \"" + name + "\".");
  std::string main = "<header><h1>";
  AppendEscaped(main, name);
  main += "</h1><p>" + std::to_string(chats.size()) + (chats.size() == 1 ? " chat" : " chats") +
          ", newest first.</p></header>\n<ul class=\"list\">\n";
  for (const auto& c : chats) {
    main += "<li><a href=\"" + Escaped(ChatHref(c.transcript)) + "\">" +
            Escaped(FormatDate(c.first, "%a %B %e, %Y, %I:%M %p")) + "</a> <span class=\"meta\">" +
            std::to_string(c.messages) + (c.messages == 1 ? " message" : " messages");
    if (c.people.size() > 1) {
      main += " \xC2\xB7 with ";
      for (size_t i = 0; i < c.people.size(); ++i) {
        if (i) main += ", ";
        AppendEscaped(main, c.people[i]);
      }
    }
    main += "</span><p class=\"line\">";
    AppendEscaped(main, c.firstLine);
    main += "</p></li>\n";
  }
  main += "</ul>\n";
  return Html(Shell(name, "People", name, "", main));
}

std::string ReadingPages::FileOf(const std::string& key) const {
  return key[0] == '/' ? key : transcriptFolder_ + "/" + key;
}

std::shared_ptr<ICLPChatLog> ReadingPages::Load(const std::string& key) {
  if (!PlainKey(key)) return nullptr;
  std::string path = FileOf(key);
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  int64_t mtime = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  {
    std::lock_guard<std::mutex> lock(cacheMutex_);
    for (size_t i = 0; i < cache_.size(); ++i) {
      auto c = cache_[i];
      if (c->key != key || c->size != int64_t(st.st_size) || c->mtimeNs != mtime) continue;
      cache_.erase(cache_.begin() + long(i));
      cache_.insert(cache_.begin(), c);
      return c->log;
    }
  }
  std::shared_ptr<ICLPChatLog> log = ICLPChatLog::InitWithFilePath(path, nullptr);
  if (!log) return nullptr;
  // A page and its images ask for the same transcript one after another.
  auto c = std::make_shared<Cached>(Cached{key, int64_t(st.st_size), mtime, log});
  std::lock_guard<std::mutex> lock(cacheMutex_);
  cache_.insert(cache_.begin(), c);
  if (cache_.size() > 4) cache_.pop_back();
  return log;
}

ViewerReply ReadingPages::Chat(const std::string& key) {
  std::optional<ChatSummary> summary;
  std::vector<ChatMessage> messages;
  struct stat st {};
  std::string path = PlainKey(key) ? FileOf(key) : std::string();
  if (path.empty() || stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    return NotFound("This chat's transcript is gone.");
  {
    std::lock_guard<std::mutex> lock(indexMutex_);
    // The page comes from the index, which holds every message ready to
    // show: a long chat needs no decoding.  A transcript changed since it
    // was indexed is indexed first.
    int64_t mtime = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    if (index_->Chat(key) && !index_->IsCurrent(key, int64_t(st.st_size), mtime)) {
      if (auto log = ICLPChatLog::InitWithFilePath(path, nullptr))
        index_->Add(key, int64_t(st.st_size), mtime, *log);
    }
    summary = index_->Chat(key);
    if (summary) messages = index_->ChatMessages(key);
  }
  if (!summary) return NotFound("This chat is not in the index.");

  std::string main;
  main.reserve(messages.size() * 200 + 4096);
  main += "<header><h1>";
  AppendEscaped(main, summary->person);
  main += "</h1><p>" + Escaped(FormatDate(summary->first, "%A, %B %e, %Y")) + " \xC2\xB7 " +
          std::to_string(summary->messages) + (summary->messages == 1 ? " message" : " messages");
  if (summary->people.size() > 1) {
    main += " \xC2\xB7 with ";
    for (size_t i = 0; i < summary->people.size(); ++i) {
      if (i) main += ", ";
      AppendEscaped(main, summary->people[i]);
    }
  }
  main += " \xC2\xB7 <a href=\"" + Escaped(PersonHref(summary->person)) + "\">all chats</a></p>";
  main += "</header>\n<div class=\"chat\">\n";
  AppendChatMessages(main, messages);
  main += "</div>\n";
  std::string title = summary->person + ", " + FormatDate(summary->first, "%B %e, %Y");
  return Html(Shell(title, "People", summary->person, "", main));
}

ViewerReply ReadingPages::Search(std::string_view rawQuery) {
  auto values = ParseQuery(rawQuery);
  SearchQuery query;
  query.text = Get(values, "q");
  query.person = Get(values, "with");
  query.byRelevance = Get(values, "order") == "relevance";
  std::string since = Get(values, "since"), until = Get(values, "until");
  std::string problem;
  if (!since.empty() && !(query.since = ParseSearchDate(since, false)))
    problem = "The date \"" + since + "\" is not YYYY-MM-DD.";
  if (!until.empty() && !(query.until = ParseSearchDate(until, true)))
    problem = "The date \"" + until + "\" is not YYYY-MM-DD.";
  int page = std::max(1, std::min(100000, std::atoi(Get(values, "page").c_str())));
  query.limit = kHitsPerPage;
  query.offset = (page - 1) * kHitsPerPage;

  std::vector<SearchHit> hits;
  std::vector<PersonSummary> people;
  std::string error;
  bool searched = !query.text.empty() && problem.empty();
  {
    std::lock_guard<std::mutex> lock(indexMutex_);
    Refresh();
    if (searched) hits = index_->Search(query, &error);
    people = index_->People();
  }
  if (searched && hits.empty() && !error.empty()) problem = error;

  std::string main = "<header><h1>Search</h1><p>";
  main += searched && problem.empty()
              ? (hits.empty() && page == 1
                     ? std::string("Nothing matched.")
                     : "Results " + std::to_string(query.offset + 1) + "\xE2\x80\x93" +
                           std::to_string(query.offset + hits.size()) +
                           (query.byRelevance ? ", best first." : ", newest first."))
              : std::string(
                    "Words, \"quoted phrases\" and prefix* terms; case and accents do not "
                    "matter.");
  main += "</p></header>\n";
  if (!problem.empty())
    main += "<p class=\"card\" style=\"padding:12px 16px\">" + Escaped(problem) + "</p>\n";

  main += "<form class=\"find\" action=\"search\" method=\"get\">";
  main += "<label class=\"q\">Words<input type=\"search\" name=\"q\" value=\"" +
          Escaped(query.text) + "\"></label>";
  main += "<label>Person<select name=\"with\"><option value=\"\">Everyone</option>";
  for (const auto& p : people) {
    main += "<option value=\"" + Escaped(p.name) + "\"" +
            (p.name == query.person ? " selected" : "") + ">";
    AppendEscaped(main, p.name);
    main += "</option>";
  }
  main += "</select></label>";
  main +=
      "<label>From<input type=\"date\" name=\"since\" value=\"" + Escaped(since) + "\"></label>";
  main += "<label>To<input type=\"date\" name=\"until\" value=\"" + Escaped(until) + "\"></label>";
  main += std::string(
              "<label>Order<select name=\"order\"><option value=\"newest\">Newest first</option>") +
          "<option value=\"relevance\"" + (query.byRelevance ? " selected" : "") +
          ">Best match</option></select></label><button type=\"submit\">Search</button></form>\n";

  if (!hits.empty()) {
    main += "<ol class=\"hits\">\n";
    for (const auto& h : hits) {
      main += "<li><a class=\"hit\" href=\"" +
              Escaped(ChatHref(h.transcript) + "#m" + std::to_string(h.position)) +
              "\"><p class=\"line\">";
      // Escape the snippet's text; its markers become <mark>.
      size_t from = 0;
      for (size_t i = 0; i <= h.snippet.size(); ++i) {
        if (i < h.snippet.size() && h.snippet[i] != kMatchStart && h.snippet[i] != kMatchEnd)
          continue;
        AppendEscaped(main, std::string_view(h.snippet).substr(from, i - from));
        if (i < h.snippet.size()) main += h.snippet[i] == kMatchStart ? "<mark>" : "</mark>";
        from = i + 1;
      }
      main += "</p></a><span class=\"meta\">";
      AppendEscaped(main, h.speaker);
      main += " \xC2\xB7 " + Escaped(FormatDate(h.time, "%a %B %e, %Y, %I:%M %p")) +
              " \xC2\xB7 <a href=\"" + Escaped(PersonHref(h.person)) + "\">";
      AppendEscaped(main, h.person);
      main += "</a></span></li>\n";
    }
    main += "</ol>\n";
  }
  if (searched && (page > 1 || int(hits.size()) == kHitsPerPage)) {
    auto pageHref = [&](int n) {
      return Escaped("search?q=" + QueryValue(query.text) + "&with=" + QueryValue(query.person) +
                     "&since=" + QueryValue(since) + "&until=" + QueryValue(until) + "&order=" +
                     (query.byRelevance ? "relevance" : "newest") + "&page=" + std::to_string(n));
    };
    main += "<nav class=\"pages\">";
    if (page > 1) main += "<a href=\"" + pageHref(page - 1) + "\">\xE2\x86\x90 Previous</a>";
    if (int(hits.size()) == kHitsPerPage)
      main += "<a href=\"" + pageHref(page + 1) + "\">Next \xE2\x86\x92</a>";
    main += "</nav>\n";
  }
  std::string title = query.text.empty() ? "Search" : "Search: " + query.text;
  return Html(Shell(title, "", "", query.text, main));
}

ViewerReply ReadingPages::Attachment(const std::string& key, std::string_view message,
                                     std::string_view k) {
  auto number = [](std::string_view s) -> long {
    if (s.empty() || s.size() > 9) return -1;
    long n = 0;
    for (char c : s) {
      if (c < '0' || c > '9') return -1;
      n = n * 10 + (c - '0');
    }
    return n;
  };
  long m = number(message), a = number(k);
  bool indexed;
  {
    std::lock_guard<std::mutex> lock(indexMutex_);
    indexed = index_->Chat(key).has_value();
  }
  std::shared_ptr<ICLPChatLog> log = indexed && m >= 0 && a >= 0 ? Load(key) : nullptr;
  const FileWrapper* file = nullptr;
  std::shared_ptr<FileWrapper> keep;
  if (log && size_t(m) < log->Messages().size() && log->Messages()[size_t(m)] &&
      log->Messages()[size_t(m)]->string) {
    auto all = Attachments(*log->Messages()[size_t(m)]->string);
    if (size_t(a) < all.size() && all[size_t(a)] && all[size_t(a)]->IsRegularFile())
      keep = all[size_t(a)], file = keep.get();
  }
  ViewerReply r;
  r.headers = {{"Content-Security-Policy", "default-src 'none'; sandbox"},
               {"Referrer-Policy", "no-referrer"}};
  if (!file) {
    r.status = 404;
    r.contentType = "text/plain; charset=utf-8";
    r.body = "Not found\n";
    return r;
  }
  r.body = file->contents;
  r.contentType = InlineImageType(r.body);
  if (r.contentType.empty()) {
    // Anything else is only ever downloaded, never shown by the browser.
    r.contentType = "application/octet-stream";
    std::string name = file->preferredFilename ? ToUtf8(*file->preferredFilename) : "attachment";
    std::string ascii;
    for (char c : name)
      ascii += (c >= 0x20 && c < 0x7F && c != '"' && c != '\\' && c != '/') ? c : '_';
    r.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + ascii +
                                                      "\"; filename*=UTF-8''" + QueryValue(name));
  }
  r.headers.emplace_back("Cache-Control", "private, max-age=3600");
  return r;
}

}  // namespace gab
