// gabfolio export --format FORMAT [--with PERSON]... [--since DATE]
// [--until DATE] [FOLDER_OR_FILE...] -o OUT: the whole archive, or part of
// it, in a format other tools read.

#include "library/export.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "library/search_index.h"
#include "platform/files.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/preferences.h"
#include "platform/transcript_files.h"
#include "tool/commands.h"
#include "tool/progress.h"
#include "transcript/chat_log.h"

namespace gab::tool {
namespace {

const char kHelp[] =
    "usage: gabfolio export --format FORMAT [--with PERSON]... [--since DATE]\n"
    "                       [--until DATE] [FOLDER_OR_FILE...] -o OUT\n"
    "\n"
    "Writes the transcripts under ~/Documents/iChats (or the folders, searched\n"
    "at any depth, and files given) in FORMAT:\n"
    "  mbox     one mailbox file OUT, a mail per chat (mboxrd)\n"
    "  maildir  a Maildir OUT (cur, new, tmp), a mail per chat\n"
    "  eml      a .eml file per chat, in a folder per person\n"
    "  html     a web site that opens from disk: OUT/index.html lists the people\n"
    "  text     the plain-text transcript per chat, in a folder per person\n"
    "  tsv      one row per message (chat, person, speaker, date, time, text;\n"
    "           tab, line end and backslash as \\t, \\n, \\\\) in the file OUT, or\n"
    "           on standard output without -o or with -o -\n"
    "\n"
    "Each mail is the one Gabfolio sends for the chat (plain text and HTML), with\n"
    "its attachments, dated at its last message, from and to the mail addresses\n"
    "of the settings (or the chat's people at NAME@ichat.invalid).\n"
    "\n"
    "  --with PERSON  only chats with PERSON (the chat's name or a participant);\n"
    "                 give it again for more people\n"
    "  --since DATE   only chats with a message from DATE on (YYYY, YYYY-MM or\n"
    "                 YYYY-MM-DD)\n"
    "  --until DATE   only chats with a message up to the end of DATE\n"
    "  -o OUT         where to write\n"
    "\n"
    "Exporting again into the same OUT replaces the earlier export: what it wrote\n"
    "and this one does not is removed, nothing else there is touched.  OUT must be\n"
    "new, empty or an earlier export (a Maildir may hold other mail).\n"
    "\n"
    "Exit status: 0 all written, 1 some transcripts skipped (the summary says why)\n"
    "or OUT could not be written, 2 bad usage, 130 interrupted.\n";

volatile std::sig_atomic_t stopRequested = 0;

void Stop(int) {
  stopRequested = 1;
}

int Usage(const std::string& problem) {
  std::fprintf(stderr, "gabfolio export: %s\n%s", EscapeControlCharacters(problem).c_str(), kHelp);
  return kUsage;
}

struct Input {
  std::string path, key;
  int64_t mtimeNs = 0;
};

struct Skipped {
  std::string path, reason;
};

// The transcripts to export, in order; what cannot be searched is skipped.
std::vector<Input> Inputs(const std::vector<std::string>& given, std::vector<Skipped>& skipped) {
  std::vector<Input> out;
  for (const auto& place : given) {
    struct stat st {};
    if (stat(place.c_str(), &st) != 0) {
      skipped.push_back({place, "no such file or folder"});
    } else if (S_ISDIR(st.st_mode)) {
      std::string folder = place;
      while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
      for (auto& found : FindTranscripts(folder))
        out.push_back({folder + "/" + found.relativePath, found.relativePath, found.mtimeNs});
    } else {
      size_t slash = place.rfind('/');
      out.push_back({place, slash == std::string::npos ? place : place.substr(slash + 1),
                     int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec});
    }
  }
  return out;
}

}  // namespace

int RunExport(int argc, char** argv) {
  std::optional<exporting::Format> format;
  std::optional<std::string> output;
  exporting::Filter filter;
  std::vector<std::string> given;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    std::string v;
    auto value = [&]() {
      if (i + 1 >= argc) return false;
      v = argv[++i];
      return true;
    };
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kOk;
    } else if (a == "--format" || a == "-f") {
      if (!value()) return Usage(a + " needs a format");
      if (format) return Usage("one --format only");
      if (!(format = exporting::ParseFormat(v))) return Usage("unknown format '" + v + "'");
    } else if (a == "-o" || a == "--output") {
      if (!value() || v.empty()) return Usage(a + " needs a file or folder");
      if (output) return Usage("one -o only");
      output = v;
    } else if (a == "--with") {
      if (!value() || v.empty()) return Usage("--with needs a person");
      filter.people.push_back(v);
    } else if (a == "--since" || a == "--until") {
      if (!value()) return Usage(a + " needs a date");
      auto d = ParseSearchDate(v, a == "--until");
      if (!d) return Usage("bad date '" + v + "' (YYYY, YYYY-MM or YYYY-MM-DD)");
      (a == "--since" ? filter.since : filter.until) = d;
    } else if (a == "--") {
      given.insert(given.end(), argv + i + 1, argv + argc);
      break;
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage("unknown option '" + a + "'");
    } else {
      given.push_back(a);
    }
  }
  if (!format) return Usage("--format is required");
  bool toStandardOutput = *format == exporting::Format::kTsv && (!output || *output == "-");
  if (!output && !toStandardOutput) return Usage("-o OUT is required");
  if (filter.since && filter.until && *filter.until < *filter.since)
    return Usage("--until is before --since");
  if (given.empty()) given.push_back(TranscriptFolder());

  exporting::MailAddresses addresses;
  Preferences& prefs = Preferences::Shared();
  prefs.AppSynchronize();
  addresses.from = prefs.String("emailOutgoing");
  addresses.to = prefs.String("emailAddress");
  if (addresses.from && addresses.from->empty()) addresses.from.reset();
  if (addresses.to && addresses.to->empty()) addresses.to.reset();

  std::string error;
  std::unique_ptr<exporting::Writer> writer =
      toStandardOutput ? exporting::MakeTsvWriter(stdout)
                       : exporting::MakeWriter(*format, *output, addresses, &error);
  if (!writer) {
    std::fprintf(stderr, "gabfolio export: %s\n", EscapeControlCharacters(error).c_str());
    return kFailure;
  }

  struct sigaction sa {};
  sa.sa_handler = Stop;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  std::vector<Skipped> skipped;
  std::vector<Input> inputs = Inputs(given, skipped);
  int64_t exported = 0, unselected = 0;
  exporting::Counts total;
  ProgressBar bar("Exporting");
  for (size_t i = 0; i < inputs.size() && !stopRequested; ++i) {
    const Input& in = inputs[i];
    bar.Update(i, inputs.size(), EscapeControlCharacters(in.key));
    std::string why;
    std::optional<std::string> bytes = ReadRegularFile(in.path, UntrustedFileLimit(), &why);
    std::unique_ptr<ICLPChatLog> log =
        bytes ? ICLPChatLog::InitWithFileData(in.path, *bytes, &why) : nullptr;
    if (!log) {
      skipped.push_back({in.path, why});
      writer->Keep(in.key);
      continue;
    }
    exporting::Chat chat{in.key, *bytes, log.get(), Date::FromUnix(double(in.mtimeNs) / 1e9)};
    if (!exporting::Selected(chat, filter)) {
      ++unselected;
      continue;
    }
    if (!writer->Add(chat, &why)) {
      skipped.push_back({in.path, why});
      writer->Keep(in.key);
      continue;
    }
    ++exported;
    exporting::Counts c = exporting::CountChat(*log);
    total.messages += c.messages;
    total.attachments += c.attachments;
  }
  bar.Update(inputs.size(), inputs.size(), "");
  bar.Finish();
  bool finished = writer->Finish(!stopRequested, &error);

  // The summary goes where the rows do not.
  FILE* report = toStandardOutput ? stderr : stdout;
  std::fprintf(report, "Transcripts found:     %zu\n", inputs.size());
  std::fprintf(report, "Transcripts exported:  %lld\n", static_cast<long long>(exported));
  if (!filter.people.empty() || filter.since || filter.until)
    std::fprintf(report, "Not selected:          %lld\n", static_cast<long long>(unselected));
  std::fprintf(report, "Messages:              %lld\n", static_cast<long long>(total.messages));
  std::fprintf(report, "Attachments:           %lld\n", static_cast<long long>(total.attachments));
  std::fprintf(report, "Skipped:               %zu\n", skipped.size());
  for (const auto& s : skipped)
    std::fprintf(report, "  %s: %s\n", EscapeControlCharacters(s.path).c_str(),
                 EscapeControlCharacters(s.reason).c_str());
  if (stopRequested) {
    std::fprintf(report, "Interrupted; export again to complete %s.\n",
                 toStandardOutput ? "the rows" : EscapeControlCharacters(*output).c_str());
    return 130;
  }
  if (!finished) {
    std::fprintf(stderr, "gabfolio export: %s\n", EscapeControlCharacters(error).c_str());
    return kFailure;
  }
  if (!toStandardOutput)
    std::fprintf(report, "Written to %s (%s).\n", EscapeControlCharacters(*output).c_str(),
                 exporting::FormatName(*format));
  return skipped.empty() ? kOk : kFailure;
}

}  // namespace gab::tool
