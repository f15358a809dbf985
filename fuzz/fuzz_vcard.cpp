// libFuzzer target: the vCard reader must take any bytes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/contacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto cards = gab::ParseVCards(std::string_view(reinterpret_cast<const char*>(data), size));
  for (const auto& card : cards) {
    (void)card.PrimaryAIMHandle();
    (void)card.FullName();
  }
  return 0;
}
