#include "library/log_generator.h"

namespace gab {

void ICLPLogGenerator::GenerateLinkFiles(const ICLPChatLog*) {}

}  // namespace gab
