// libFuzzer target: the keyed-archive decoder (binary or XML plists) on
// arbitrary bytes, with the transcript classes substituted.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "archive/keyed.h"
#include "transcript/instant_message.h"
#include "transcript/presentity.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const gab::ClassSubstitutions classes = {
      {"InstantMessage", gab::ICLPInstantMessage::InitWithCoder},
      {"Presentity", gab::ICLPPresentity::InitWithCoder},
      {"Person", gab::ICLPPerson::InitWithCoder},
  };
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  gab::DecodeResult r = gab::DecodeKeyedArchive(bytes, classes);
  if (r.ok() && r.root) r.root->Description();
  return 0;
}
