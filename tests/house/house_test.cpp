// SPDX-License-Identifier: Apache-2.0
// The rules of the house hold in this tree; and each rule, shown a tree that breaks it, says so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "rules.h"

namespace House {
namespace {
namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

Tree const& repository() {
  static Tree const tree{fs::path(VANTREL_SOURCE_DIR)};
  return tree;
}

TEST(Repository, isRead) {
  EXPECT_NE(repository().find("CMakeLists.txt"), nullptr);
  EXPECT_NE(repository().find("vantrel/core/entry.h"), nullptr);
  EXPECT_EQ(repository().find("no such file"), nullptr);
}
TEST(Repository, arrows) { EXPECT_THAT(arrows(repository()), IsEmpty()); }
TEST(Repository, surfaces) { EXPECT_THAT(surfaces(repository()), IsEmpty()); }
TEST(Repository, words) { EXPECT_THAT(words(repository()), IsEmpty()); }
TEST(Repository, lineLength) { EXPECT_THAT(lineLength(repository()), IsEmpty()); }
TEST(Repository, testNames) { EXPECT_THAT(testNames(repository()), IsEmpty()); }
TEST(Repository, banners) { EXPECT_THAT(banners(repository()), IsEmpty()); }
TEST(Repository, licence) { EXPECT_THAT(licence(repository()), IsEmpty()); }
TEST(Repository, endings) { EXPECT_THAT(endings(repository()), IsEmpty()); }
TEST(Repository, orphans) { EXPECT_THAT(orphans(repository()), IsEmpty()); }
TEST(Repository, snippets) { EXPECT_THAT(snippets(repository()), IsEmpty()); }
TEST(Repository, scripts) { EXPECT_THAT(scripts(repository()), IsEmpty()); }

// A small tree that a test furnishes.
class Checker : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "house-XXXXXX").string();
    root_ = mkdtemp(name.data());
  }
  void TearDown() override { fs::remove_all(root_); }
  void put(std::string const& path, std::string const& text) {
    fs::create_directories((root_ / path).parent_path());
    std::ofstream(root_ / path) << text;
  }
  Tree tree() const { return Tree(root_); }

 private:
  fs::path root_;
};

auto offence(std::string const& file, std::size_t line, std::string const& text) {
  return AllOf(Field(&Offence::file, file), Field(&Offence::line, line),
               Field(&Offence::text, HasSubstr(text)));
}

TEST_F(Checker, arrowNamesTheOffendingPair) {
  put("platform/ostra/ptr.h", "#include \"shoal/table.h\"\n");
  put("platform/shoal/table.h", "");
  put("vantrel/sm/sm.cpp",
      "#include <vector>\n#include \"vantrel/fast/state.h\"\n#include \"ostra/ptr.h\"\n");
  put("vantrel/fast/state.h", "");
  EXPECT_THAT(arrows(tree()), ElementsAre(offence("platform/ostra/ptr.h", 1, "ostra may not include shoal"),
                                          offence("vantrel/sm/sm.cpp", 2, "sm may not include fast")));
}

TEST_F(Checker, arrowWantsFilesAndRoomsThatExist) {
  put("attic/old.cpp", "");
  put("hw/recorder.cpp", "#include \"hw/gone.h\"\n");
  EXPECT_THAT(arrows(tree()), ElementsAre(offence("attic/old.cpp", 0, "\"attic\" is not in the table"),
                                          offence("hw/recorder.cpp", 1, "\"hw/gone.h\", which is no file")));
}

TEST_F(Checker, arrowsThatAreAllowedPass) {
  put("vantrel/vantrel.h", "#include \"vantrel/sm/sm.h\"\n");
  put("vantrel/sm/sm.h", "#include \"shoal/table.h\"\n");
  put("platform/shoal/table.h", "");
  put("apps/vantreld/main.cpp", "#include \"options.h\"\n#include \"vantrel/vantrel.h\"\n");
  put("apps/vantreld/options.h", "");
  EXPECT_THAT(arrows(tree()), IsEmpty());
}

TEST_F(Checker, commandLinesAndColoursStayInThePrograms) {
  put("hw/tcam.cpp", "#include <CLI/CLI.hpp>\nchar const* red = \"\\033[31m\";\n");
  put("apps/vantrel/main.cpp", "#include <CLI/CLI.hpp>\n");
  EXPECT_THAT(surfaces(tree()),
              ElementsAre(offence("hw/tcam.cpp", 1, "CLI"), offence("hw/tcam.cpp", 2, "033")));
}

TEST_F(Checker, bannersAreFoundAndPicturesAreNot) {
  put("hw/a.cpp", "// ---- Time\n  // ==========\n//   a --> b\n");
  EXPECT_THAT(banners(tree()),
              ElementsAre(offence("hw/a.cpp", 1, "banner"), offence("hw/a.cpp", 2, "banner")));
}

TEST_F(Checker, wordsAreFoundWhereverTheyStand) {
  put("a.md",
      "See "
      "Part"
      " 4.2.\nfine\n"
      "iss"
      "ue #12 and "
      "Iss"
      "ue 7\n");
  put("b.cpp",
      "int x;  // TO"
      "DO: y\nchar const* p = \"/ho"
      "me/me/x\";\n");
  put("c.txt",
      "the Specifi"
      "cation says\n");
  EXPECT_THAT(words(tree()),
              ElementsAre(offence("a.md", 1, "Part"), offence("a.md", 3, "issue"), offence("b.cpp", 1, "DO"),
                          offence("b.cpp", 2, "me/"), offence("c.txt", 1, "cation")));
}

TEST_F(Checker, whatGitKeepsIsNotRead) {
  put(".git",
      "gitdir: /wo"
      "rk/main/.git/worktrees/x\n");
  EXPECT_THAT(words(tree()), IsEmpty());
  EXPECT_THAT(tree().files(), IsEmpty());
}

TEST_F(Checker, harmlessWordsPass) {
  put("a.md",
      "In part 2 users issue commands; Part of it. An issue with $DIR/wo"
      "rk/x and ~/ho"
      "me/x. TO"
      "DOS\n");
  EXPECT_THAT(words(tree()), IsEmpty());
}

TEST_F(Checker, longLinesCountColumnsNotBytes) {
  std::string wide(110, 'x'), umlauts;
  for (int i = 0; i < 110; ++i) umlauts += "\xC3\xA4";
  put("a.cpp", wide + "\n" + wide + "x\n" + umlauts + "\n");
  put("b.md", "| " + wide + " |\n```\n" + wide + wide + "\n```\n" + wide + " y\n");
  EXPECT_THAT(lineLength(tree()),
              ElementsAre(offence("a.cpp", 2, "111 columns"), offence("b.md", 5, "112 columns")));
}

TEST_F(Checker, longTestNamesAreNamed) {
  std::string const most(45, 'x'), more(46, 'x');
  put("a.cpp", "TEST(Suite, " + most + ") {}\nTEST_F(Suite, " + more + ") {}\n  TEST(" + more + ")\n");
  put("b.cpp", "TEST_P(\n    Suite,\n    " + more + ") {}\nTYPED_TEST(Suite, " + more + ") {}\nTEST(");
  EXPECT_THAT(testNames(tree()),
              ElementsAre(offence("a.cpp", 2, "46 characters"), offence("b.cpp", 1, "46 characters"),
                          offence("b.cpp", 4, "46 characters")));
}

TEST_F(Checker, everySourceStatesItsLicence) {
  put("a.cpp", "int a;\n");
  put("b.cpp", "// SPDX-License-Identifier: Apache-2.0\n");
  put("scripts/run", "#!/bin/sh\n# SPDX-License-Identifier: Apache-2.0\n");
  put("scripts/walk", "#!/bin/sh\n");
  put("CMakeLists.txt", "\n");
  EXPECT_THAT(licence(tree()),
              ElementsAre(offence("CMakeLists.txt", 1, "expected"), offence("a.cpp", 1, "expected"),
                          offence("scripts/walk", 2, "expected")));
}

TEST_F(Checker, endingsOfFilesAndLines) {
  put("a.cpp", "int a;");
  put("b.cpp", "int b; \nint\tc;\nint d;\r\n");
  put("c.cpp", "int c;\n\n");
  put("Makefile", "all:\n\ttrue\n");
  EXPECT_THAT(endings(tree()),
              ElementsAre(offence("a.cpp", 1, "no newline"), offence("b.cpp", 1, "trailing blanks"),
                          offence("b.cpp", 2, "a tab"), offence("b.cpp", 3, "carriage return"),
                          offence("c.cpp", 2, "empty lines")));
}

TEST_F(Checker, inputsOfFuzzTargetsAreData) {
  put("fuzz/corpus/engine_fuzz/01", std::string(120, 'x') + "\t\r\n \n\n");
  EXPECT_THAT(endings(tree()), IsEmpty());
  EXPECT_THAT(lineLength(tree()), IsEmpty());
}

TEST_F(Checker, orphansAreNamed) {
  put("core/CMakeLists.txt", "vantrel_room(core used.cpp)\n");
  put("core/used.cpp", "#include \"core/used.h\"\n");
  put("core/used.h", "");
  put("core/lost.cpp", "");
  put("core/lost.h", "");
  put("docs/lost.md", "# lost\n");
  put("docs/found.md", "# found\n");
  put("README.md", "See docs/found.md.\n");
  put("scripts/stray", "#!/bin/sh\n");
  EXPECT_THAT(orphans(tree()),
              ElementsAre(offence("core/lost.cpp", 0, "no CMakeLists.txt"),
                          offence("core/lost.h", 0, "no file includes"),
                          offence("docs/lost.md", 0, "mentions"), offence("scripts/stray", 0, "mentions")));
}

TEST_F(Checker, shownCodeIsPartOfAFile) {
  put("examples/a.cpp", "int main() {\n  return 0;\n}\n");
  put("good.md", "<!-- from examples/a.cpp -->\n```cpp\nint main() {\n  return 0;\n}\n```\n");
  put("stale.md", "<!-- from examples/a.cpp -->\n```cpp\nint main() {\n  return 1;\n}\n```\n");
  put("unmarked.md", "text\n```cpp\nint x;\n```\n");
  put("wrong.md", "<!-- from examples/b.cpp -->\n```cpp\nint x;\n```\n");
  EXPECT_THAT(snippets(tree()),
              ElementsAre(offence("stale.md", 2, "differs from examples/a.cpp"),
                          offence("unmarked.md", 2, "vouches"), offence("wrong.md", 2, "no file")));
}

TEST_F(Checker, shownMakeTargetsExist) {
  put("Makefile", "check:\n\ttrue\n");
  put("a.md", "```sh\ncd vantrel\nmake check   # every test\nmake checks\nrm -rf build\n```\n");
  EXPECT_THAT(snippets(tree()),
              ElementsAre(offence("a.md", 4, "no make target"), offence("a.md", 5, "vouches")));
}

TEST_F(Checker, scriptsParseAndRun) {
  put("scripts/a", "#!/bin/bash\nif true; then\n");
  EXPECT_THAT(scripts(tree()), ElementsAre(offence("scripts/a", 0, "cannot be executed"),
                                           offence("scripts/a", 0, "does not parse")));
}

}  // namespace
}  // namespace House
