#pragma once
// The user's contacts, standing in for the Address Book: vCard files
// (3.0 and 4.0) under ~/Library/Application Support/AddressBook/.
//   Contacts.vcf  the cards, searched in file order (the first match wins)
//   Me.vcf        the user's own card (the "me" card)
// Either file may be absent.  Each file is parsed once and parsed again only
// when it changes, so the answers equal reading the files on every call.

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace gab {

struct ContactCard {
  // From N (family;given;...): nothing when the component is empty.
  std::optional<std::u16string> firstName;
  std::optional<std::u16string> lastName;
  // X-AIM values and IMPP:aim: handles, in file order.
  std::vector<std::u16string> aimHandles;
  // Index into aimHandles of the first preferred handle, if any was marked.
  std::optional<size_t> preferredAIM;

  // The primary AIM handle: the first marked preferred, else the first.
  std::optional<std::u16string> PrimaryAIMHandle() const;
  // "First Last", or nothing when either name is missing.
  std::optional<std::u16string> FullName() const;
};

// Parses every card of a vCard text (UTF-8, or UTF-16 with a byte-order
// mark).  Malformed lines are skipped; a card cut off at the end of the text
// is kept.
std::vector<ContactCard> ParseVCards(std::string_view text);

// The cards of one vCard file, with an index from AIM handle to the first
// card that carries it.
struct ContactFile {
  std::vector<ContactCard> cards;
  std::unordered_map<std::u16string, size_t> byAIM;  // first card in file order
};

class Contacts {
 public:
  // The contacts of the current $HOME (the folder is looked up on each call,
  // so a changed HOME is followed).
  static Contacts& Shared();

  // The "me" card: the first card of Me.vcf; null when there is none.  The
  // card stays valid while the caller holds it, even if the file changes.
  std::shared_ptr<const ContactCard> Me();
  // The first card of Contacts.vcf with this AIM handle (exact comparison);
  // null when no card has it.
  std::shared_ptr<const ContactCard> FindByAIMHandle(const std::u16string& handle);

  // Folder of the two files: ~/Library/Application Support/AddressBook.
  static std::string Folder();

  // While a Hold lives, its thread looks at each file once: one operation
  // (a rendering, a transcript's processing) sees one state of the contacts
  // instead of checking the files again for every message.  Holds nest.
  class Hold {
   public:
    Hold();
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    // Forgets what this thread's Holds have looked at: a file that the
    // operation itself changed (a card it added) is looked at again.
    static void Refresh();
  };

 private:
  struct Cached {
    std::string path;
    bool present = false;
    unsigned long long device = 0, inode = 0;
    long long size = -1, mtimeSec = 0, mtimeNsec = 0, ctimeSec = 0, ctimeNsec = 0;
    std::shared_ptr<const ContactFile> file;
  };
  // The parsed file, re-read when its identity, size or times changed.
  std::shared_ptr<const ContactFile> Load(Cached& cache, const std::string& path);
  // The same, once per Hold.
  std::shared_ptr<const ContactFile> LoadHeld(Cached& cache, const char* name, bool me);

  std::mutex mutex_;
  Cached me_, cards_;
};

}  // namespace gab
