#pragma once
// Cards for the people whose chats name them by the name iChat showed while
// the archive knows them only by their account.  Without such a card every
// word of theirs counts as the user's, since a speaker is the other party
// only when its name equals the party in the file name.

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace gab {
class ICLPChatLog;
}

namespace gab::tool {

// What one loaded transcript says about its party.
struct PartyCheck {
  enum Kind {
    kMatched,    // a speaker or participant carries the party's name
    kGroup,      // several participants: the party is the chat's own name
    kLearnable,  // one AIM participant whose account a card can name
    kUnlearnable,
  };
  Kind kind = kMatched;
  std::u16string party, account;  // account: the one participant's, if any
  std::u16string given, family;   // kLearnable: the card's names
  std::string why;                // kUnlearnable: in a few words
};

PartyCheck CheckParty(const ICLPChatLog& log);

class ContactLearner {
 public:
  // Notes a transcript whose check was not kMatched; `where` names it.
  void Note(const PartyCheck& check, const std::string& where);
  // The accounts with the name most of their chats showed (ties: the first
  // seen), each to be written once.
  struct Card {
    std::u16string account, given, family;
    int chats = 0;
  };
  std::vector<Card> Cards() const;
  struct Skipped {
    std::string where, why;
  };
  const std::vector<Skipped>& skipped() const { return skipped_; }
  int unmatched() const { return unmatched_; }

  // Adds the cards to the end of Contacts.vcf (created when missing); the
  // cards already there stay byte for byte.  Accounts that a card of the
  // file carries by now are left out.  False with `error` when nothing
  // could be written.
  static bool Append(std::vector<Card> cards, std::vector<Card>* written, std::string* error);

 private:
  struct Seen {
    std::map<std::u16string, int> names;  // "given\nfamily" -> chats
    std::vector<std::u16string> order;
  };
  std::map<std::u16string, Seen> accounts_;
  std::vector<std::u16string> accountOrder_;
  std::vector<Skipped> skipped_;
  int unmatched_ = 0;
};

// The text of one vCard 3.0 card with these names and AIM account.
std::string VCardText(const std::u16string& given, const std::u16string& family,
                      const std::u16string& account);

}  // namespace gab::tool
