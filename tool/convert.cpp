// gabfolio convert FILE --to text|html [-o OUT]: writes a transcript's
// plain-text or HTML rendering (the same ones its mail carries) to standard
// output or to a file, so an old archive can be read without sending mail.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "delivery/rendering.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tool/commands.h"
#include "transcript/chat_log.h"

namespace gab::tool {

namespace {

const char kConvertUsage[] =
    "usage: gabfolio convert FILE --to text|html [-o OUT]\n"
    "\n"
    "Renders an iChat transcript as the mails of Gabfolio carry it:\n"
    "  --to text   the plain-text transcript (UTF-8)\n"
    "  --to html   the HTML document (UTF-8)\n"
    "  -o OUT      write to the file OUT (replaced whole) instead of standard output;\n"
    "              into the folder OUT when it is one or ends in \"/\" (made when\n"
    "              missing; the file is named after FILE, ending in .txt or .html);\n"
    "              \"-o -\" is standard output\n"
    "\n"
    "FILE is an iChat 2 transcript (.chat) or an iChat 3 transcript (.ichat)\n"
    "named \"<party> on <date>.<extension>\".  The HTML is not sanitised: it holds\n"
    "the chat's text and links as they were sent.\n"
    "\n"
    "Exit status: 0 written, 1 the file could not be read, decoded or written, 2 usage.\n";

int Usage(const std::string& problem) {
  return UsageError("convert", problem);
}

// "-o DIR/" or an existing folder: the file goes in there, named after the
// transcript ("Anna on 2005-03-08.ichat" becomes "Anna on 2005-03-08.html").
std::string OutputPath(const std::string& output, const std::string& file, const char* suffix) {
  struct stat st {};
  if (output.back() != '/' && (stat(output.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)))
    return output;
  std::string name = file.substr(file.find_last_of('/') + 1);
  if (size_t dot = name.rfind('.'); dot != std::string::npos && dot > 0) name.resize(dot);
  return output + (output.back() == '/' ? "" : "/") + name + suffix;
}

}  // namespace

int RunConvert(int argc, char** argv) {
  std::optional<std::string> file, format, output;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kConvertUsage, stdout);
      return kOk;
    }
    if (arg == "--to" || arg == "-o") {
      if (i + 1 >= argc) return Usage((arg + " needs a value").c_str());
      auto& slot = arg == "--to" ? format : output;
      if (slot) return Usage((arg + " given twice").c_str());
      slot = argv[++i];
    } else if (arg.rfind("--to=", 0) == 0) {
      if (format) return Usage("--to given twice");
      format = arg.substr(5);
    } else if (arg == "--") {
      if (i + 2 != argc || file) return Usage("one FILE expected");
      file = argv[++i];
    } else if (arg.size() > 1 && arg[0] == '-') {
      return Usage(("unknown option " + EscapeControlCharacters(arg)).c_str());
    } else {
      if (file) return Usage("one FILE expected");
      file = arg;
    }
  }
  if (!file || file->empty()) return Usage("no FILE given");
  if (!format) return Usage("--to text or --to html is required");
  if (*format != "text" && *format != "html")
    return Usage(("unknown format " + EscapeControlCharacters(*format)).c_str());
  if (output && output->empty()) return Usage("-o needs a file name");

  std::string why;
  auto log = ICLPChatLog::InitWithFilePath(*file, &why);
  if (!log) {
    std::fprintf(stderr, "gabfolio convert: %s: %s\n", EscapeControlCharacters(*file).c_str(),
                 EscapeControlCharacters(why).c_str());
    return kFailure;
  }
  std::string bytes = *format == "text" ? ToUtf8(PlainChatLog(*log)) : HTMLChatLog(*log);

  if (output && *output != "-") {
    std::string path = OutputPath(*output, *file, *format == "text" ? ".txt" : ".html");
    std::error_code ec;
    if (output->back() == '/') std::filesystem::create_directories(*output, ec);
    std::string error;
    if (!WriteOutputFile(path, bytes, &error)) {
      std::fprintf(stderr, "gabfolio convert: cannot write %s: %s\n",
                   EscapeControlCharacters(path).c_str(), EscapeControlCharacters(error).c_str());
      return kFailure;
    }
    return kOk;
  }
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() ||
      std::fflush(stdout) != 0) {
    std::fprintf(stderr, "gabfolio convert: cannot write the output: %s\n", std::strerror(errno));
    return kFailure;
  }
  return kOk;
}

}  // namespace gab::tool
