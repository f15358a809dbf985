#include "parser/record.h"

#include <cstdlib>

#include "platform/files.h"
#include "platform/plist.h"

namespace gab::parser {
namespace {

constexpr int64_t kVersion = 1;

std::optional<int64_t> IntItem(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (!node) return std::nullopt;
  if (plist_get_node_type(node) == PLIST_UINT) {
    uint64_t v = 0;
    plist_get_uint_val(node, &v);
    return int64_t(v);  // libplist keeps negative integers as their two's complement
  }
  if (plist_get_node_type(node) == PLIST_REAL) {
    double d = 0;
    plist_get_real_val(node, &d);
    return int64_t(d);
  }
  return std::nullopt;
}

std::optional<std::string> StringItem(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  char* s = nullptr;
  plist_get_string_val(node, &s);
  std::string out = s ? s : "";
  std::free(s);
  return out;
}

}  // namespace

const char* StateName(State state) {
  switch (state) {
    case State::kDone:
      return "done";
    case State::kWaiting:
      return "waiting";
    case State::kMailPending:
      return "mail pending";
    case State::kUnreadable:
      return "unreadable";
  }
  return "done";
}

std::optional<State> StateFromName(std::string_view name) {
  for (State s : {State::kDone, State::kWaiting, State::kMailPending, State::kUnreadable})
    if (name == StateName(s)) return s;
  return std::nullopt;
}

Record LoadRecord(const std::string& path, bool* damaged) {
  if (damaged) *damaged = false;
  Record record;
  bool exists = false;
  PlistPtr root = ReadPlistFile(path, &exists);
  if (!exists) return record;
  plist_t r = root.get();
  plist_t list =
      r && plist_get_node_type(r) == PLIST_DICT ? plist_dict_get_item(r, "transcripts") : nullptr;
  if (!list || plist_get_node_type(list) != PLIST_DICT) {
    if (damaged) *damaged = true;
    return record;
  }
  record.mailRetryAfter = IntItem(r, "mailRetryAfter").value_or(0);
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(list, &it);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(list, it, &key, &value);
    if (!value) {
      std::free(key);
      break;
    }
    std::string name = key ? key : "";
    std::free(key);
    if (plist_get_node_type(value) != PLIST_DICT) continue;
    RecordEntry e;
    e.size = IntItem(value, "size").value_or(-1);
    e.mtimeNs = IntItem(value, "mtime").value_or(-1);
    e.handled = IntItem(value, "handled").value_or(0);
    // An entry whose state cannot be read is looked at afresh (size -1
    // never matches a file), but keeps its handled count: no double counting.
    auto state = StateFromName(StringItem(value, "state").value_or(""));
    if (!state) e.size = -1;
    e.state = state.value_or(State::kDone);
    e.reason = StringItem(value, "reason").value_or("");
    record.transcripts.emplace(std::move(name), std::move(e));
  }
  std::free(it);
  return record;
}

bool SaveRecord(const std::string& path, const Record& record, std::string* error) {
  PlistPtr root(plist_new_dict());
  plist_t r = root.get();
  plist_dict_set_item(r, "version", plist_new_uint(kVersion));
  plist_dict_set_item(r, "mailRetryAfter", plist_new_uint(uint64_t(record.mailRetryAfter)));
  plist_t list = plist_new_dict();
  for (const auto& [name, e] : record.transcripts) {
    plist_t d = plist_new_dict();
    plist_dict_set_item(d, "size", plist_new_uint(uint64_t(e.size)));
    plist_dict_set_item(d, "mtime", plist_new_uint(uint64_t(e.mtimeNs)));
    plist_dict_set_item(d, "handled", plist_new_uint(uint64_t(e.handled)));
    plist_dict_set_item(d, "state", plist_new_string(StateName(e.state)));
    plist_dict_set_item(d, "reason", plist_new_string(e.reason.c_str()));
    plist_dict_set_item(list, name.c_str(), d);
  }
  plist_dict_set_item(r, "transcripts", list);
  // Binary: the agent has every parser run read this file, and libplist
  // reads a binary list many times faster than XML (plistutil shows it).
  char* bin = nullptr;
  uint32_t len = 0;
  plist_to_bin(r, &bin, &len);
  if (!bin) {
    if (error) *error = "cannot serialise the record";
    return false;
  }
  std::string bytes(bin, len);
  plist_to_bin_free(bin);
  return WriteFileAtomically(path, bytes, 0600, error);
}

}  // namespace gab::parser
