// SPDX-License-Identifier: Apache-2.0
#include "rules.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string_view>

namespace House {
namespace fs = std::filesystem;
namespace {

using Rooms = std::set<std::string>;

Rooms operator+(Rooms a, Rooms const& b) {
  a.insert(b.begin(), b.end());
  return a;
}

Rooms const platform = {"pallo", "ostra", "keel", "shoal", "lumelog"};
Rooms const library = platform + Rooms{"core", "engine", "fast", "diag", "sm", "vantrel"};
Rooms const product = library + Rooms{"producer", "hw"};
Rooms const everything = product + Rooms{"testing", "apps", "examples", "tests", "fuzz", "bench"};

// A room may include its own files and those of the rooms here.
std::map<std::string, Rooms> const mayInclude = {
    {"pallo", {}},
    {"ostra", {"pallo"}},
    {"keel", {"pallo", "ostra"}},
    {"shoal", {"pallo", "ostra"}},
    {"lumelog", {"pallo", "ostra"}},
    {"core", platform},
    {"engine", platform + Rooms{"core"}},
    {"fast", platform + Rooms{"core", "engine"}},
    {"diag", platform + Rooms{"core", "engine", "fast"}},
    {"sm", platform + Rooms{"core", "engine"}},
    {"vantrel", library},
    {"hw", platform + Rooms{"core", "engine"}},
    {"producer", platform + Rooms{"core"}},
    {"testing", product},
    {"apps", product + Rooms{"testing"}},
    {"examples", product},
    {"tests", everything},
    {"fuzz", everything},
    {"bench", everything},
};

bool endsWith(std::string_view text, std::initializer_list<std::string_view> ends) {
  return std::ranges::any_of(ends, [text](std::string_view end) { return text.ends_with(end); });
}
bool isCpp(File const& f) { return endsWith(f.path, {".cpp", ".h"}); }
bool isCMake(File const& f) { return endsWith(f.path, {"CMakeLists.txt", ".cmake", ".cmake.in"}); }
bool isScript(File const& f) { return f.text.starts_with("#!"); }
bool isProse(File const& f) { return f.path.ends_with(".md"); }
// Text of others (the licence), data and lists that a program makes are not ours to format.
bool isOurs(File const& f) {
  return f.path != "LICENSE" && !endsWith(f.path, {".rules", ".json", ".symbols"}) &&
         !f.path.starts_with("fuzz/corpus/");
}

std::string folderOf(std::string const& path) { return fs::path(path).parent_path().generic_string(); }
std::string normal(fs::path const& path) { return path.lexically_normal().generic_string(); }

std::string roomOf(std::string const& path) {
  fs::path const parts(path);
  auto part = parts.begin();
  std::string const first = part->string();
  if (first != "platform" && first != "vantrel") return first;
  std::string const second = (++part)->string();
  return second.find('.') == std::string::npos ? second : first;
}

std::vector<std::string> split(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The path in a quoted include, empty for any other line.
std::string quotedInclude(std::string const& line) {
  constexpr std::string_view start = "#include \"";
  if (!line.starts_with(start)) return "";
  return line.substr(start.size(), line.find('"', start.size()) - start.size());
}

// The tree's file that an include means, null when there is none.
File const* included(Tree const& tree, File const& by, std::string const& name) {
  for (std::string const& base : {std::string("platform"), std::string(), folderOf(by.path)})
    if (File const* f = tree.find(normal(fs::path(base) / name))) return f;
  return nullptr;
}

// Calls visit(line number, text) for each line.
template <class Visit>
void eachLine(File const& f, Visit visit) {
  for (std::size_t i = 0; i < f.lines.size(); ++i) visit(i + 1, f.lines[i]);
}

bool skippedFolder(std::string const& name) {
  return name == ".git" || name == ".cache" || name == "build" || name.starts_with("build-");
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Offence const& o) {
  out << o.file;
  if (o.line) out << ':' << o.line;
  return out << ": " << o.text;
}

Tree::Tree(fs::path root) : root_(std::move(root)) {
  auto walk = fs::recursive_directory_iterator(root_);
  for (auto const& entry : walk) {
    if (entry.is_directory() && skippedFolder(entry.path().filename().string()))
      walk.disable_recursion_pending();
    if (!entry.is_regular_file() || entry.path().filename() == ".git") continue;  // a worktree's
    std::ifstream in(entry.path(), std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    if (text.find('\0') != std::string::npos) continue;
    std::vector<std::string> lines = split(text);
    files_.push_back(
        {entry.path().lexically_relative(root_).generic_string(), std::move(text), std::move(lines)});
  }
  std::ranges::sort(files_, {}, &File::path);
}

File const* Tree::find(std::string const& path) const {
  auto const at = std::ranges::lower_bound(files_, path, {}, &File::path);
  return at != files_.end() && at->path == path ? &*at : nullptr;
}

Offences arrows(Tree const& tree) {
  Offences out;
  for (File const& f : tree.files()) {
    if (!isCpp(f)) continue;
    std::string const from = roomOf(f.path);
    auto const allowed = mayInclude.find(from);
    if (allowed == mayInclude.end()) {
      out.push_back({f.path, 0, "room \"" + from + "\" is not in the table of who may include whom"});
      continue;
    }
    eachLine(f, [&](std::size_t n, std::string const& line) {
      std::string const name = quotedInclude(line);
      if (name.empty()) return;
      File const* target = included(tree, f, name);
      if (!target)
        return out.push_back({f.path, n, "includes \"" + name + "\", which is no file of the tree"});
      std::string const to = roomOf(target->path);
      if (to != from && !allowed->second.contains(to))
        out.push_back({f.path, n, from + " may not include " + to + " (" + target->path + ")"});
    });
  }
  return out;
}

Offences surfaces(Tree const& tree) {
  static constexpr std::string_view marks[] = {"<CLI/", "<getopt.h>", "\\033[", "\\x1b[", "\\e["};
  Offences out;
  for (File const& f : tree.files()) {
    if (!isCpp(f) || !(product + Rooms{"testing"}).contains(roomOf(f.path))) continue;
    eachLine(f, [&](std::size_t n, std::string const& line) {
      for (std::string_view mark : marks)
        if (line.find(mark) != std::string::npos)
          out.push_back(
              {f.path, n, std::string(mark) + ": command lines and colours belong to the programs"});
    });
  }
  return out;
}

namespace {

struct Word {
  std::string text;
  bool anyCase = false;
  bool beforeNumber = false;  // only an offence when a number follows, '#' or not
};

// Pieced together, so that this list keeps its own rule. A text explains the thing itself: it sends nobody to
// a tracker, to another document or to whoever wrote it, and leaves nothing for later.
std::vector<Word> const forbidden = {{"Part ", false, true},
                                     {"the "
                                      "Parts"},
                                     {"specifi"
                                      "cation",
                                      true},
                                     {"shared/"
                                      "spec"},
                                     {"spec."
                                      "md"},
                                     {"issue ", true, true},
                                     {"issue", true, true},
                                     {"sub"
                                      "agent",
                                      true},
                                     {"TO"
                                      "DO"},
                                     {"FIX"
                                      "ME"},
                                     {"XX"
                                      "X"},
                                     {"/wo"
                                      "rk/"},
                                     {"/ho"
                                      "me/"},
                                     {"/ro"
                                      "ot/"},
                                     {"/Us"
                                      "ers/"}};

bool wordChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

std::string lowered(std::string s) {
  std::ranges::transform(s, s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

bool numberAt(std::string const& line, std::size_t at) {
  if (at < line.size() && line[at] == '#') ++at;
  return at < line.size() && std::isdigit(static_cast<unsigned char>(line[at]));
}

// A word stands alone on its left, a path begins there: "$DIR/x/" is none.
bool startsHere(std::string const& line, std::size_t at, Word const& word) {
  if (at == 0) return true;
  char const before = line[at - 1];
  return word.text[0] == '/'
             ? !wordChar(before) && std::string_view("./}~-").find(before) == std::string::npos
             : !wordChar(before);
}

bool endsHere(std::string const& line, std::size_t at, Word const& word) {
  if (word.beforeNumber) return numberAt(line, at);
  bool const upperCaseMark = std::ranges::all_of(word.text, [](unsigned char c) { return std::isupper(c); });
  return !upperCaseMark || at >= line.size() || !wordChar(line[at]);
}

bool contains(std::string const& line, Word const& word) {
  std::string const text = word.anyCase ? lowered(line) : line;
  for (std::size_t at = text.find(word.text); at != std::string::npos; at = text.find(word.text, at + 1))
    if (startsHere(text, at, word) && endsHere(text, at + word.text.size(), word)) return true;
  return false;
}

std::size_t columns(std::string const& line) {  // UTF-8 continuation bytes take none
  return static_cast<std::size_t>(std::ranges::count_if(line, [](char c) { return (c & 0xC0) != 0x80; }));
}

}  // namespace

Offences words(Tree const& tree) {
  Offences out;
  for (File const& f : tree.files()) {
    if (f.path == "LICENSE") continue;
    for (Word const& word : forbidden)
      if (contains(f.path, word)) out.push_back({f.path, 0, "the file's name holds \"" + word.text + "\""});
    eachLine(f, [&](std::size_t n, std::string const& line) {
      for (Word const& word : forbidden)
        if (contains(line, word)) out.push_back({f.path, n, "holds \"" + word.text + "\""});
    });
  }
  return out;
}

Offences lineLength(Tree const& tree) {
  constexpr std::size_t limit = 110;
  Offences out;
  for (File const& f : tree.files()) {
    if (!isOurs(f)) continue;
    bool fenced = false;  // what is shown in a text, fenced or indented, is as wide as it is
    eachLine(f, [&](std::size_t n, std::string const& line) {
      if (isProse(f) && line.starts_with("```")) fenced = !fenced;
      bool const unbreakable = isProse(f) && (fenced || line.starts_with("    ") || line.starts_with("|") ||
                                              line.find("://") != std::string::npos);
      if (columns(line) > limit && !unbreakable)
        out.push_back({f.path, n, std::to_string(columns(line)) + " columns, at most 110 are wanted"});
    });
  }
  return out;
}

namespace {

// The name of the test that begins on the line, empty for any other line. The layout may break after the
// parenthesis or the comma.
std::string testName(File const& f, std::size_t line) {
  constexpr std::string_view macros[] = {"TEST(", "TEST_F(", "TEST_P(", "TYPED_TEST("};
  std::string text = f.lines[line - 1];
  if (std::ranges::none_of(macros, [&](std::string_view macro) { return text.starts_with(macro); }))
    return "";
  for (std::size_t next = line; next < f.lines.size() && text.find(')') == std::string::npos; ++next)
    text += f.lines[next];
  std::size_t const from = text.find_first_not_of(' ', text.find(',') + 1);
  return text.substr(from, text.find(')') - from);
}

}  // namespace

Offences testNames(Tree const& tree) {
  constexpr std::size_t limit = 45;
  Offences out;
  for (File const& f : tree.files()) {
    if (!isCpp(f)) continue;
    eachLine(f, [&](std::size_t n, std::string const&) {
      std::string const name = testName(f, n);
      if (name.size() > limit)
        out.push_back(
            {f.path, n, name + " has " + std::to_string(name.size()) + " characters, at most 45 are wanted"});
    });
  }
  return out;
}

Offences banners(Tree const& tree) {
  Offences out;
  for (File const& f : tree.files()) {
    if (!isCpp(f)) continue;
    eachLine(f, [&](std::size_t n, std::string const& line) {
      std::size_t const at = line.find_first_not_of(' ');
      if (at != std::string::npos &&
          (line.substr(at).starts_with("// ---") || line.substr(at).starts_with("// ===")))
        out.push_back({f.path, n, "a banner: a file that needs headings wants to be several"});
    });
  }
  return out;
}

Offences licence(Tree const& tree) {
  constexpr std::string_view mark = "SPDX-License-Identifier: Apache-2.0";
  Offences out;
  for (File const& f : tree.files()) {
    bool const source = isCpp(f) || isCMake(f) || isScript(f) || f.path == "Makefile";
    if (!source) continue;
    std::size_t const line = isScript(f) ? 1 : 0;
    std::string const wanted = (isCpp(f) ? "// " : "# ") + std::string(mark);
    if (f.lines.size() <= line || f.lines[line] != wanted)
      out.push_back({f.path, line + 1, "expected \"" + wanted + "\""});
  }
  return out;
}

Offences endings(Tree const& tree) {
  Offences out;
  for (File const& f : tree.files()) {
    if (!isOurs(f) || f.text.empty()) continue;
    if (f.text.back() != '\n') out.push_back({f.path, f.lines.size(), "no newline at the end"});
    if (f.text.ends_with("\n\n")) out.push_back({f.path, f.lines.size(), "empty lines at the end"});
    bool const tabs = f.path == "Makefile";
    eachLine(f, [&](std::size_t n, std::string const& line) {
      if (!line.empty() && (line.back() == ' ' || line.back() == '\t'))
        out.push_back({f.path, n, "trailing blanks"});
      if (!line.empty() && line.back() == '\r') out.push_back({f.path, n, "a carriage return"});
      if (!tabs && line.find('\t') != std::string::npos) out.push_back({f.path, n, "a tab"});
    });
  }
  return out;
}

namespace {

// Every path that a CMake list names, taken from its own folder and from the root.
std::set<std::string> builtFiles(Tree const& tree) {
  std::set<std::string> built;
  for (File const& f : tree.files()) {
    if (!isCMake(f)) continue;
    std::string text = f.text;
    std::ranges::replace_if(
        text, [](char c) { return c == '(' || c == ')' || c == '"'; }, ' ');
    std::istringstream tokens(text);
    for (std::string token; tokens >> token;) {
      if (std::size_t const variable = token.rfind('}'); variable != std::string::npos)
        token = token.substr(std::min(variable + 2, token.size()));
      if (token.empty()) continue;
      built.insert(normal(fs::path(folderOf(f.path)) / token));
      built.insert(normal(token));
    }
  }
  return built;
}

std::set<std::string> includedFiles(Tree const& tree) {
  std::set<std::string> files;
  for (File const& f : tree.files()) {
    if (!isCpp(f)) continue;
    for (std::string const& line : f.lines)
      if (std::string const name = quotedInclude(line); !name.empty())
        if (File const* target = included(tree, f, name)) files.insert(target->path);
  }
  return files;
}

// Whether any other file's text names it: by its path from the root or from that file, or, when it is not one
// of the many README.md, by its bare name.
bool mentioned(Tree const& tree, File const& wanted) {
  fs::path const path(wanted.path);
  std::string const bare = path.filename() == "README.md" ? wanted.path : path.filename().string();
  return std::ranges::any_of(tree.files(), [&](File const& f) {
    if (&f == &wanted) return false;
    std::string const from = folderOf(f.path);
    std::string const relative = from.empty() ? wanted.path : path.lexically_relative(from).generic_string();
    return f.text.find(bare) != std::string::npos || f.text.find(relative) != std::string::npos;
  });
}

}  // namespace

Offences orphans(Tree const& tree) {
  std::set<std::string> const built = builtFiles(tree);
  std::set<std::string> const used = includedFiles(tree);
  Offences out;
  for (File const& f : tree.files()) {
    if (f.path.ends_with(".cpp") && !built.contains(f.path))
      out.push_back({f.path, 0, "no CMakeLists.txt builds it"});
    if (f.path.ends_with(".h") && !used.contains(f.path)) out.push_back({f.path, 0, "no file includes it"});
    if (f.path == "README.md") continue;
    bool const named = isProse(f) || f.path.starts_with("scripts/") || f.path.starts_with("examples/");
    if (named && !isCpp(f) && !isCMake(f) && !mentioned(tree, f))
      out.push_back({f.path, 0, "no file mentions it"});
  }
  return out;
}

namespace {

struct Snippet {
  std::size_t line;      // of the opening fence
  std::string language;  // of the fence
  std::string from;      // the file that the comment above names, empty for none
  std::vector<std::string> lines;
};

// "<!-- from FILE -->" on the line above the fence says which file the code is a part of.
std::string markedFile(std::string const& line) {
  constexpr std::string_view start = "<!-- from ", end = " -->";
  if (!line.starts_with(start) || !line.ends_with(end)) return "";
  return line.substr(start.size(), line.size() - start.size() - end.size());
}

std::vector<Snippet> snippetsOf(File const& f) {
  std::vector<Snippet> found;
  bool open = false;
  eachLine(f, [&](std::size_t n, std::string const& line) {
    bool const fence = line.starts_with("```");
    if (fence && !open) found.push_back({n, line.substr(3), n > 1 ? markedFile(f.lines[n - 2]) : "", {}});
    if (!fence && open) found.back().lines.push_back(line);
    if (fence) open = !open;
  });
  return found;
}

bool isPartOf(std::vector<std::string> const& part, std::vector<std::string> const& whole) {
  return !part.empty() && !std::ranges::search(whole, part).empty();
}

bool isMakeTarget(Tree const& tree, std::string const& name) {
  File const* makefile = tree.find("Makefile");
  return makefile && std::ranges::any_of(makefile->lines, [&](std::string const& line) {
           return line.starts_with(name + ":");
         });
}

// Lines that need no file behind them: fetching the source, entering it, and the make targets that exist.
bool isEverydayLine(Tree const& tree, std::string const& line) {
  std::istringstream in(line);
  std::string command, argument;
  in >> command >> argument;
  if (command == "make") return argument.empty() || isMakeTarget(tree, argument);
  return command.empty() || command.starts_with("#") || command == "cd" ||
         (command == "git" && argument == "clone") || (command == "sudo" && argument == "apt-get");
}

void checkSnippet(Tree const& tree, File const& f, Snippet const& s, Offences& out) {
  if (!s.from.empty()) {
    File const* source = tree.find(s.from);
    if (!source)
      out.push_back({f.path, s.line, "is said to be from " + s.from + ", which is no file of the tree"});
    else if (!isPartOf(s.lines, source->lines))
      out.push_back({f.path, s.line, "differs from " + s.from});
    return;
  }
  if (s.language == "cpp")
    out.push_back({f.path, s.line, "code that no \"<!-- from FILE -->\" above it vouches for"});
  if (s.language != "sh" && s.language != "bash") return;
  for (std::size_t i = 0; i < s.lines.size(); ++i)
    if (!isEverydayLine(tree, s.lines[i]))
      out.push_back({f.path, s.line + 1 + i,
                     "a command that no \"<!-- from FILE -->\" vouches for, or no make target"});
}

}  // namespace

Offences snippets(Tree const& tree) {
  Offences out;
  for (File const& f : tree.files())
    if (isProse(f))
      for (Snippet const& s : snippetsOf(f)) checkSnippet(tree, f, s, out);
  return out;
}

Offences scripts(Tree const& tree) {
  Offences out;
  for (File const& f : tree.files()) {
    if (!isScript(f)) continue;
    if ((fs::status(tree.root() / f.path).permissions() & fs::perms::owner_exec) == fs::perms::none)
      out.push_back({f.path, 0, "a script that cannot be executed"});
    std::string const command = "bash -n '" + (tree.root() / f.path).string() + "' 2>&1";
    std::string said;
    std::FILE* pipe = popen(command.c_str(), "r");
    for (char buffer[256]; pipe && std::fgets(buffer, sizeof buffer, pipe);) said += buffer;
    if (!pipe || pclose(pipe) != 0) out.push_back({f.path, 0, "does not parse: " + said});
  }
  return out;
}

}  // namespace House
