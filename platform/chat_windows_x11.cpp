// The X11 module: the chat client's windows, asked of the X server over xcb
// with EWMH.
#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <cstdlib>
#include <memory>

#include "platform/chat_windows_module.h"

namespace gab {
namespace {

// Titles and class names are short; a hostile client cannot make us read more.
constexpr uint32_t kMaxPropertyWords = 16384;

struct XcbDisconnect {
  void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
using Connection = std::unique_ptr<xcb_connection_t, XcbDisconnect>;

struct FreeReply {
  void operator()(void* p) const { std::free(p); }
};
using PropertyReply = std::unique_ptr<xcb_get_property_reply_t, FreeReply>;

xcb_get_property_cookie_t AskProperty(xcb_connection_t* c, xcb_window_t w, xcb_atom_t property) {
  return xcb_get_property(c, 0, w, property, XCB_GET_PROPERTY_TYPE_ANY, 0, kMaxPropertyWords);
}

// Null when the window vanished or the property is absent.
PropertyReply TakeProperty(xcb_connection_t* c, xcb_get_property_cookie_t cookie) {
  xcb_generic_error_t* error = nullptr;
  PropertyReply reply(xcb_get_property_reply(c, cookie, &error));
  std::free(error);
  if (!reply || reply->type == XCB_ATOM_NONE || reply->format != 8) return nullptr;
  return reply;
}

std::string_view Bytes(const PropertyReply& reply) {
  return {static_cast<const char*>(xcb_get_property_value(reply.get())),
          size_t(xcb_get_property_value_length(reply.get()))};
}

// WM_CLASS holds "instance\0class\0"; the class is the second string.
std::string_view ClassOf(std::string_view wmClass) {
  size_t nul = wmClass.find('\0');
  if (nul == std::string_view::npos) return {};
  std::string_view rest = wmClass.substr(nul + 1);
  size_t end = rest.find('\0');
  return end == std::string_view::npos ? rest : rest.substr(0, end);
}

std::string Latin1ToUtf8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (unsigned char b : bytes) {
    if (b < 0x80) {
      out += char(b);
    } else {
      out += char(0xC0 | (b >> 6));
      out += char(0x80 | (b & 0x3F));
    }
  }
  return out;
}

// The title in UTF-8.
std::string TitleOf(const PropertyReply& netName, xcb_atom_t utf8String,
                    const PropertyReply& wmName) {
  if (netName && netName->type == utf8String) return std::string(Bytes(netName));
  if (!wmName) return {};
  // WM_NAME is Latin-1 (STRING) unless a client declared UTF-8; compound
  // text is read as Latin-1, which keeps its ASCII part right.
  if (wmName->type == utf8String) return std::string(Bytes(wmName));
  return Latin1ToUtf8(Bytes(wmName));
}

std::optional<std::vector<std::string>> WindowTitles(const char* display,
                                                     std::string_view windowClass) {
  int screenNumber = 0;
  Connection c(xcb_connect(display, &screenNumber));
  if (!c || xcb_connection_has_error(c.get())) return std::nullopt;

  xcb_ewmh_connection_t ewmh{};
  xcb_intern_atom_cookie_t* atoms = xcb_ewmh_init_atoms(c.get(), &ewmh);
  if (!atoms) return std::nullopt;
  if (!xcb_ewmh_init_atoms_replies(&ewmh, atoms, nullptr)) return std::nullopt;
  struct WipeEwmh {
    xcb_ewmh_connection_t* e;
    ~WipeEwmh() { xcb_ewmh_connection_wipe(e); }
  } wipe{&ewmh};

  // Every screen's client list: a chat window may live on any of them.
  std::vector<xcb_window_t> clients;
  bool anyList = false;
  for (int screen = 0; screen < ewmh.nb_screens; ++screen) {
    xcb_ewmh_get_windows_reply_t list{};
    if (!xcb_ewmh_get_client_list_reply(&ewmh, xcb_ewmh_get_client_list(&ewmh, screen), &list,
                                        nullptr))
      continue;
    anyList = true;
    clients.insert(clients.end(), list.windows, list.windows + list.windows_len);
    xcb_ewmh_get_windows_reply_wipe(&list);
  }
  // Without a client list there is no telling which windows exist.
  if (!anyList) return std::nullopt;

  // Ask for every property at once, then collect the answers.
  struct Pending {
    xcb_get_property_cookie_t wmClass, netName, wmName;
  };
  std::vector<Pending> pending;
  pending.reserve(clients.size());
  for (xcb_window_t w : clients)
    pending.push_back({AskProperty(c.get(), w, XCB_ATOM_WM_CLASS),
                       AskProperty(c.get(), w, ewmh._NET_WM_NAME),
                       AskProperty(c.get(), w, XCB_ATOM_WM_NAME)});

  std::vector<std::string> titles;
  for (const Pending& p : pending) {
    PropertyReply wmClass = TakeProperty(c.get(), p.wmClass);
    PropertyReply netName = TakeProperty(c.get(), p.netName);
    PropertyReply wmName = TakeProperty(c.get(), p.wmName);
    if (!wmClass || ClassOf(Bytes(wmClass)) != windowClass) continue;
    titles.push_back(TitleOf(netName, ewmh.UTF8_STRING, wmName));
  }
  if (xcb_connection_has_error(c.get())) return std::nullopt;
  return titles;
}

}  // namespace
}  // namespace gab

extern "C" __attribute__((visibility("default"))) const gab::X11Module* gabfolio_x11_module() {
  static const gab::X11Module module{gab::WindowTitles};
  return &module;
}
