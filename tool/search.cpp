// gabfolio search QUERY: full-text search over every transcript, one line
// per matching message, newest first; like grep, exit status 1 when nothing
// matched.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/log.h"
#include "tool/commands.h"
#include "tool/index_access.h"

namespace gab::tool {
namespace {

const char kHelp[] =
    "usage: gabfolio search QUERY [--with PERSON] [--since DATE] [--until DATE]\n"
    "                       [--relevance] [--limit N] [--json]\n"
    "\n"
    "Searches every transcript under ~/Documents/iChats and prints one line per\n"
    "matching message: date, person, speaker: the words around the match.\n"
    "\n"
    "QUERY holds words (every word must occur), \"quoted phrases\" and prefix*\n"
    "terms; case and accents do not matter (cafe finds café).  Quote QUERY for\n"
    "the shell: gabfolio search '\"frequent flyer\" numb*'.\n"
    "\n"
    "  --with PERSON  only chats with PERSON (the chat's name or a participant)\n"
    "  --since DATE   only messages from DATE on (YYYY, YYYY-MM or YYYY-MM-DD)\n"
    "  --until DATE   only messages up to the end of DATE\n"
    "  --relevance    best matches first instead of newest first\n"
    "  --limit N      at most N results (default 100; 0 for all)\n"
    "  --json         a JSON array of the hits, for scripts\n"
    "\n"
    "The search index (~/Library/Gabfolio/search-index.sqlite) is brought up to\n"
    "date first; 'gabfolio reindex' builds it afresh.\n"
    "\n"
    "Exit status: 0 something matched, 1 nothing matched, 2 bad usage or an error.\n";

int Usage(const std::string& problem) {
  return UsageError("search", problem);
}

// One line of text: line ends become spaces, other control characters are
// escaped; the match markers stay or become `on`/`off`.
std::string OneLine(const std::string& text, const char* on, const char* off) {
  std::string out;
  out.reserve(text.size());
  std::string run;
  auto flush = [&] {
    out += EscapeControlCharacters(run);
    run.clear();
  };
  for (char c : text) {
    if (c == kMatchStart || c == kMatchEnd) {
      flush();
      out += c == kMatchStart ? on : off;
    } else {
      run += c == '\n' || c == '\r' || c == '\t' ? ' ' : c;
    }
  }
  flush();
  size_t first = out.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  return out.substr(first, out.find_last_not_of(' ') + 1 - first);
}

std::string Json(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (u < 0x20 || u == 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", u);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string UtcIso(Date d) {
  time_t t = time_t(d.Unix());
  tm utc{};
  gmtime_r(&t, &utc);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buf;
}

std::string Plain(const std::string& snippet) {
  std::string out;
  for (char c : snippet)
    if (c != kMatchStart && c != kMatchEnd) out += c;
  return out;
}

}  // namespace

int RunSearch(int argc, char** argv) {
  SearchQuery query;
  bool json = false, haveQuery = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string v;
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kOk;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--relevance") {
      query.byRelevance = true;
    } else if (a == "--with") {
      if (!value(&query.person) || query.person.empty()) return Usage("--with needs a person");
    } else if (a == "--since" || a == "--until") {
      if (!value(&v)) return Usage(a + " needs a date");
      auto d = ParseSearchDate(v, a == "--until");
      if (!d) return Usage("bad date '" + v + "' (YYYY, YYYY-MM or YYYY-MM-DD)");
      (a == "--since" ? query.since : query.until) = d;
    } else if (a == "--limit") {
      char* end = nullptr;
      if (!value(&v)) return Usage("--limit needs a number");
      long n = std::strtol(v.c_str(), &end, 10);
      if (v.empty() || *end || n < 0 || n > 1000000000) return Usage("bad limit '" + v + "'");
      query.limit = int(n);
    } else if (a.size() > 1 && a[0] == '-' && a != "--") {
      return Usage("unknown option '" + a + "'");
    } else {
      if (a == "--") {
        if (i + 2 != argc) return Usage("one QUERY expected");
        a = argv[++i];
      }
      if (haveQuery) return Usage("one QUERY expected (quote it for the shell)");
      query.text = a;
      haveQuery = true;
    }
  }
  if (!haveQuery) return Usage("no QUERY given");
  if (!FtsQuery(query.text)) return Usage("nothing to search for in '" + query.text + "'");
  if (query.since && query.until && *query.until < *query.since)
    return Usage("--until is before --since");

  auto index = OpenCurrentIndex("search");
  if (!index) return kUsage;
  std::string error;
  std::vector<SearchHit> hits = index->Search(query, &error);
  if (hits.empty() && !error.empty()) {
    std::fprintf(stderr, "gabfolio search: %s\n", error.c_str());
    return kUsage;
  }

  if (json) {
    std::string out = "[";
    for (size_t i = 0; i < hits.size(); ++i) {
      const SearchHit& h = hits[i];
      out += i ? ",\n " : "\n ";
      out += "{\"time\": " + Json(UtcIso(h.time)) + ", \"person\": " + Json(h.person) +
             ", \"speaker\": " + Json(h.speaker) + ", \"snippet\": " + Json(Plain(h.snippet)) +
             ", \"transcript\": " + Json(h.transcript) +
             ", \"message\": " + std::to_string(h.position) + "}";
    }
    out += hits.empty() ? "]\n" : "\n]\n";
    std::fputs(out.c_str(), stdout);
  } else {
    // Matches in bold red on a terminal, as grep shows them; plain otherwise.
    bool tty = isatty(STDOUT_FILENO) == 1;
    const char* on = tty ? "\033[1;31m" : "";
    const char* off = tty ? "\033[0m" : "";
    for (const SearchHit& h : hits) {
      std::string line = FormatDate(h.time, "%Y-%m-%d %H:%M") + "  " + OneLine(h.person, "", "") +
                         "  " + OneLine(h.speaker, "", "") + ": " + OneLine(h.snippet, on, off);
      std::puts(line.c_str());
    }
  }
  if (query.limit > 0 && int(hits.size()) == query.limit && !json)
    std::fprintf(stderr, "(the first %d hits; --limit N shows more)\n", query.limit);
  return hits.empty() ? kFailure : kOk;
}

}  // namespace gab::tool
