#pragma once
// The library of ~/Library/Gabfolio: the links pages, the image gallery and
// the statistics page.  A null transcript rebuilds the pages from the stores
// as they are.

#include <string>
#include <string_view>

#include "platform/dates.h"

namespace gab {

class ICLPChatLog;

// Merges the transcript's links into the link store and rebuilds the links
// pages (link_pages.cpp).
void GenerateLinkFiles(const ICLPChatLog* transcript);
// Merges the transcript's images into the image store, saves the images and
// rebuilds the gallery (gallery.cpp).
void GenerateImageFiles(const ICLPChatLog* transcript);
// Adds the chat to the running statistics and rebuilds their page
// (statistics.cpp).
void UpdateStatistics(const ICLPChatLog* transcript);
// Moves the statistics' start back to `earliest` when it lies later (an
// import of older chats), and rebuilds their page; a missing store is left
// missing.
void BackdateStatistics(Date earliest);

// A link as listed on a page: long ones shortened in the middle.
std::u16string CompressedLinkForList(std::u16string_view link);
// A name as it appears in a page's file name and links: every character but
// letters and digits escaped as "%XX".
std::u16string stringWithFunkyURLStuffInserted(std::u16string_view text);

}  // namespace gab
