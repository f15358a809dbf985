#include "tool/contact_learning.h"

#include <sys/stat.h>

#include <filesystem>

#include "platform/contacts.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab::tool {
namespace {

std::string Quoted(const std::u16string& s) {
  return "'" + EscapeControlCharacters(ToUtf8(s)) + "'";
}

// A text value with the characters vCard reserves escaped.
std::string VCardValue(const std::u16string& text) {
  std::string out;
  for (char c : ToUtf8(text)) {
    if (c == '\\' || c == ';' || c == ',') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c != '\r') {
      out += c;
    }
  }
  return out;
}

}  // namespace

PartyCheck CheckParty(const ICLPChatLog& log) {
  PartyCheck check;
  check.party = log.firstOtherPartyName();
  for (const auto& m : log.Messages()) {
    if (!m || m->isStatusMessage()) continue;
    if (auto speaker = m->Speaker(); speaker && *speaker == check.party) return check;
  }
  const auto& participants = log.Participants();
  for (const auto& p : participants)
    if (auto name = p ? p->Name() : std::nullopt; name && *name == check.party) return check;
  if (participants.size() > 1) {
    check.kind = PartyCheck::kGroup;
    return check;
  }
  check.kind = PartyCheck::kUnlearnable;
  if (participants.empty() || !participants[0] || !participants[0]->rawName()) {
    check.why = "the archive names no other participant";
    return check;
  }
  const ICLPPresentity& other = *participants[0];
  check.account = *other.rawName();
  if (other.Protocol() != u"AIM") {
    check.why = "the account " + Quoted(check.account) + " is not an AIM account, which cards link";
    return check;
  }
  if (auto card = Contacts::Shared().FindByAIMHandle(check.account)) {
    check.why = "your card for " + Quoted(check.account) + " names it " +
                Quoted(other.Name().value_or(u"")) + "; it stays as it is";
    return check;
  }
  // "Mary Ann Lee": given "Mary Ann", family "Lee"; a card names a person
  // "given family", so any split at a blank gives the same name.
  size_t blank = check.party.rfind(u' ');
  if (blank == std::u16string::npos || blank == 0 || blank + 1 == check.party.size()) {
    check.why =
        "a card needs a given and a family name, and " + Quoted(check.party) + " is one word";
    return check;
  }
  check.kind = PartyCheck::kLearnable;
  check.given = check.party.substr(0, blank);
  check.family = check.party.substr(blank + 1);
  return check;
}

void ContactLearner::Note(const PartyCheck& check, const std::string& where) {
  if (check.kind == PartyCheck::kMatched || check.kind == PartyCheck::kGroup) return;
  ++unmatched_;
  if (check.kind == PartyCheck::kUnlearnable) {
    skipped_.push_back({where, check.why});
    return;
  }
  auto [it, added] = accounts_.try_emplace(check.account);
  if (added) accountOrder_.push_back(check.account);
  std::u16string key = check.given + u'\n' + check.family;
  if (it->second.names[key]++ == 0) it->second.order.push_back(key);
}

std::vector<ContactLearner::Card> ContactLearner::Cards() const {
  std::vector<Card> cards;
  for (const auto& account : accountOrder_) {
    const Seen& seen = accounts_.at(account);
    const std::u16string* best = nullptr;
    int most = 0, total = 0;
    for (const auto& key : seen.order) {
      int n = seen.names.at(key);
      total += n;
      if (n > most) {
        most = n;
        best = &key;
      }
    }
    size_t nl = best->find(u'\n');
    cards.push_back({account, best->substr(0, nl), best->substr(nl + 1), total});
  }
  return cards;
}

std::string VCardText(const std::u16string& given, const std::u16string& family,
                      const std::u16string& account) {
  return "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + VCardValue(family) + ";" + VCardValue(given) +
         ";;;\r\nFN:" + VCardValue(given + u" " + family) +
         "\r\nX-AIM;TYPE=pref:" + VCardValue(account) +
         "\r\nNOTE:Added by gabfolio contacts learn\r\nEND:VCARD\r\n";
}

bool ContactLearner::Append(std::vector<Card> cards, std::vector<Card>* written,
                            std::string* error) {
  namespace fs = std::filesystem;
  const std::string folder = Contacts::Folder();
  const std::string path = folder + "/Contacts.vcf";
  std::string text;
  mode_t mode = 0600;
  struct stat st {};
  if (stat(path.c_str(), &st) == 0) {
    std::string why;
    auto bytes = ReadRegularFile(path, UntrustedFileLimit(), &why);
    if (!bytes) {
      *error = "cannot read " + path + ": " + why;
      return false;
    }
    // Cards of another encoding cannot take UTF-8 ones at their end.
    if (bytes->find('\0') != std::string::npos) {
      *error = path + " is UTF-16 text; save it as UTF-8 and try again";
      return false;
    }
    text = std::move(*bytes);
    mode = st.st_mode & 07777;
  }
  // What the file holds now wins over what this run saw.
  ContactFile current;
  current.cards = ParseVCards(text);
  for (const auto& card : current.cards)
    for (const auto& handle : card.aimHandles) current.byAIM.emplace(handle, 0);
  std::string added;
  for (auto& card : cards) {
    if (current.byAIM.count(card.account)) continue;
    current.byAIM.emplace(card.account, 0);
    added += VCardText(card.given, card.family, card.account);
    written->push_back(std::move(card));
  }
  if (added.empty()) return true;
  if (!text.empty() && text.back() != '\n') text += "\r\n";
  text += added;
  std::error_code ec;
  fs::create_directories(folder, ec);
  std::string why;
  if (!WriteFileAtomically(path, text, mode, &why)) {
    written->clear();
    *error = "cannot write " + path + ": " + why;
    return false;
  }
  // The chat being counted now sees the new cards too.
  Contacts::Hold::Refresh();
  return true;
}

}  // namespace gab::tool
