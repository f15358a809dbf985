// The text formats: the plain-text rendering of every chat, and one
// tab-separated row per message.

#include "delivery/rendering.h"
#include "library/chat_html.h"
#include "library/export_files.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab::exporting {
namespace {

constexpr std::string_view kTsvHeader = "chat\tperson\tspeaker\tdate\ttime\ttext\n";

// The rows of a chat, one per message (status lines left out).
std::string TsvRows(const Chat& chat) {
  const ICLPChatLog& log = *chat.log;
  std::string prefix = TsvField(chat.key) + "\t" + TsvField(ToUtf8(log.primaryOtherParty())) + "\t";
  std::string out;
  for (const auto& m : log.Messages()) {
    if (!m || m->isStatusMessage()) continue;
    out += prefix;
    out += TsvField(ToUtf8(m->Speaker().value_or(u"")));
    out += '\t';
    out += m->timestamp ? FormatDate(*m->timestamp, "%Y-%m-%d\t%H:%M:%S") : "\t";
    out += '\t';
    out += TsvField(ToUtf8(SearchableText(*m)));
    out += '\n';
  }
  return out;
}

class TsvWriter : public Writer {
 public:
  explicit TsvWriter(FILE* stream) : stream_(stream) {}
  bool Open(const std::string& out, std::string* error) {
    out_ = out;
    return MayReplaceFile(out, kTsvHeader, error) && file_.Open(out, error) && Put(kTsvHeader);
  }
  bool Add(const Chat& chat, std::string* error) override {
    if (Put(TsvRows(chat))) return true;
    *error = "cannot write " + (stream_ ? std::string("the output") : out_);
    return false;
  }
  // The file is written whole: a chat not read this time is not in it.
  void Keep(const std::string&) override {}
  bool Finish(bool complete, std::string* error) override {
    if (stream_) return std::fflush(stream_) == 0;
    return complete && file_.Commit(error, true);
  }
  bool Put(std::string_view bytes) {
    if (!stream_) return file_.Write(bytes);
    return std::fwrite(bytes.data(), 1, bytes.size(), stream_) == bytes.size();
  }

 private:
  FILE* stream_ = nullptr;
  std::string out_;
  ReplacedFile file_;
};

}  // namespace

std::unique_ptr<Writer> MakeTsvWriter(FILE* stream) {
  auto writer = std::make_unique<TsvWriter>(stream);
  writer->Put(kTsvHeader);
  return writer;
}

std::unique_ptr<Writer> MakeTsvFileWriter(const std::string& out, std::string* error) {
  auto writer = std::make_unique<TsvWriter>(nullptr);
  if (!writer->Open(out, error)) return nullptr;
  return writer;
}

std::unique_ptr<Writer> MakeTextWriter(const std::string& out, std::string* error) {
  return MakeChatFilesWriter(out, Format::kText, ".txt", error,
                             [](const Chat& chat) { return ToUtf8(PlainChatLog(*chat.log)); });
}

}  // namespace gab::exporting
