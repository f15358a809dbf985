// NSKeyedArchiver output for transcripts: the $objects layout Apple's
// archiver produces (object numbers in encoding order, class records after
// an object's fields, immutable strings and data inline).

#include <plist/plist.h>

#include <functional>
#include <map>

#include "archive/testing/fixture_parts.h"
#include "platform/text.h"

namespace gab::fixtures {

namespace {

class KeyedOut {
 public:
  KeyedOut() { objects_.push_back(plist_new_string("$null")); }
  ~KeyedOut() {
    for (plist_t o : objects_) plist_free(o);
  }

  uint64_t Inline(plist_t node) {
    objects_.push_back(node);
    return objects_.size() - 1;
  }

  uint64_t String(const std::u16string& s, const std::string& key = {}) {
    if (!key.empty()) {
      if (auto it = shared_.find(key); it != shared_.end()) return it->second;
    }
    uint64_t uid = Inline(plist_new_string(ToUtf8(s).c_str()));
    if (!key.empty()) shared_[key] = uid;
    return uid;
  }

  // An object dictionary: its number first, then whatever `fill` encodes,
  // then its class record.
  uint64_t Object(std::vector<std::string> chain, const std::function<void(plist_t)>& fill,
                  const std::string& key = {}) {
    if (!key.empty()) {
      if (auto it = shared_.find(key); it != shared_.end()) return it->second;
    }
    uint64_t uid = Inline(nullptr);
    if (!key.empty()) shared_[key] = uid;
    plist_t dict = plist_new_dict();
    fill(dict);
    plist_dict_set_item(dict, "$class", plist_new_uid(ClassRecord(chain)));
    objects_[uid] = dict;
    return uid;
  }

  static void Set(plist_t dict, const char* key, uint64_t uid) {
    plist_dict_set_item(dict, key, plist_new_uid(uid));
  }

  std::string Finish(uint64_t root) {
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "$version", plist_new_uint(100000));
    plist_dict_set_item(top, "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_t t = plist_new_dict();
    plist_dict_set_item(t, "root", plist_new_uid(root));
    plist_dict_set_item(top, "$top", t);
    plist_t objects = plist_new_array();
    for (plist_t o : objects_) plist_array_append_item(objects, o);
    objects_.clear();
    plist_dict_set_item(top, "$objects", objects);
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(top, &bin, &len);
    std::string out(bin, len);
    plist_to_bin_free(bin);
    plist_free(top);
    return out;
  }

 private:
  uint64_t ClassRecord(const std::vector<std::string>& chain) {
    if (auto it = classes_.find(chain.front()); it != classes_.end()) return it->second;
    plist_t c = plist_new_dict();
    plist_dict_set_item(c, "$classname", plist_new_string(chain.front().c_str()));
    plist_t list = plist_new_array();
    for (const auto& n : chain) plist_array_append_item(list, plist_new_string(n.c_str()));
    plist_dict_set_item(c, "$classes", list);
    uint64_t uid = Inline(c);
    classes_[chain.front()] = uid;
    return uid;
  }

  std::vector<plist_t> objects_;  // in archive order
  std::map<std::string, uint64_t> classes_;
  std::map<std::string, uint64_t> shared_;
};

class TranscriptOut {
 public:
  std::string Write(const Transcript& t) {
    uint64_t root = o_.Object({"NSMutableArray", "NSArray", "NSObject"}, [&](plist_t d) {
      std::vector<uint64_t> items;
      items.push_back(o_.String(t.service));
      items.push_back(o_.String(u""));
      items.push_back(
          Array(t.messages.size(), [&](size_t k) { return MessageObject(t.messages[k]); }));
      items.push_back(
          Array(t.participants.size(), [&](size_t k) { return Presentity(t.participants[k]); }));
      plist_dict_set_item(d, "NS.objects", UidArray(items));
    });
    return o_.Finish(root);
  }

 private:
  static plist_t UidArray(const std::vector<uint64_t>& uids) {
    plist_t a = plist_new_array();
    for (uint64_t u : uids) plist_array_append_item(a, plist_new_uid(u));
    return a;
  }

  uint64_t Array(size_t n, const std::function<uint64_t(size_t)>& item) {
    return o_.Object({"NSMutableArray", "NSArray", "NSObject"}, [&](plist_t d) {
      std::vector<uint64_t> items;
      for (size_t k = 0; k < n; ++k) items.push_back(item(k));
      plist_dict_set_item(d, "NS.objects", UidArray(items));
    });
  }

  uint64_t Presentity(const Speaker& s) {
    std::string key = "presentity:" + ToUtf8(s.service) + "/" + ToUtf8(s.id);
    if (s.person)
      return o_.Object(
          {"Person", "NSObject"}, [](plist_t) {}, key);
    return o_.Object(
        {"Presentity", "NSObject"},
        [&](plist_t d) {
          KeyedOut::Set(d, "ServiceName", o_.String(s.service));
          KeyedOut::Set(d, "ID", o_.String(s.id));
        },
        key);
  }

  uint64_t MessageObject(const Message& m) {
    return o_.Object({"InstantMessage", "NSObject"}, [&](plist_t d) {
      KeyedOut::Set(d, "Sender", m.speaker ? Presentity(*m.speaker) : 0);
      KeyedOut::Set(d, "Time", o_.Object({"NSDate", "NSObject"}, [&](plist_t date) {
        plist_dict_set_item(date, "NS.time", plist_new_real(m.time.time));
      }));
      KeyedOut::Set(d, "MessageText",
                    m.noText      ? 0
                    : m.plainText ? o_.String(PlainText(m))
                                  : AttributedString(m));
      plist_dict_set_item(d, "Flags", plist_new_uint(m.flags));
    });
  }

  uint64_t AttributedString(const Message& m) {
    std::u16string text;
    size_t dicts = 0;
    std::vector<PlannedRun> runs = PlanRuns(m, text, dicts);
    return o_.Object(
        {"NSMutableAttributedString", "NSAttributedString", "NSObject"}, [&](plist_t d) {
          KeyedOut::Set(
              d, "NSString", o_.Object({"NSMutableString", "NSString", "NSObject"}, [&](plist_t s) {
                plist_dict_set_item(s, "NS.string", plist_new_string(ToUtf8(text).c_str()));
              }));
          if (runs.empty()) return;
          if (runs.size() == 1) {
            // One run over the whole text: the dictionary itself.
            KeyedOut::Set(d, "NSAttributes", Attributes(*runs[0].run));
            return;
          }
          KeyedOut::Set(d, "NSAttributes",
                        o_.Object({"NSMutableArray", "NSArray", "NSObject"}, [&](plist_t a) {
                          std::vector<uint64_t> items;
                          for (const PlannedRun& r : runs) {
                            if (r.fresh) items.push_back(Attributes(*r.run));
                          }
                          plist_dict_set_item(a, "NS.objects", UidArray(items));
                        }));
          std::string info;
          auto varint = [&](uint64_t v) {
            do {
              uint8_t b = v & 0x7F;
              v >>= 7;
              info += static_cast<char>(v ? (b | 0x80) : b);
            } while (v);
          };
          for (const PlannedRun& r : runs) {
            varint(r.length);
            varint(r.dict);
          }
          KeyedOut::Set(d, "NSAttributeInfo",
                        o_.Object({"NSMutableData", "NSData", "NSObject"}, [&](plist_t data) {
                          plist_dict_set_item(data, "NS.data",
                                              plist_new_data(info.data(), info.size()));
                        }));
        });
  }

  uint64_t Key(const char* name) { return o_.String(ToUtf16(name), std::string("key:") + name); }

  uint64_t Attributes(const TextRun& r) {
    return o_.Object({"NSDictionary", "NSObject"}, [&](plist_t d) {
      std::vector<uint64_t> keys, values;
      if (r.fontName) {
        keys.push_back(Key("NSFont"));
        values.push_back(Font(*r.fontName, r.fontSize));
      }
      if (r.rgb || r.white) {
        keys.push_back(Key("NSColor"));
        values.push_back(o_.Object({"NSColor", "NSObject"}, [&](plist_t c) {
          if (r.rgb) {
            plist_dict_set_item(c, "NSColorSpace", plist_new_uint(1));
            std::string rgb = ComponentText({(*r.rgb)[0], (*r.rgb)[1], (*r.rgb)[2]});
            plist_dict_set_item(c, "NSRGB", plist_new_data(rgb.data(), rgb.size()));
          } else {
            plist_dict_set_item(c, "NSColorSpace", plist_new_uint(3));
            std::string w = ComponentText({*r.white});
            plist_dict_set_item(c, "NSWhite", plist_new_data(w.data(), w.size()));
          }
        }));
      }
      if (r.link) {
        keys.push_back(Key("NSLink"));
        values.push_back(r.link->asURL ? Url(r.link->target, r.link->base)
                                       : o_.String(r.link->target));
      }
      if (r.attachment) {
        keys.push_back(Key("NSAttachment"));
        values.push_back(o_.Object({"NSTextAttachment", "NSObject"}, [&](plist_t a) {
          KeyedOut::Set(
              a, "NSFileWrapper", o_.Object({"NSFileWrapper", "NSObject"}, [&](plist_t w) {
                std::string bytes = SerializeRegularFile(
                    r.attachment->fileName, r.attachment->bytes, r.attachment->withUtf8Name);
                KeyedOut::Set(w, "NSFileWrapperData",
                              o_.Object({"NSMutableData", "NSData", "NSObject"}, [&](plist_t data) {
                                plist_dict_set_item(data, "NS.data",
                                                    plist_new_data(bytes.data(), bytes.size()));
                              }));
              }));
        }));
      }
      plist_dict_set_item(d, "NS.keys", UidArray(keys));
      plist_dict_set_item(d, "NS.objects", UidArray(values));
    });
  }

  uint64_t Url(const std::u16string& target, const std::optional<std::u16string>& base) {
    return o_.Object({"NSURL", "NSObject"}, [&](plist_t u) {
      KeyedOut::Set(u, "NS.base", base ? Url(*base, std::nullopt) : 0);
      KeyedOut::Set(u, "NS.relative", o_.String(target));
    });
  }

  uint64_t Font(const std::u16string& name, double size) {
    std::string key = "font:" + ToUtf8(name) + "/" + std::to_string(size);
    return o_.Object(
        {"NSFont", "NSObject"},
        [&](plist_t f) {
          KeyedOut::Set(f, "NSName", o_.String(name));
          plist_dict_set_item(f, "NSSize", plist_new_real(size));
          plist_dict_set_item(f, "NSfFlags", plist_new_uint(16));
        },
        key);
  }

  KeyedOut o_;
};

}  // namespace

std::string WriteKeyedTranscript(const Transcript& t) {
  return TranscriptOut().Write(t);
}

}  // namespace gab::fixtures
