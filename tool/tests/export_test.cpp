#include "library/export.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "testing/images.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"
#include "tests/fixtures/chats.h"

namespace gab {
namespace {

namespace fs = std::filesystem;

testing::Result RunTool(std::vector<std::string> args) {
  args.insert(args.begin(), testing::kTool);
  return testing::RunProgram(std::move(args));
}

std::string Hex(std::string_view bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += {digits[c >> 4], digits[c & 15]};
  return out;
}

// A percent-encoded link as a path.
std::string Unescaped(const std::string& href) {
  std::string out;
  for (size_t i = 0; i < href.size(); ++i) {
    if (href[i] == '%' && i + 2 < href.size()) {
      out += char(std::stoi(href.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += href[i];
    }
  }
  return out;
}

std::string Read(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Every file and link below `root` (links not followed), relative.
std::set<std::string> Tree(const fs::path& root) {
  std::set<std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); it != fs::end(it); it.increment(ec))
    if (!it->is_directory(ec) || it->is_symlink(ec))
      out.insert(fs::relative(it->path(), root).string());
  return out;
}

// The chats of these tests, written into `folder`: the files each
// attachment holds by name, and the texts the mails must carry.
struct Written {
  std::map<std::string, std::string> attachments;
  std::vector<std::string> texts;
  int chats = 0;
};

Written WriteChats(const std::string& folder) {
  Written w;
  std::string png = testing::EncodedImage(8, 6), pdf = testing::PdfDocument(90, 60);
  std::string odd = std::string("\0From \r\n\xff\xfe.\n", 12);
  w.attachments = {{"pic.png", png},
                   {"report.pdf", pdf},
                   {"../../escape \"x\".sh", odd},
                   {"pic4.png", png},
                   {"pic9.png", png}};
  w.texts = {"caf\xC3\xA9 \xE2\x98\x83", "\\nFrom the start\\n>From quoted\\n"};  // JSON
  samples::Chat anna;
  anna.party = "Anna";
  anna.start = 1110294420;
  anna.others = {"anna"};
  anna.lines = {
      {"anna", "AIM", 0, "hi caf\xC3\xA9 \xE2\x98\x83", {}, {}},
      {"me", "AIM", 1, "look\nFrom the start\n>From quoted\n", {"http://example.org/?a=1&b"}, {}},
      {"anna", "AIM", 2, "files", {}, {{"pic.png", png}, {"report.pdf", pdf}}},
      {"", "AIM", 3, "anna went away", {}, {}},
      {"me", "AIM", 4, "<script>alert(1)</script>\ttab", {}, {{"../../escape \"x\".sh", odd}}},
  };
  samples::WriteChat(folder, anna);
  samples::WriteChat(folder, samples::TypicalChat("Bob", 1110394420, 12, false));
  w.chats = 2;
  // Names that must never place a file outside the export, nor hide one.
  for (std::string party :
       std::vector<std::string>{"..", "..Eve", std::string(180, 'x'), "Mal\x01lory\tX\nY",
                                "index.html", "C:\\evil*?|"}) {
    samples::Chat c;
    c.party = party;
    c.start = 1110494420 + 60.0 * w.chats++;
    c.others = {"someone"};
    c.lines = {{"someone", "AIM", 0, "hello", {}, {}}};
    samples::WriteChat(folder, c);
  }
  return w;
}

TEST(Export, NamesQuotingAndFields) {
  struct {
    std::string name;
    bool keepExtension, unchanged;
  } names[] = {
      {"Anna on 2005-03-08 at 15.07", false, true},
      {"Zo\xC3\xAB", false, true},
      {"..", false, false},
      {".hidden.png", true, false},
      {"a/b", false, false},
      {std::string("nul\0x", 5), false, false},
      {"trailing. ", false, false},
      {std::string(300, 'y') + ".png", true, false},
      {"", false, false},
  };
  std::set<std::string> seen;
  for (const auto& c : names) {
    SCOPED_TRACE(c.name);
    std::string safe = exporting::SafeName(c.name, c.keepExtension);
    EXPECT_EQ(safe == c.name, c.unchanged);
    EXPECT_TRUE(seen.insert(safe).second) << safe;
    EXPECT_LE(safe.size(), 130u);
    EXPECT_NE(safe[0], '.');
    for (unsigned char ch : safe) EXPECT_TRUE(ch >= 0x20 && ch != '/' && ch != '\\') << safe;
    EXPECT_TRUE(!c.keepExtension || safe.ends_with(".png")) << safe;
  }

  std::string entry = exporting::MboxEntry(
      "Subject: x\r\n\r\nFrom me\r\n>From you\r\n>>From them\r\nFromage\r\n From\r\nend",
      Date::FromUnix(1110294420));
  EXPECT_EQ(entry,
            "From gabfolio@export.invalid Tue Mar  8 15:07:00 2005\nSubject: x\n\n>From me\n"
            ">>From you\n>>>From them\nFromage\n From\nend\n\n");
  EXPECT_EQ(exporting::TsvField("a\tb\\c\nd\re"), "a\\tb\\\\c\\nd\\re");
}

// Python's mailbox and email modules, readers of their own, open every
// message; exporting again changes nothing.
TEST(Export, MailboxesReadByPython) {
  if (access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "python3 is not installed";
  gab::testing::TempHome home;
  fs::path root = home.path();
  fs::create_directories(root / "chats/old");
  Written w = WriteChats((root / "chats").string());
  samples::WriteChat((root / "chats/old").string(), samples::TypicalChat("Cy", 1e9, 3, true));
  std::string json = "{\"attachments\": {";
  for (const auto& [name, bytes] : w.attachments)
    json += (json.back() == '{' ? "\"" : ", \"") + Hex(name) + "\": \"" + Hex(bytes) + "\"";
  json += "}, \"texts\": [";
  for (const auto& t : w.texts) json += (json.back() == '[' ? "\"" : ", \"") + t + "\"";
  home.Write("expected.json", json + "]}");

  struct {
    const char* format;
    std::string out, toSuffix;
    bool withAddresses;
  } cases[] = {
      {"mbox", "chats.mbox", "@ichat.invalid", false},
      {"maildir", "Maildir", "zoe@example.org", true},
      {"eml", "eml", "@ichat.invalid", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format);
    if (c.withAddresses)
      RunTool({"defaults", "write", "emailAddress", "Zo\xC3\xAB <zoe@example.org>"});
    else
      RunTool({"defaults", "delete", "emailAddress"});
    std::string out = (root / c.out).string();
    std::string before;
    for (int run = 0; run < 2; ++run) {
      auto r = RunTool({"export", "--format", c.format, (root / "chats").string(), "-o", out});
      EXPECT_EQ(r.status, 0) << r.out << r.err;
      EXPECT_NE(r.out.find("Transcripts exported:  " + std::to_string(w.chats + 1)),
                std::string::npos)
          << r.out;
      FILE* p = popen(("/usr/bin/python3 " GABFOLIO_SOURCE_DIR "/tool/tests/check_mailboxes.py " +
                       std::string(c.format) + " '" + out + "' '" + root.string() +
                       "/expected.json' '" + c.toSuffix + "' 2>&1")
                          .c_str(),
                      "r");
      ASSERT_NE(p, nullptr);
      std::string said;
      char buf[4096];
      for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) said.append(buf, n);
      EXPECT_EQ(pclose(p), 0) << said;
      EXPECT_EQ(said, "messages " + std::to_string(w.chats + 1) + " attachments 5\n");
      // The second export is the first, byte for byte.
      std::string now;
      for (const auto& f : Tree(out)) now += f + "\n" + Read(fs::path(out) / f);
      EXPECT_TRUE(run == 0 || now == before);
      before = now;
    }
  }
}

// Every format: hostile names stay inside the export, a broken transcript
// is skipped with its reason, a second export replaces the first, and an
// export never replaces what it did not write.
TEST(Export, HostileNamesBrokenFilesAndReplacing) {
  gab::testing::TempHome home;
  fs::path root = home.path();
  fs::create_directories(root / "chats");
  Written w = WriteChats((root / "chats").string());
  home.Write("chats/Broken on 2005-01-01 at 10.00.ichat", "bplist00 not really");
  std::set<std::string> inputs = Tree(root / "chats");

  for (const char* format : {"mbox", "maildir", "eml", "html", "text", "tsv"}) {
    SCOPED_TRACE(format);
    fs::path out = root / (std::string("out-") + format);
    auto r = RunTool({"export", "-f", format, (root / "chats").string(), "-o", out.string()});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("Skipped:               1\n  " + (root / "chats").string() +
                         "/Broken on 2005-01-01 at 10.00.ichat: iChat 3 archive"),
              std::string::npos)
        << r.out;
    std::set<std::string> first = Tree(out);
    uintmax_t firstSize = fs::is_regular_file(out) ? fs::file_size(out) : 0;

    if (std::string(format) == "html") {
      // Every page is escaped, scriptless, and every link in it resolves
      // to a file of the export.
      std::regex link("(?:href|src)=\"([^\"]*)\"");
      int pages = 0;
      for (const auto& f : first) {
        if (!f.ends_with(".html")) continue;
        ++pages;
        std::string page = Read(out / f);
        EXPECT_EQ(page.find("<script"), std::string::npos) << f;
        EXPECT_NE(page.find("Content-Security-Policy"), std::string::npos) << f;
        for (std::sregex_iterator it(page.begin(), page.end(), link), end; it != end; ++it) {
          std::string href = (*it)[1];
          if (href.starts_with("http://")) continue;
          fs::path target = fs::weakly_canonical(out / fs::path(f).parent_path() / Unescaped(href));
          EXPECT_TRUE(fs::is_regular_file(target)) << f << " -> " << href;
          EXPECT_EQ(target.string().rfind(fs::weakly_canonical(out).string() + "/", 0), 0u);
        }
      }
      EXPECT_EQ(pages, 1 + 8 + 8);  // the people, a page per person and per chat
    }
    for (const auto& f : first) EXPECT_EQ(f.find("/."), std::string::npos) << f;

    // Again, with a filter: what is not selected now goes; no duplicates.
    r = RunTool(
        {"export", "-f", format, "--with", "Anna", (root / "chats").string(), "-o", out.string()});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    std::set<std::string> second = Tree(out);
    if (firstSize) {
      EXPECT_LT(fs::file_size(out), firstSize);
    } else {
      EXPECT_LT(second.size(), first.size());
    }
    EXPECT_TRUE(std::includes(first.begin(), first.end(), second.begin(), second.end()));
    // And with nobody selected, nothing is left but the export's own files.
    RunTool({"export", "-f", format, "--with", "Nobody", (root / "chats").string(), "-o",
             out.string()});
    if (firstSize) {
      EXPECT_LE(fs::file_size(out), 40u);
    } else {
      for (const auto& f : Tree(out))
        EXPECT_TRUE(f == ".gabfolio-export" || f == "index.html" || f == "style.css") << f;
    }
    EXPECT_TRUE(std::string(format) != "maildir" || fs::is_directory(out / "cur"));
  }
  // Nothing landed outside the exports, and the transcripts are untouched.
  std::set<std::string> top;
  for (const auto& e : fs::directory_iterator(root))
    if (e.path().filename() != "Library") top.insert(e.path().filename().string());
  EXPECT_EQ(top, (std::set<std::string>{"chats", "out-mbox", "out-maildir", "out-eml", "out-html",
                                        "out-text", "out-tsv"}));
  EXPECT_EQ(Tree(root / "chats"), inputs);

  // A file or folder the export did not make is never replaced.
  home.Write("notes/mine.txt", "mine");
  home.Write("mail.mbox", "From someone@example.org Mon Jan  1 00:00:00 2001\n\nhi\n");
  for (auto [format, out] : {std::pair{"html", "notes"}, std::pair{"mbox", "mail.mbox"},
                             std::pair{"tsv", "notes/mine.txt"}}) {
    auto r =
        RunTool({"export", "-f", format, (root / "chats").string(), "-o", (root / out).string()});
    EXPECT_EQ(r.status, 1) << format << r.out;
    EXPECT_NE(r.err.find("export of Gabfolio"), std::string::npos) << r.err;
  }
  EXPECT_EQ(Read(root / "notes/mine.txt"), "mine");

  for (std::vector<std::string> bad : {std::vector<std::string>{"export", "-o", "x"},
                                       {"export", "-f", "pdf", "-o", "x"},
                                       {"export", "-f", "mbox"},
                                       {"export", "-f", "tsv", "--since", "2005-13"}}) {
    auto r = RunTool(bad);
    EXPECT_EQ(r.status, 2) << r.err;
  }
}

}  // namespace
}  // namespace gab
