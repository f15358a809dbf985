#pragma once
// The viewer's reading pages, made on request from the search index and the
// transcripts: People, a person's chats, a chat, search, and the chats'
// attachments.  Pages carry a strict Content-Security-Policy and no script.
//
//   /people                       everyone, with their chats' count and dates
//   /person?name=NAME             one person's chats, newest first
//   /chat?t=KEY#mN                a whole chat; message N is anchor "mN"
//   /search?q=&with=&since=&until=&order=newest|relevance&page=N
//   /attachment?t=KEY&m=N&a=K     attachment K of message N

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "library/search_index.h"
#include "library/viewer.h"

namespace gab {

class ICLPChatLog;

class ReadingPages : public ViewerPages {
 public:
  // `index` is brought up to date by the caller; the pages check the folder
  // again now and then (a little at a time, so no page waits long).
  // With the data folder given, a statistics page that is not there yet is
  // answered by a page saying so, since every page links to it.
  ReadingPages(std::string transcriptFolder, std::unique_ptr<SearchIndex> index,
               std::string dataFolder = "");
  ~ReadingPages() override;

  bool Serve(std::string_view path, std::string_view query, ViewerReply& reply) override;

 private:
  struct Cached;
  void Refresh();
  std::string Shell(const std::string& title, const char* section, const std::string& person,
                    const std::string& query, const std::string& main);
  ViewerReply NotFound(const std::string& what);
  ViewerReply People();
  ViewerReply Person(const std::string& name);
  ViewerReply Chat(const std::string& key);
  ViewerReply Search(std::string_view query);
  ViewerReply Attachment(const std::string& key, std::string_view message, std::string_view k);
  std::string FileOf(const std::string& key) const;
  // The transcript of an indexed key, loaded (or from the cache).
  std::shared_ptr<ICLPChatLog> Load(const std::string& key);

  std::string transcriptFolder_;
  std::string dataFolder_;
  std::mutex indexMutex_;
  std::unique_ptr<SearchIndex> index_;
  std::chrono::steady_clock::time_point lastRefresh_;
  std::mutex cacheMutex_;
  std::vector<std::shared_ptr<Cached>> cache_;  // most recent first
};

}  // namespace gab
