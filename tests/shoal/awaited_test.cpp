// SPDX-License-Identifier: Apache-2.0
// A reader of a table that is not there, or whose place something else has: it reads as empty, what is there
// is said once, and the table is followed when it comes, without another look at the path by its user.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "shoal/format.h"
#include "watching.h"

namespace ShoalTest {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int aLook = 1500;
constexpr int atOnce = 700;

void expectEmpty(Watched& w) {
  EXPECT_FALSE(w.reader->mounted());
  EXPECT_EQ(w.reader->size(), 0U);
  EXPECT_FALSE(w.reader->first());
  EXPECT_EQ(w.reader->entry(EntryKey(1)), Config());
}

// A table comes to `path`; it and each later change are told at once.
void expectFollowed(Watched& w, std::string const& path) {
  Writer writer(path);
  writer.entryIs(record(1, 1));
  EXPECT_TRUE(w.sees(1, 1, aLook));
  EXPECT_TRUE(w.reader->mounted());
  EXPECT_THAT(w.reader->problem(), IsEmpty());
  w.awaitLook();
  for (U64 version = 2; version < 5; ++version) {
    writer.entryIs(record(1, version));
    EXPECT_TRUE(w.sees(1, version, atOnce));
  }
}

TEST(Awaited, ReadsAsEmptyUntilItComes) {
  Directory dir;
  EXPECT_THROW(Reader(dir / "t", Presence::required), Shoal::FileException);
  Watched w(dir / "t", Presence::awaited);
  expectEmpty(w);
  EXPECT_THAT(w.reader->problem(), IsEmpty());
  EXPECT_EQ(w.reader->corruptions(), 0U) << w.reader->lastCorruption();
  EXPECT_FALSE(readable(w.reader->fd(), 10));
  expectFollowed(w, dir / "t");
  EXPECT_EQ(w.reader->corruptions(), 0U) << w.reader->lastCorruption();
}

// Its creation wakes the watcher, and so do the changes that follow.
TEST(Awaited, WakesAtItsCreation) {
  Directory dir;
  Watched w(dir / "t", Presence::awaited);
  w.awaitLook();
  Writer writer(dir / "t");
  EXPECT_TRUE(w.dispatchUntil([&] { return w.reader->mounted(); }, atOnce));
  settle(*w.reader);
  EXPECT_EQ(slotsTaken(dir / "t"), 1U) << "a change will wake it";
  writer.entryIs(record(1, 1));
  EXPECT_TRUE(readable(w.reader->fd()));
}

TEST(Awaited, MayLackItsDirectoryToo) {
  Directory dir;
  Watched w(dir / "none/t", Presence::awaited);
  w.awaitLook();
  EXPECT_EQ(w.reader->corruptions(), 0U) << w.reader->lastCorruption();
  fs::create_directory(dir / "none");
  w.awaitLook();
  expectFollowed(w, dir / "none/t");
}

// What else may lie there, and what is said of it.
struct Obstacle {
  std::string name;
  std::function<void(std::string const&)> put;
  std::string said;
};

// The first bytes of a table file.
void putHalfATable(std::string const& path, std::size_t bytes) {
  {
    Writer writer(path + "-whole");
    for (U64 key = 0; key < 1000; ++key) writer.entryIs(record(key, 1));
  }
  fs::rename(path + "-whole", path);
  fs::remove_all(path + "-whole.watch");
  fs::resize_file(path, bytes);
}
void spoilHead(std::string const& path) {
  { Writer const make(path); }
  fs::remove_all(path + ".watch");
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(Shoal::Format::headAt);
  file.write("damaged!", 8);
}

Obstacle const obstacles[] = {
    {"Directory", [](std::string const& path) { fs::create_directory(path); }, "/t is not a regular file"},
    {"Fifo", [](std::string const& path) { mkfifo(path.c_str(), 0600); }, "/t is not a regular file"},
    {"Link", [](std::string const& path) { fs::create_symlink("/dev/null", path); }, "/t is a symbolic link"},
    {"Text", [](std::string const& path) { std::ofstream(path) << "dear reader, this is no table"; },
     "/t is not a table file"},
    {"EmptyFile", [](std::string const& path) { std::ofstream(path) << ""; }, "/t is empty"},
    {"PartOfAHeader", [](std::string const& path) { putHalfATable(path, 1000); }, "/t is cut short"},
    {"HalfATable", [](std::string const& path) { putHalfATable(path, 700000); }, "/t is cut short"},
    {"DamagedHead", spoilHead, "number of changes"},
};

void expectSaidOnceAndWaitedFor(Obstacle const& obstacle, bool before) {
  Directory dir;
  std::string const path = dir / "t";
  if (before) obstacle.put(path);
  Watched w(path, Presence::awaited);
  if (!before) obstacle.put(path);
  w.awaitLook();
  w.awaitLook();
  expectEmpty(w);
  EXPECT_THAT(w.reader->problem(), HasSubstr(obstacle.said));
  EXPECT_EQ(w.reader->corruptions(), 1U) << w.reader->lastCorruption();
  EXPECT_THAT(w.reader->lastCorruption(), HasSubstr(obstacle.said));
  EXPECT_FALSE(readable(w.reader->fd(), atOnce)) << "it looks once a second";
  fs::remove_all(path);
  w.awaitLook();
  EXPECT_THAT(w.reader->problem(), IsEmpty()) << "nothing is in its place any more";
  expectFollowed(w, path);
  EXPECT_EQ(w.reader->corruptions(), 1U) << w.reader->lastCorruption();
}

// Each in a process of its own and all at once: what they do most is wait for a look.
TEST(Awaited, SaysOnceWhatIsInItsPlace) {
  std::vector<std::pair<pid_t, std::string>> children;
  for (Obstacle const& obstacle : obstacles)
    for (bool const before : {true, false})
      children.emplace_back(startChild([&] {
                              expectSaidOnceAndWaitedFor(obstacle, before);
                              return testing::Test::HasFailure() ? 1 : 0;
                            }),
                            obstacle.name + std::string(before ? " before" : " after"));
  for (auto const& [child, name] : children) EXPECT_EQ(statusOf(child), 0) << name;
}

// A table that is copied to its place in pieces is followed when it is whole.
TEST(Awaited, IsFollowedWhenItsCopyIsWhole) {
  Directory dir;
  {
    Writer writer(dir / "whole");
    for (U64 key = 0; key < 1000; ++key) writer.entryIs(record(key, 1));
  }
  Watched w(dir / "t", Presence::awaited);
  std::ifstream from(dir / "whole", std::ios::binary);
  std::ofstream to(dir / "t", std::ios::binary);
  std::string piece(100000, '\0');
  while (from.read(piece.data(), static_cast<std::streamsize>(piece.size())) || from.gcount() > 0) {
    EXPECT_FALSE(w.reader->mounted());
    to.write(piece.data(), from.gcount()).flush();
    settle(*w.reader, 1);
  }
  to.close();
  EXPECT_TRUE(w.dispatchUntil([&] { return w.watcher.seen.size() == 1000; }, atOnce));
}

// A table that gave way to something else is read on; when it is back, nothing is wrong any more.
TEST(Awaited, ReadsOnUntilThereIsAnother) {
  Directory dir;
  Writer writer(dir / "t");
  writer.entryIs(record(1, 1));
  Watched w(dir / "t", Presence::awaited);
  fs::rename(dir / "t", dir / "aside");
  fs::create_directory(dir / "t");
  w.awaitLook();
  EXPECT_THAT(w.reader->problem(), HasSubstr("is not a regular file"));
  EXPECT_EQ(w.reader->entry(EntryKey(1)), record(1, 1));
  fs::remove(dir / "t");
  fs::rename(dir / "aside", dir / "t");
  w.awaitLook();
  EXPECT_THAT(w.reader->problem(), IsEmpty());
  writer.entryIs(record(2, 1));
  EXPECT_TRUE(w.sees(2, 1, atOnce));
}

// The table's directory is removed or renamed, and made anew: what happens there is heard of again.
TEST(Awaited, HearsOfADirectoryThatWasMadeAnew) {
  for (bool const removed : {true, false}) {
    Directory dir;
    fs::create_directory(dir / "inner");
    { Writer(dir / "inner/t").entryIs(record(1, 1)); }
    Watched w(dir / "inner/t", Presence::awaited);
    if (removed)
      fs::remove_all(dir / "inner");
    else
      fs::rename(dir / "inner", dir / "aside");
    w.awaitLook();
    fs::create_directory(dir / "inner");
    w.awaitLook();
    w.awaitLook();
    { Writer(dir / "inner/t").entryIs(record(1, 2)); }
    EXPECT_TRUE(w.sees(1, 2, atOnce)) << removed;
  }
}

}  // namespace
}  // namespace ShoalTest
