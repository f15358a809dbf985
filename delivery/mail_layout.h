#pragma once
// The one layout of every mail the product sends: multipart/alternative,
// the plain text first (its charset chosen by its characters), the HTML
// second as UTF-8 with charset "utf-8"; From "emailOutgoing", To
// "emailAddress".

#include <optional>
#include <string>
#include <vector>

#include "delivery/cw_message.h"

namespace gab {

class ICLPChatLog;

// The message, built in the order the mail library expects.
CWMessage BuildMail(std::u16string_view subject, const std::optional<std::string>& from,
                    const std::optional<std::string>& to, std::u16string_view plain,
                    std::string html);
// The same for given addresses; with attachments, a multipart/mixed holds
// the two alternatives and then the attachment parts.
CWMessage BuildMail(std::u16string_view subject, CWInternetAddress from,
                    std::vector<CWInternetAddress> to, std::u16string_view plain, std::string html,
                    std::vector<CWPart> attachments = {});

// "[IM] " and the party; with "forceUniqueSubjects" on, the date and time
// follow in parentheses (and "subjectNumber" counts up).
std::u16string subjectForEmail(const ICLPChatLog& transcript);
// "[IM] " and the party, whatever the preferences say.
std::u16string PlainSubject(const ICLPChatLog& transcript);

// A transcript's mail: subjectForEmail, PlainChatLog and HTMLChatLog, with
// the addresses from the preferences.
CWMessage TranscriptMail(const ICLPChatLog& transcript);

}  // namespace gab
