#pragma once
// The chat client's open windows, as the end-of-chat judgement asks for them:
// how many there are and what their titles say.  On Linux the answer comes
// from the X server through EWMH; tests swap in their own source.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gab {

// The window class the chat client's windows carry (WM_CLASS, second string).
inline constexpr std::string_view kChatClientWindowClass = "iChat";

class ChatWindows {
 public:
  virtual ~ChatWindows() = default;
  // The titles of the chat client's open windows, one per window (a window
  // without a title gives ""); nothing when the query failed.
  virtual std::optional<std::vector<std::u16string>> WindowTitles() = 0;
};

// Asks an X server: the windows of _NET_CLIENT_LIST on each root whose
// WM_CLASS class is `windowClass`, titled by _NET_WM_NAME or else WM_NAME.
// `display` null means $DISPLAY.  No display, no client list or any protocol
// failure gives nothing.
std::optional<std::vector<std::u16string>> QueryX11WindowTitles(
    const char* display = nullptr, std::string_view windowClass = kChatClientWindowClass);

class X11ChatWindows : public ChatWindows {
 public:
  std::optional<std::vector<std::u16string>> WindowTitles() override {
    return QueryX11WindowTitles();
  }
};

// The source the transcript library asks; X11 unless a test installed another.
ChatWindows& CurrentChatWindows();
// Installs a source (not owned); null restores the X11 query.
void SetChatWindows(ChatWindows* source);

// True when the chat client has at least one window (a failed query: false).
bool ChatClientHasWindows();

// Window titles compared the way the chat client's scripting compared them:
// case ignored, otherwise the whole title exactly.
bool TitlesEqualIgnoringCase(std::u16string_view a, std::u16string_view b);

}  // namespace gab
