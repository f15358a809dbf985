// libFuzzer target: the binary-plist reader on arbitrary bytes.  Walks every
// object reachable from the top once, reads every string, and checks that
// the two ways of looking up a dictionary key agree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "archive/bplist.h"

using gab::BinaryPlist;
using Type = BinaryPlist::Type;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    BinaryPlist p(bytes);
    std::vector<bool> seen(p.size());
    std::vector<uint64_t> todo{p.top()};
    seen[p.top()] = true;
    while (!todo.empty()) {
      uint64_t i = todo.back();
      todo.pop_back();
      BinaryPlist::Value v = p.Object(i);
      if (v.Is(Type::kString)) {
        std::u16string text = v.Utf16();
        if (v.utf16 && text.size() != v.count) std::abort();
        (void)v.Utf8();
      }
      if (v.Is(Type::kDict)) {
        BinaryPlist::Dict keys;
        p.Keys(v, keys);
        for (std::string_view key : {"$class", "NS.objects", "CF$UID"}) {
          auto viaKeys = keys.Find(key);
          auto viaFind = p.Find(v, key);
          if (viaKeys.has_value() != viaFind.has_value()) std::abort();
          if (viaKeys && *viaKeys != viaFind->index) std::abort();
        }
      }
      if (v.Is(Type::kDict) || v.Is(Type::kArray)) {
        uint64_t n = v.Is(Type::kDict) ? 2 * v.count : v.count;
        for (uint64_t k = 0; k < n; ++k) {
          uint64_t ref = p.Ref(v, k);
          if (!seen[ref]) {
            seen[ref] = true;
            todo.push_back(ref);
          }
        }
      }
    }
  } catch (const gab::BinaryPlistError&) {
  }
  return 0;
}
