// gabfolio defaults: reads and changes the preferences domain, as the
// preference pane would.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/plist.h"
#include "platform/preferences.h"
#include "tool/commands.h"

namespace gab::tool {
namespace {

constexpr const char* kHelp =
    "usage: gabfolio defaults read [--show-secrets] [KEY]\n"
    "       gabfolio defaults write KEY [-string|-int|-bool] VALUE\n"
    "       gabfolio defaults delete KEY\n"
    "\n"
    "Reads and changes the settings of the domain com.tidewrack.gabfolio, kept in\n"
    "~/Library/Preferences/com.tidewrack.gabfolio.plist.  The agent sees a change\n"
    "within a second.  Without a type, VALUE is stored as a string; -bool takes\n"
    "YES, NO, true, false, 1 or 0.  The mail password reads as ******** unless\n"
    "--show-secrets is given.\n";

// Values that should not land on a screen or in a terminal log by accident.
bool IsSecret(std::string_view key) {
  return key == "emailPassword";
}
constexpr const char* kMasked = "********";

std::string Describe(const PrefValue& v) {
  if (auto* b = std::get_if<bool>(&v)) return *b ? "1" : "0";
  if (auto* i = std::get_if<int64_t>(&v)) return std::to_string(*i);
  if (auto* d = std::get_if<double>(&v)) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", *d);
    return buf;
  }
  if (auto* s = std::get_if<std::string>(&v)) return *s;
  return "(not a plain value)";
}

std::string DescribeNode(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return b ? "1" : "0";
    }
    case PLIST_UINT: {
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return std::to_string(int64_t(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Describe(PrefValue(d));
    }
    case PLIST_STRING: {
      uint64_t len = 0;
      const char* p = plist_get_string_ptr(node, &len);
      return std::string(p ? p : "", p ? size_t(len) : 0);
    }
    case PLIST_ARRAY:
      return "(array of " + std::to_string(plist_array_get_size(node)) + ")";
    case PLIST_DICT:
      return "(dictionary)";
    case PLIST_DATE:
      return "(date)";
    case PLIST_DATA:
      return "(data)";
    default:
      return "(other)";
  }
}

int ReadAll(Preferences& prefs, bool showSecrets) {
  bool exists = false;
  PlistPtr root = ReadPlistFile(prefs.path(), &exists);
  if (!exists) return kOk;  // an empty domain
  if (!root || plist_get_node_type(static_cast<plist_t>(root.get())) != PLIST_DICT) {
    std::fprintf(stderr, "gabfolio defaults: %s is not a property list dictionary\n",
                 prefs.path().c_str());
    return kFailure;
  }
  // Sorted, through the same canonical form the file is written in.
  PlistPtr sorted = ParsePlist(PlistToXml(static_cast<plist_t>(root.get())));
  plist_t dict = static_cast<plist_t>(sorted.get());
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dict, &it);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(dict, it, &key, &value);
    if (!value) {
      std::free(key);
      break;
    }
    bool masked = !showSecrets && key && IsSecret(key);
    std::printf("%s = %s\n", key ? key : "", masked ? kMasked : DescribeNode(value).c_str());
    std::free(key);
  }
  std::free(it);
  return kOk;
}

std::optional<PrefValue> ParseTyped(const std::string& type, const std::string& text) {
  if (type == "-string") return PrefValue(text);
  if (type == "-int" || type == "-integer") {
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end || errno) return std::nullopt;
    return PrefValue(int64_t(v));
  }
  if (type == "-bool" || type == "-boolean") {
    std::string t;
    for (char c : text) t += char(std::tolower(static_cast<unsigned char>(c)));
    if (t == "yes" || t == "true" || t == "1") return PrefValue(true);
    if (t == "no" || t == "false" || t == "0") return PrefValue(false);
  }
  return std::nullopt;
}

}  // namespace

int RunDefaults(int argc, char** argv) {
  std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "--help" || verb == "-h") {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  auto& prefs = Preferences::Shared();
  bool showSecrets = false;
  if (verb == "read" && argc > 2 && std::strcmp(argv[2], "--show-secrets") == 0) {
    showSecrets = true;
    ++argv;
    --argc;
  }
  if (verb == "read" && argc <= 3) {
    if (argc == 2) return ReadAll(prefs, showSecrets);
    prefs.AppSynchronize();
    auto value = prefs.CopyAppValue(argv[2]);
    if (!value) {
      std::fprintf(stderr, "gabfolio defaults: the key %s does not exist\n", argv[2]);
      return kFailure;
    }
    std::printf("%s\n", !showSecrets && IsSecret(argv[2]) ? kMasked : Describe(*value).c_str());
    return kOk;
  }
  if (verb == "write" && (argc == 4 || argc == 5)) {
    std::string type = argc == 5 ? argv[3] : "-string";
    std::string text = argv[argc - 1];
    auto value = ParseTyped(type, text);
    if (!value) {
      return UsageError("defaults", "'" + text + "' is not a valid " + type + " value");
    }
    prefs.SetAppValue(argv[2], value);
  } else if (verb == "delete" && argc == 3) {
    prefs.AppSynchronize();
    if (!prefs.CopyAppValue(argv[2])) {
      std::fprintf(stderr, "gabfolio defaults: the key %s does not exist\n", argv[2]);
      return kFailure;
    }
    prefs.SetAppValue(argv[2], std::nullopt);
  } else {
    return UsageError("defaults", verb.empty() ? std::string("read, write or delete?")
                                               : "bad arguments for '" + verb + "'");
  }
  if (!prefs.AppSynchronize()) {
    std::fprintf(stderr, "gabfolio defaults: unable to write %s\n", prefs.path().c_str());
    return kFailure;
  }
  return kOk;
}

}  // namespace gab::tool
