#include "library/log_generator.h"

namespace gab {

void ICLPLogGenerator::GenerateImageFiles(const ICLPChatLog*) {}

}  // namespace gab
