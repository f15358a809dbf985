// The templates the product ships: the placeholders the builders fill, the
// classes they emit, and the script ban of every library page.
#include <gtest/gtest.h>

#include "platform/files.h"

namespace gab {
namespace {

TEST(ShippedTemplates, CarryThePlaceholdersTheClassesAndTheScriptBan) {
  struct {
    const char* file;
    const char* list;
    const char* listClass;
  } cases[] = {{"linktemplate.html", "____LINKS", "ul.links"},
               {"imagetemplate.html", "____IMAGES", "table.images"}};
  for (const auto& c : cases) {
    auto text = ReadWholeFile(std::string(GABFOLIO_SOURCE_DIR) + "/data/" + c.file);
    ASSERT_TRUE(text) << c.file;
    for (std::string needle :
         {std::string(
              "<meta http-equiv=\"Content-Security-Policy\" content=\"script-src 'none'\">"),
          std::string("____NAME"), std::string("____CONTENTS"), std::string(c.list),
          std::string(".numb"), std::string("li.active"), std::string(c.listClass),
          std::string("name=\"viewport\"")})
      EXPECT_NE(text->find(needle), std::string::npos) << c.file << " lacks " << needle;
    // The list goes last in its section: a speaker page leaves its last
    // month open, which must not swallow anything after it.
    size_t list = text->find(c.list);
    EXPECT_EQ(text->substr(list + std::string(c.list).size(), 10), "</section>") << c.file;
    EXPECT_EQ(text->find("<script"), std::string::npos) << c.file;
  }
  // Every page of the library leads to every other section, and marks its own.
  for (auto [file, here] : {std::pair{"linktemplate.html", "Links.html"},
                            std::pair{"imagetemplate.html", "Images.html"},
                            std::pair{"statstemplate.html", "stats.html"}}) {
    auto text = ReadWholeFile(std::string(GABFOLIO_SOURCE_DIR) + "/data/" + file);
    ASSERT_TRUE(text) << file;
    size_t start = text->find("<nav class=\"sections\">");
    std::string nav = text->substr(start, text->find("</nav>", start) - start);
    for (const char* href : {"people", "Links.html", "Images.html", "stats.html"})
      EXPECT_NE(nav.find(std::string(" href=\"") + href + "\""), std::string::npos)
          << file << " lacks " << href;
    EXPECT_NE(nav.find(std::string("class=\"here\" href=\"") + here + "\""), std::string::npos)
        << nav;
  }
  auto icon = ReadWholeFile(std::string(GABFOLIO_SOURCE_DIR) + "/data/Images/pdf.png");
  ASSERT_TRUE(icon);
  EXPECT_EQ(icon->substr(0, 8), "\x89PNG\r\n\x1a\n");
}

}  // namespace
}  // namespace gab
