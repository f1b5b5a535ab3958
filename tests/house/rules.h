// SPDX-License-Identifier: Apache-2.0
// The rules of the house that a machine can check, over all the text files of a source tree.
//
// Invariants: a rule reads and reports; it changes nothing. A tree that keeps every rule yields no offence.
// Cost: one read of every file, then a few passes over the text.
// Errors: a root that cannot be read throws std::filesystem::filesystem_error.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

namespace House {

struct Offence {
  std::string file;  // from the root
  std::size_t line;  // from 1; 0 stands for the whole file
  std::string text;  // what is wrong and what is expected
};
std::ostream& operator<<(std::ostream& out, Offence const& offence);

struct File {
  std::string path;  // from the root, with slashes
  std::string text;
  std::vector<std::string> lines;
};

// Every text file below the root but build directories, version control and files that are not ours to
// format.
class Tree {
 public:
  explicit Tree(std::filesystem::path root);
  std::filesystem::path const& root() const { return root_; }
  std::vector<File> const& files() const { return files_; }
  File const* find(std::string const& path) const;  // null when there is none

 private:
  std::filesystem::path root_;
  std::vector<File> files_;  // in the order of their paths
};

using Offences = std::vector<Offence>;

// Who may include whom; a quoted include names a file of the tree.
Offences arrows(Tree const& tree);
// What only programs know: command lines, terminal colours.
Offences surfaces(Tree const& tree);
// Words that do not belong into a finished text, paths of somebody's machine.
Offences words(Tree const& tree);
// At most 110 columns, where a line can be broken at all.
Offences lineLength(Tree const& tree);
// A test's name says in at most 45 characters what is asserted.
Offences testNames(Tree const& tree);
// A comment is no rule across the page.
Offences banners(Tree const& tree);
// The licence line of every source.
Offences licence(Tree const& tree);
// A last newline, no trailing blanks, no carriage returns, no tabs but where make needs them.
Offences endings(Tree const& tree);
// Files that nothing builds, includes, runs or links to.
Offences orphans(Tree const& tree);
// Code in a text is part of a file that is built or run; a make target in a text exists.
Offences snippets(Tree const& tree);
// Scripts parse.
Offences scripts(Tree const& tree);

}  // namespace House
