#include "tool/progress.h"

#include <unistd.h>

#include <cstdio>

namespace gab::tool {

ProgressBar::ProgressBar(std::string label)
    : label_(std::move(label)), enabled_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  Finish();
}

void ProgressBar::Update(size_t done, size_t total, const std::string& item) {
  if (!enabled_ || total == 0) return;
  auto now = std::chrono::steady_clock::now();
  if (done < total && drawn_ && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  constexpr int kWidth = 30;
  int filled = int(done * kWidth / total);
  std::string bar(size_t(filled), '#');
  bar.append(size_t(kWidth - filled), '.');
  // Only the last 30 bytes of the name, cut on a UTF-8 boundary.
  std::string tail = item;
  if (tail.size() > 30) {
    size_t cut = tail.size() - 30;
    while (cut < tail.size() && (static_cast<unsigned char>(tail[cut]) & 0xC0) == 0x80) ++cut;
    tail = "..." + tail.substr(cut);
  }
  std::fprintf(stderr, "\r\033[K%s [%s] %zu/%zu %s", label_.c_str(), bar.c_str(), done, total,
               tail.c_str());
  std::fflush(stderr);
  drawn_ = true;
}

void ProgressBar::Finish() {
  if (enabled_ && drawn_) std::fprintf(stderr, "\r\033[K");
  drawn_ = false;
}

}  // namespace gab::tool
