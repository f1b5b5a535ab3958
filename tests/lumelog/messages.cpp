// SPDX-License-Identifier: Apache-2.0
// Writes docs/messages.md from the sources of the library, or with --check says whether it is up to date.
//
//   messages [--check] SOURCE_DIR
//
// A message is a call of one of the macros below. Its text is the macro's literals one behind the other, with
// each value as it stands in the source between braces; where it is written is the function around it. When
// it is written, and the text where it is made elsewhere, no source says: docs/messages.notes does, and a
// message without its note, or a note without its message, is an error.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

// How a call is written: which of its arguments is the level, and where the text starts.
struct Form {
  std::string_view call;
  enum class Kind { Ring, Facility, Entry, Assertion, Exception, Printed, Said } kind;
  int level;    // argument number, -1: none
  int text;     // argument number
  int channel;  // argument number of the handle or the model file, -1: `fixed` says it
  std::string_view fixed;
};

constexpr Form forms[] = {
    {"VANTREL_RECORD(", Form::Kind::Ring, 0, 2, -1, ""},
    {"VANTREL_TRACE(", Form::Kind::Facility, 1, 2, 0, ""},
    {"VANTREL_TRACE_ENTRY(", Form::Kind::Entry, 1, 3, 0, ""},
    {"SM_TRACE_ENTRY(", Form::Kind::Entry, -1, 0, -1, "VantrelSm"},
    {"line(", Form::Kind::Facility, 0, 1, -1, "VantrelFastImpl"},  // the dump's lines
    {"PALLO_ASSERT(", Form::Kind::Assertion, -1, 1, 0, ""},
    {"ENGINE_ASSERT(", Form::Kind::Assertion, -1, 0, -1, "VantrelImpl"},
    {"FAST_ASSERT(", Form::Kind::Assertion, -1, 0, -1, "FastVantrelImpl"},
    {"FAST_ASSERT_AS(", Form::Kind::Assertion, -1, 1, -1, "FastVantrelImpl"},
    {"FAST_ASSERT_AT(", Form::Kind::Assertion, -1, 1, -1, "FastVantrelImpl"},
    {"throw Ostra::InternalException(", Form::Kind::Exception, -1, 0, -1, "Ostra::InternalException"},
    {"throw Ostra::RangeException(", Form::Kind::Exception, -1, 0, -1, "Ostra::RangeException"},
    {"throw Pallo::InvalidSizeException(", Form::Kind::Exception, -1, 0, -1, "Pallo::InvalidSizeException"},
    {"throw Pallo::NoPermissionException(", Form::Kind::Exception, -1, 0, -1, "Pallo::NoPermissionException"},
    {"throw Pallo::UnimplementedException(", Form::Kind::Exception, -1, 0, -1,
     "Pallo::UnimplementedException"},
    {"fmt::print(", Form::Kind::Printed, -1, 1, -1, "stderr"},
    {"out_.say(", Form::Kind::Said, -1, 0, -1, "stdout"},
    {"err_.say(", Form::Kind::Said, -1, 0, -1, "stderr"},
    {"err.say(", Form::Kind::Said, -1, 0, -1, "stderr"},
    {"err_.provoked(", Form::Kind::Said, -1, 0, -1, "stderr, not too often"},
    {"put(fmt::format(", Form::Kind::Said, -1, 0, -1, "stdout, stderr"},
    {"sayAtOnce(", Form::Kind::Said, -1, 0, -1, "stderr"},
};

// What the sources do not say of a message.
struct Note {
  std::string when;
  std::string shown;  // instead of the text, where the text is made elsewhere
  bool used = false;
};
// By "FILE: TEXT", "FUNCTION: TEXT" or the text alone, each value as {}: code that is rewritten keeps its
// notes.
using Notes = std::map<std::string, Note>;

struct Message {
  std::string text, channel, level, when, function, file;
};

std::string read(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool isWord(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

std::string trimmed(std::string_view text) {
  std::string result;
  for (char c : text) {
    bool const blank = std::isspace(static_cast<unsigned char>(c));
    if (!blank)
      result += c;
    else if (!result.empty() && result.back() != ' ')
      result += ' ';
  }
  while (result.ends_with(' ')) result.pop_back();
  return result;
}

// Blanks out comments, so that a macro named in one is no call; the length stays.
std::string withoutComments(std::string text) {
  bool quoted = false;
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      quoted = !quoted;
    } else if (!quoted && text[i] == '/' && text[i + 1] == '/') {
      while (i < text.size() && text[i] != '\n') text[i++] = ' ';
    }
  }
  return text;
}

// The arguments of a call whose opening parenthesis is at `open`.
std::vector<std::string> arguments(std::string const& text, std::size_t open) {
  std::vector<std::string> result(1);
  int depth = 0;
  bool quoted = false;
  for (std::size_t i = open; i < text.size(); ++i) {
    char const c = text[i];
    bool const escaped = quoted && c == '\\';
    if (c == '"') quoted = !quoted;
    if (!quoted && (c == '(' || c == '{' || c == '[') && depth++ == 0) continue;
    if (!quoted && (c == ')' || c == '}' || c == ']') && --depth == 0) break;
    if (!quoted && c == ',' && depth == 1) {
      result.emplace_back();
      continue;
    }
    result.back() += c;
    if (escaped) result.back() += text[++i];
  }
  for (std::string& argument : result) argument = trimmed(argument);
  return result;
}

std::string unquoted(std::string const& literal) {
  std::string result;
  for (std::size_t i = 1; i + 1 < literal.size(); ++i) {
    if (literal[i] == '\\') ++i;
    result += literal[i];
  }
  return result;
}

bool isLiteral(std::string const& argument) { return argument.starts_with('"') && argument.ends_with('"'); }

std::string replaced(std::string text, std::string_view what, std::string_view with) {
  if (std::size_t const at = text.find(what); at != std::string::npos) text.replace(at, what.size(), with);
  return text;
}

// A format string with each argument where it goes.
std::string printed(std::vector<std::string> const& parts, std::size_t format) {
  std::string text = parts[format];
  if (text.ends_with("\\n\"")) text.erase(text.size() - 3, 2);
  text = unquoted(replaced(text, "\" \"", ""));  // a text in several pieces
  for (std::size_t i = format + 1; i < parts.size(); ++i) text = replaced(text, "{}", "{" + parts[i] + "}");
  return text;
}

std::string textOf(Form const& form, std::vector<std::string> const& parts) {
  if (form.kind == Form::Kind::Printed || form.kind == Form::Kind::Said)
    return printed(parts, static_cast<std::size_t>(form.text));
  if (form.kind == Form::Kind::Assertion) {
    std::string text;
    for (std::size_t i = static_cast<std::size_t>(form.text); i < parts.size(); ++i)
      text += (text.empty() ? "" : ", ") + parts[i];
    return isLiteral(text) && form.call.ends_with("_AS(") ? unquoted(text) : text;
  }
  if (form.kind == Form::Kind::Entry)
    return "{signature} {model file}:{line} " + unquoted(parts[static_cast<std::size_t>(form.text)]);
  std::string text;
  for (std::size_t i = static_cast<std::size_t>(form.text); i < parts.size(); ++i)
    text += isLiteral(parts[i]) ? unquoted(parts[i]) : "{" + parts[i] + "}";
  return replaced(text, "{__PRETTY_FUNCTION__}", "{signature}");
}

std::string channelOf(Form const& form, std::vector<std::string> const& parts) {
  std::string name =
      form.channel < 0 ? std::string(form.fixed) : parts[static_cast<std::size_t>(form.channel)];
  if (form.kind == Form::Kind::Ring) return "trace file";
  if (form.kind == Form::Kind::Assertion) return "assertion, " + (isLiteral(name) ? unquoted(name) : name);
  if (form.kind == Form::Kind::Exception) return "exception, " + name;
  if (form.kind == Form::Kind::Printed || form.kind == Form::Kind::Said) return name;
  if (name == "vantrelSmTrace()") name = "VantrelSm";
  if (name == "vantrelImplTrace()") name = "VantrelImpl";
  if (name == "vantrelFastImplTrace()") name = "VantrelFastImpl";
  return "facility " + name;
}

std::string levelOf(Form const& form, std::vector<std::string> const& parts) {
  if (form.level >= 0) return parts[static_cast<std::size_t>(form.level)];
  return form.kind == Form::Kind::Entry ? "8" : "";
}

// The function that a line opens; empty when it opens none.
std::string functionOpened(std::string_view line) {
  std::size_t const indent = line.find_first_not_of(' ');
  std::size_t const open = line.find('(');
  if (indent > 2 || open == std::string_view::npos || line.find(';') != std::string_view::npos) return "";
  std::size_t name = open;
  while (name > 0 && (isWord(line[name - 1]) || line[name - 1] == ':' || line[name - 1] == '~')) --name;
  std::string const found(line.substr(name, open - name));
  bool const hasType = name > indent, isConstructor = found.find("::") != std::string::npos;
  return hasType || isConstructor ? found : "";
}

// The name of the function whose body holds `at`: the nearest line, less indented, that opens one; or the
// line itself.
std::string functionAround(std::string const& text, std::size_t at) {
  std::size_t start = text.rfind('\n', at) + 1;
  std::string_view const ownLine(text.data() + start, at - start);
  if (std::string found = functionOpened(ownLine); !found.empty()) return found;
  while (start > 0) {
    std::size_t const end = start - 1;
    start = end ? text.rfind('\n', end - 1) + 1 : 0;
    std::string_view const line(text.data() + start, end - start);
    if (line.find_first_not_of(' ') >= ownLine.size()) continue;
    if (std::string found = functionOpened(line); !found.empty()) return found;
  }
  return "";
}

bool isDefinition(std::string const& text, std::size_t at) {
  std::size_t const start = text.rfind('\n', at) + 1;
  std::string_view const before(text.data() + start, at - start);
  return before.find("#define") != std::string_view::npos || before.ends_with("void ");
}

void collect(fs::path const& path, std::string const& name, std::vector<Message>& messages) {
  std::string const text = withoutComments(read(path));
  std::vector<std::pair<std::size_t, Message>> found;
  for (Form const& form : forms) {
    if (form.call == "line(" && text.find("void line(int level") == std::string::npos) continue;
    for (std::size_t at = text.find(form.call); at != std::string::npos; at = text.find(form.call, at + 1)) {
      if ((at > 0 && isWord(text[at - 1])) || isDefinition(text, at)) continue;
      std::vector<std::string> const parts = arguments(text, at + form.call.size() - 1);
      // A wrapper that passes its own arguments on is not a message; its calls are.
      if (parts.back().ends_with("...") || parts.back() == "operation") continue;
      if (form.kind == Form::Kind::Printed && parts.front() != form.fixed) continue;
      std::string const function = functionAround(text, at);
      std::string const said =
          replaced(textOf(form, parts), "{__func__}", function.substr(function.rfind(':') + 1));
      found.push_back({at, {said, channelOf(form, parts), levelOf(form, parts), "", function, name}});
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](auto const& a, auto const& b) { return a.first < b.first; });
  for (auto& [at, message] : found) messages.push_back(std::move(message));
}

std::string code(std::string const& text) {
  std::string result;
  for (char c : text) result += c == '|' ? std::string("\\|") : std::string(1, c);
  return "`" + result + "`";
}

std::string withoutNames(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    result += text[i];
    if (text[i] != '{') continue;
    for (int depth = 1; i + 1 < text.size() && depth > 0; ++i) {
      if (text[i + 1] == '{') ++depth;
      if (text[i + 1] == '}' && --depth == 0) result += '}';
    }
  }
  return result;
}

void append(std::string& text, std::string const& words) { text += (text.empty() ? "" : " ") + words; }

// A note is a line of text, then indented lines: "= SHOWN" where something else is to be shown, and when the
// message is written.
Notes readNotes(fs::path const& path) {
  Notes notes;
  Note* note = nullptr;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.starts_with('#')) continue;
    std::string const words = trimmed(line);
    if (!line.starts_with(' ')) {
      std::string const key = withoutNames(words);
      if (notes.contains(key)) throw std::runtime_error("two notes for the message \"" + words + '"');
      note = &notes[key];
    } else if (!note) {
      throw std::runtime_error(path.string() + " begins with an indented line");
    } else if (words.starts_with("= ")) {
      append(note->shown, words.substr(2));
    } else {
      append(note->when, words);
    }
  }
  return notes;
}

void annotate(std::vector<Message>& messages, Notes& notes) {
  for (Message& m : messages) {
    std::string const key = withoutNames(m.text);
    auto at = notes.find(fs::path(m.file).filename().string() + ": " + key);
    if (at == notes.end()) at = notes.find(m.function + ": " + key);
    if (at == notes.end()) at = notes.find(key);
    if (at == notes.end() || at->second.when.empty())
      throw std::runtime_error("docs/messages.notes does not say when \"" + m.text + "\" is written (" +
                               m.function + " in " + m.file + ")");
    at->second.used = true;
    m.when = at->second.when;
    if (!at->second.shown.empty()) m.text = at->second.shown;
  }
}

void checkAllUsed(Notes const& notes) {
  for (auto const& [key, note] : notes)
    if (!note.used) throw std::runtime_error("docs/messages.notes has a note for no message: " + key);
}

std::vector<Message> messagesOf(fs::path const& root, std::vector<fs::path> files) {
  std::sort(files.begin(), files.end());
  std::vector<Message> messages;
  for (fs::path const& file : files)
    if (file.filename() != "trace.h") collect(file, fs::relative(file, root).generic_string(), messages);
  return messages;
}

std::vector<fs::path> sourcesIn(fs::path const& folder) {
  std::vector<fs::path> files;
  for (auto const& entry : fs::directory_iterator(folder))
    if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") files.push_back(entry.path());
  return files;
}

void writeTable(std::ostream& out, std::string const& title, std::vector<Message> const& messages) {
  if (messages.empty()) return;
  out << "\n## " << title
      << "\n\n| Text | Channel | Level | When it is written | Where |\n|---|---|---|---|---|\n";
  for (Message const& m : messages)
    out << "| " << code(m.text) << " | " << m.channel << " | " << m.level << " | " << m.when << " | "
        << m.function << ", " << fs::path(m.file).filename().string() << " |\n";
}

std::string page(fs::path const& root) {
  std::ostringstream out;
  Notes notes = readNotes(root / "docs/messages.notes");
  out << "# Messages\n\n"
         "Every message of the library, what a waiting command says and what the agent says, generated from "
         "the\n"
         "sources and `docs/messages.notes` by `ninja -C build messages`; a test fails when this page is not "
         "what they\n"
         "say. Values stand between braces as the source names them. One fatal condition can be reached from "
         "several\n"
         "places: each is a line.\n\n"
         "- *trace file*: a record of the ring-buffer file, in the ring of its level; `vantrel trace` shows "
         "it with the\n"
         "  engine's identifier before the text. Levels below 9 are for what is rare and must outlive the "
         "flood of\n"
         "  level 9.\n"
         "- *facility*: a line of the facility's handle when its level is at least that of the message "
         "(`TRACE`).\n"
         "- *assertion*: `assertion failed: TEXT, model file FILE, line N, function SIGNATURE` on stderr,\n"
         "  the same as the last record of the trace file at level 0, then the process aborts.\n"
         "- *exception*: the text of what is thrown. Of them the library catches "
         "`Ostra::InternalException`, and of a\n"
         "  table `Pallo::CorruptionDetectedException`.\n"
         "- *stderr*: what `vantrel` says while it waits and goes on.\n"
         "- *stdout*, *stderr* of `vantreld`: each line begins with `vantreld: `. Lines that others can "
         "bring "
         "about as\n"
         "  often as they like are said *not too often*: ten, then one a second; the rest is counted.\n";
  auto const add = [&](std::string const& title, std::vector<fs::path> const& files) {
    std::vector<Message> messages = messagesOf(root, files);
    annotate(messages, notes);
    writeTable(out, title, messages);
  };
  for (std::string const room : {"core", "engine", "fast", "diag", "sm"})
    add("vantrel/" + room, sourcesIn(root / "vantrel" / room));
  add("platform", {root / "platform/ostra/pod_array.cpp", root / "platform/ostra/pod_array.h",
                   root / "platform/shoal/reader_table.h"});
  add("apps/vantrel", {root / "apps/vantrel/awaiting.cpp", root / "apps/vantrel/verb_watch.cpp"});
  add("apps/vantreld", sourcesIn(root / "apps/vantreld"));
  checkAllUsed(notes);
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> const args(argv + 1, argv + argc);
  bool const check = !args.empty() && args.front() == "--check";
  if (args.size() != (check ? 2U : 1U)) {
    std::cerr << "usage: messages [--check] SOURCE_DIR\n";
    return 2;
  }
  try {
    fs::path const root = args.back(), file = root / "docs/messages.md";
    std::string const wanted = page(root);
    if (!check) {
      std::ofstream(file, std::ios::binary) << wanted;
      return 0;
    }
    if (read(file) == wanted) return 0;
    std::cerr << "docs/messages.md is not what the sources say; run: ninja -C build messages\n";
  } catch (std::exception const& e) {
    std::cerr << "messages: " << e.what() << '\n';
  }
  return 1;
}
