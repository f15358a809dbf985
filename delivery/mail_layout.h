#pragma once
// The one layout of every mail the product sends: multipart/alternative,
// the plain text first (its charset chosen by its characters), the HTML
// second as UTF-8 with charset "utf-8"; From "emailOutgoing", To
// "emailAddress"; the client for "emailServer" and "emailPort".

#include <memory>
#include <optional>
#include <string>

#include "delivery/cw_message.h"
#include "delivery/cw_smtp.h"

namespace gab {

class ICLPChatLog;

// The message, built in the order the mail library expects.
CWMessage BuildMail(std::u16string_view subject, const std::optional<std::string>& from,
                    const std::optional<std::string>& to, std::u16string_view plain,
                    std::string html);

// "[IM] " and the party; with "forceUniqueSubjects" on, the date and time
// follow in parentheses (and "subjectNumber" counts up).
std::u16string subjectForEmail(const ICLPChatLog& transcript);

// A transcript's mail: subjectForEmail, PlainChatLog and HTMLChatLog, with
// the addresses from the preferences.
CWMessage TranscriptMail(const ICLPChatLog& transcript);

// The client for the server the preferences name, holding the message.
std::unique_ptr<CWSMTP> SMTPClientFor(CWMessage message);

}  // namespace gab
