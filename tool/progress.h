#pragma once
// A one-line progress bar on standard error, drawn only when standard error
// is a terminal (scripts and logs get the summary alone).

#include <chrono>
#include <cstddef>
#include <string>

namespace gab::tool {

class ProgressBar {
 public:
  explicit ProgressBar(std::string label);
  ~ProgressBar();
  // Redraws at most ten times a second, and always for the last step.
  void Update(size_t done, size_t total, const std::string& item);
  void Finish();

 private:
  std::string label_;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace gab::tool
