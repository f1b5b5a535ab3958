// SPDX-License-Identifier: Apache-2.0
// The directory beside a table in the hands of those who mean it harm: links and other things in the place
// of its files, flags that are cut or overwritten, FIFOs that are removed or read by others, other users and
// their umasks. Nothing outside is touched, what is wrong is said once, and every change is told within a
// second.
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <memory>
#include <optional>

#include "pallo/guard.h"
#include "shoal/table_writer.h"
#include "watching.h"

namespace ShoalTest {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr int aLook = 1500;  // milliseconds in which a look once a second comes for certain
constexpr int atOnce = 700;  // and in which a look that was just taken does not come again
constexpr uid_t stranger = 64001;
constexpr uid_t owner = 64002;
constexpr gid_t team = 64003;

// A file and a directory of somebody's that nobody is to touch.
class Outside {
 public:
  Outside() {
    std::ofstream(dir_ / "file") << "as it was";
    fs::create_directory(dir_ / "directory");
    for (char const* const name : {"file", "directory"}) chmod((dir_ / name).c_str(), 0700);
    chmod(dir_.path().c_str(), 0755);
  }
  std::string file() const { return dir_ / "file"; }
  std::string directory() const { return dir_ / "directory"; }
  void expectUntouched() const {
    for (std::string const& path : {file(), directory()}) {
      struct stat status {};
      ASSERT_EQ(lstat(path.c_str(), &status), 0) << path;
      EXPECT_EQ(status.st_mode & 07777, 0700U) << path;
      EXPECT_EQ(status.st_uid, geteuid()) << path;
      EXPECT_EQ(status.st_gid, getegid()) << path;
    }
    std::ifstream in(file());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "as it was");
    EXPECT_TRUE(fs::is_empty(directory()));
  }

 private:
  Directory dir_;
};

bool isRoot() { return geteuid() == 0; }

void become(uid_t user, gid_t group) {
  if (setgroups(0, nullptr) != 0 || setresgid(group, group, group) != 0 || setresuid(user, user, user) != 0)
    throw std::runtime_error("cannot become another user");
}

// What a writer of `path` is refused with; nothing when it is not.
std::string refusal(std::string const& path) {
  try {
    Writer const writer(path);
  } catch (Pallo::Exception const& error) {
    return error.what();
  }
  return "";
}

TEST(Sidecar, AWriterFollowsNoPlantedLink) {
  for (std::string const& name : std::initializer_list<std::string>{"t.watch", "t.watch.new", "t.new", "t"}) {
    for (bool const directory : {true, false}) {
      Outside outside;
      Directory dir;
      fs::create_symlink(directory ? outside.directory() : outside.file(), dir / name);
      EXPECT_THAT(refusal(dir / "t"), HasSubstr(dir / "t")) << name;
      outside.expectUntouched();
    }
  }
}

TEST(Sidecar, AWriterFollowsNoLinkInItsOwnDirectory) {
  for (std::string const& name : std::initializer_list<std::string>{"slots", "0", "17", "255"}) {
    for (bool const directory : {true, false}) {
      Outside outside;
      Directory dir;
      { Writer const make(dir / "t"); }
      fs::remove(dir / ("t.watch/" + name));
      fs::create_symlink(directory ? outside.directory() : outside.file(), dir / ("t.watch/" + name));
      for (bool const complete : {true, false}) {
        if (!complete && name != "slots") fs::remove(dir / "t.watch/slots");
        std::string const said = refusal(dir / "t");
        EXPECT_TRUE((name != "slots" && complete) || said.find("t.watch/" + name) != std::string::npos)
            << said;
        outside.expectUntouched();
      }
    }
  }
}

// Where a FIFO is to be lies something else: its slot is nobody's, and the watchers take others.
TEST(Sidecar, AWatcherTakesASlotThatHasAFifo) {
  for (std::string const& what : std::initializer_list<std::string>{"link", "file", "directory", "nothing"}) {
    Outside outside;
    Directory dir;
    { Writer const make(dir / "t"); }
    fs::remove(dir / "t.watch/0");
    if (what == "link") fs::create_symlink(outside.file(), dir / "t.watch/0");
    if (what == "file") std::ofstream(dir / "t.watch/0") << "x";
    if (what == "directory") fs::create_directory(dir / "t.watch/0");
    Watched w(dir / "t");
    EXPECT_EQ(w.reader->corruptions(), 0U) << what << ": " << w.reader->lastCorruption();
    EXPECT_EQ(slotsTaken(dir / "t"), 1U) << what;
    outside.expectUntouched();
  }
}

TEST(Sidecar, AWatcherSaysOnceThatThereIsNoFifo) {
  Directory dir;
  Writer writer(dir / "t");
  for (unsigned slot = 0; slot < Shoal::Sidecar::slots; ++slot) {
    fs::remove(dir / ("t.watch/" + std::to_string(slot)));
    std::ofstream(dir / ("t.watch/" + std::to_string(slot))) << "x";
  }
  Watched w(dir / "t");
  for (U64 version = 1; version <= 2; ++version) {
    writer.entryIs(record(1, version));
    EXPECT_TRUE(w.sees(1, version, aLook));
  }
  EXPECT_EQ(w.reader->corruptions(), 1U);
  EXPECT_THAT(w.reader->lastCorruption(), HasSubstr("t.watch"));
  EXPECT_EQ(slotsTaken(dir / "t"), 0U);
}

// What another user made, or others may write, is not entered.
TEST(Sidecar, AForeignDirectoryIsRefused) {
  if (!isRoot()) GTEST_SKIP() << "only root gives files away";
  Directory dir;
  chmod(dir.path().c_str(), 0755);
  { Writer(dir / "t").entryIs(record(1, 1)); }
  ASSERT_EQ(chown((dir / "t.watch").c_str(), stranger, team), 0);
  Watched w(dir / "t");
  EXPECT_EQ(w.reader->corruptions(), 1U);
  EXPECT_THAT(w.reader->lastCorruption(), HasSubstr("belongs to user 64001, expected the table's owner"));
  EXPECT_THAT(refusal(dir / "t"), HasSubstr("belongs to user 64001"));
  w.awaitLook();
  EXPECT_EQ(w.reader->corruptions(), 1U) << "said once";
  fs::remove_all(dir / "t.watch");
  Writer writer(dir / "t");
  w.awaitLook();
  writer.entryIs(record(2, 1));
  EXPECT_TRUE(w.sees(2, 1, atOnce)) << "it is woken when there is a directory again";
}

TEST(Sidecar, ADirectoryThatOthersMayWriteIsRefused) {
  Directory dir;
  { Writer const make(dir / "t"); }
  chmod((dir / "t.watch").c_str(), 0770);
  Watched w(dir / "t");
  EXPECT_EQ(w.reader->corruptions(), 1U);
  EXPECT_THAT(w.reader->lastCorruption(), HasSubstr("may be written by others than its owner"));
  EXPECT_THAT(refusal(dir / "t"), HasSubstr("may be written by others than its owner"));
}

// A hard link to another user's file lies in a directory of a user who may make such links.
TEST(Sidecar, AnotherUsersFileInItIsRefused) {
  if (!isRoot()) GTEST_SKIP() << "only root gives files away";
  Directory dir;
  { Writer const make(dir / "t"); }
  for (std::string const& path : {dir / "t", dir / "t.watch"}) ASSERT_EQ(chown(path.c_str(), owner, team), 0);
  Watched w(dir / "t");
  EXPECT_EQ(w.reader->corruptions(), 1U);
  EXPECT_THAT(w.reader->lastCorruption(), HasSubstr("t.watch/slots: belongs to user 0"));
  EXPECT_EQ(slotsTaken(dir / "t"), 0U);
}

// Plants and removes links as fast as it can where root is about to make something.
int plantUntilEnded(std::string const& table, Outside const& outside) {
  become(stranger, team);
  for (unsigned round = 0;; ++round) {
    std::string const& aim = round % 2 ? outside.file() : outside.directory();
    for (std::string const& name : std::initializer_list<std::string>{".watch", ".watch.new", ".new"}) {
      std::string const path = table + name;
      std::string const aside = path + ".aside" + std::to_string(round % 8);
      if (rename(path.c_str(), aside.c_str()) != 0) continue;
      if (symlink(aim.c_str(), path.c_str()) != 0) continue;
      usleep(round % 50);
      unlink(path.c_str());
    }
    // A directory of the planter's own, with links for each of its files.
    std::string const own = table + ".watch";
    if (mkdir(own.c_str(), 0755) == 0) {
      for (std::string const& name : std::initializer_list<std::string>{"slots", "0", "1", "255"})
        if (symlink(aim.c_str(), (own + "/" + name).c_str()) != 0) break;
      usleep(round % 50);
      for (std::string const& name : std::initializer_list<std::string>{"slots", "0", "1", "255"})
        unlink((own + "/" + name).c_str());
      rmdir(own.c_str());
    }
  }
}

TEST(Sidecar, ARacingPlanterGainsNothing) {
  if (!isRoot()) GTEST_SKIP() << "needs another user to plant";
  Outside outside;
  Directory dir;
  ASSERT_EQ(chown(dir.path().c_str(), stranger, team), 0);
  std::string const table = dir / "t";
  pid_t const planter = startChild([&] { return plantUntilEnded(table, outside); });
  int opened = 0;
  int refused = 0;
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < end) {
    try {
      Writer writer(table);
      writer.entryIs(record(1, 1));
      Watched w(table);
      ++opened;
    } catch (Pallo::Exception const&) {
      ++refused;
    }
    unlink(table.c_str());
  }
  killAndWait(planter);
  std::printf("%d opened, %d refused\n", opened, refused);
  EXPECT_GT(refused, 0) << "the planter was in the way";
  outside.expectUntouched();
}

// A watched table and its writer, which wakes it.
class Meddled : public testing::Test {
 protected:
  void expectTold(int milliseconds) {
    writer->entryIs(record(1, ++version));
    EXPECT_TRUE(w->sees(1, version, milliseconds)) << "change " << version;
  }
  // Within two looks all is as before.
  void expectToldAtOnceAgain() {
    for (int look = 0; look < 2; ++look) w->awaitLook();
    expectTold(atOnce);
  }
  Directory dir;
  std::string const page = dir / "t.watch/slots";
  std::unique_ptr<Writer> writer = std::make_unique<Writer>(dir / "t");
  std::unique_ptr<Watched> w = std::make_unique<Watched>(dir / "t");
  U64 version = 0;
};

TEST_F(Meddled, TruncatedFlagsLoseNoWakeUp) {
  for (int round = 0; round < 2; ++round) {
    fs::resize_file(page, 0);
    expectTold(aLook);
    expectTold(aLook);
    expectToldAtOnceAgain();
  }
  EXPECT_EQ(slotsTaken(dir / "t"), 1U);
}

TEST_F(Meddled, FlagsTruncatedInTheWatchersSleepLoseNothing) {
  w->awaitLook();
  fs::resize_file(page, 0);
  expectTold(atOnce);
}

TEST_F(Meddled, ZeroedFlagsLoseNoWakeUp) {
  w->awaitLook();
  std::fstream(page, std::ios::in | std::ios::out) << std::string(Shoal::Flags::bytes, '\0');
  expectTold(atOnce);
  expectToldAtOnceAgain();
}

TEST_F(Meddled, OverwrittenFlagsLoseNoWakeUp) {
  std::fstream(page, std::ios::in | std::ios::out) << std::string(Shoal::Flags::bytes, '\xFF');
  expectTold(aLook);
  expectToldAtOnceAgain();
}

TEST_F(Meddled, RemovedFlagsLoseNoWakeUp) {
  fs::remove(page);
  w->awaitLook();
  expectTold(aLook);
  writer.reset();
  writer = std::make_unique<Writer>(dir / "t");
  expectToldAtOnceAgain();
  EXPECT_EQ(slotsTaken(dir / "t"), 1U) << "in the page that the next writer made";
}

// Nobody is there who would give the page its length back.
TEST_F(Meddled, TruncatedFlagsWakeNobodyWithoutEnd) {
  writer.reset();
  w->awaitLook();
  fs::resize_file(page, 0);
  U64 const before = w->reader->corruptions();
  int dispatches = 0;
  auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  for (; std::chrono::steady_clock::now() < end; ++dispatches)
    if (readable(w->reader->fd(), 100)) w->reader->dispatch();
  EXPECT_LE(dispatches, 40) << "some twenty-five of them found nothing";
  EXPECT_EQ(w->reader->corruptions(), before + 1) << "said once";
  EXPECT_THAT(w->reader->lastCorruption(), HasSubstr("t.watch/slots: is cut short"));
  writer = std::make_unique<Writer>(dir / "t");
  expectToldAtOnceAgain();
}

TEST_F(Meddled, ARemovedFifoIsLeftForAnother) {
  expectTold(aLook);
  w->awaitLook();
  fs::remove(dir / "t.watch/0");
  expectTold(atOnce);  // the writer has it open
  writer.reset();
  writer = std::make_unique<Writer>(dir / "t");
  expectToldAtOnceAgain();
}

TEST_F(Meddled, AReplacedFifoIsLeftForAnother) {
  writer.reset();
  fs::remove(dir / "t.watch/0");
  ASSERT_EQ(mkfifo((dir / "t.watch/0").c_str(), 0660), 0);
  writer = std::make_unique<Writer>(dir / "t");
  expectToldAtOnceAgain();
}

TEST_F(Meddled, AThiefOfWakeUpsOnlyDelaysThem) {
  settle(*w->reader, 20);
  pid_t const thief = startChild([&] {
    int const fifo = open((dir / "t.watch/0").c_str(), O_RDWR);
    for (char byte; read(fifo, &byte, 1) == 1;) continue;
    return 1;
  });
  usleep(50000);
  for (int change = 0; change < 3; ++change) expectTold(aLook);
  killAndWait(thief);
  expectToldAtOnceAgain();
}

// A FIFO that another filled wakes its watcher, who empties it; the writer does not wait.
TEST_F(Meddled, AFullFifoHoldsNobodyUp) {
  Pallo::Descriptor const fifo(open((dir / "t.watch/0").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  settle(*w->reader, 20);
  std::string const much(4096, 'x');
  for (int round = 0; round < 3; ++round) {
    while (write(fifo.get(), much.data(), much.size()) > 0) continue;
    expectTold(atOnce);
    settle(*w->reader, 20);
  }
  w->awaitLook();
  expectTold(atOnce);
}

// Another end of the FIFO hides that the writer hung up.
TEST_F(Meddled, AFifoHeldByAnotherHidesNoWritersEnd) {
  Pallo::Descriptor const fifo(open((dir / "t.watch/0").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  for (int change = 0; change < 2; ++change) {
    writer.reset();
    writer = std::make_unique<Writer>(dir / "t");
    expectTold(aLook);
  }
}

TEST(Sidecar, TheWatcherBeyondTheLastSlotLooksAndSaysSo) {
  Directory dir;
  Writer writer(dir / "t");
  Pallo::Descriptor const table(open((dir / "t").c_str(), O_RDONLY | O_CLOEXEC));
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  rlimit const enough{before.rlim_max, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &enough);
  {
    std::vector<std::unique_ptr<Shoal::Registration>> all;
    for (unsigned slot = 0; slot < Shoal::Sidecar::slots; ++slot)
      all.push_back(std::make_unique<Shoal::Registration>(dir / "t", table.get()));
    EXPECT_EQ(slotsTaken(dir / "t"), 256U);
    for (auto const& one : all) one->asleepIs(true);
    U64 const rung = writer.writerCounters().wakeUps;
    writer.entryIs(record(7, 1));
    EXPECT_EQ(writer.writerCounters().wakeUps, rung + 256);
    for (auto const& one : all) EXPECT_TRUE(readable(one->fd()));
    Watched w(dir / "t");
    for (U64 version = 1; version <= 2; ++version) {
      w.awaitLook();
      writer.entryIs(record(1, version));
      EXPECT_TRUE(w.sees(1, version, aLook));
    }
    EXPECT_EQ(w.reader->corruptions(), 1U) << "said once";
    EXPECT_THAT(w.reader->lastCorruption(), HasSubstr("each of the table's 256 watchers' slots is taken"));
    all[99].reset();
    w.awaitLook();
    writer.entryIs(record(1, 3));
    EXPECT_TRUE(w.sees(1, 3, atOnce)) << "there is a slot for it now";
    EXPECT_EQ(slotsTaken(dir / "t"), 256U);
  }
  EXPECT_EQ(slotsTaken(dir / "t"), 0U);
  setrlimit(RLIMIT_NOFILE, &before);
}

// As many files are mapped and guarded in this process as can be: watching needs one more.
TEST(Sidecar, AWatcherWithoutAGuardForItsFlagsLooks) {
  Directory dir;
  Writer writer(dir / "t");
  auto const reader = Ostra::make<Reader>(dir / "t");
  static char somewhere[1];
  {
    std::vector<std::unique_ptr<Pallo::GuardedWindow>> all;
    try {
      for (;;) {
        all.push_back(std::make_unique<Pallo::GuardedWindow>());
        all.back()->watch(somewhere, 1, false);
      }
    } catch (Pallo::Exception const&) {
    }
    settle(*reader, 10);
    EXPECT_EQ(reader->corruptions(), 1U);
    EXPECT_THAT(reader->lastCorruption(), HasSubstr("files mapped already"));
    writer.entryIs(record(1, 1));
    EXPECT_TRUE(readable(reader->fd(), aLook));
    settle(*reader, 10);
    EXPECT_EQ(reader->corruptions(), 1U) << "said once";
  }
  ASSERT_TRUE(readable(reader->fd(), aLook));
  settle(*reader, 10);
  EXPECT_EQ(slotsTaken(dir / "t"), 1U);
}

struct stat statusAt(std::string const& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status;
}

TEST(ReplacedFile, KeepsItsModeAndGroup) {
  Directory dir;
  { Writer const make(dir / "t"); }
  gid_t const group = isRoot() ? team : getegid();
  ASSERT_EQ(chown((dir / "t").c_str(), -1U, group), 0);
  ASSERT_EQ(chmod((dir / "t").c_str(), 0644), 0);
  mode_t const before = umask(077);
  { Writer const writer(dir / "t", {.replace = true}); }
  umask(before);
  EXPECT_EQ(statusAt(dir / "t").st_mode & 07777, 0644U);
  EXPECT_EQ(statusAt(dir / "t").st_gid, group);
  EXPECT_EQ(statusAt(dir / "t.watch").st_mode & 07777, 0755U) << "whoever may read may watch";
}

TEST(ReplacedFile, GivesItsGroupsRightsToNoOther) {
  if (!isRoot()) GTEST_SKIP() << "only root becomes other users";
  Directory dir;
  { Writer const make(dir / "t"); }
  for (std::string const& path : {dir.path(), dir / "t"}) ASSERT_EQ(chown(path.c_str(), owner, team), 0);
  ASSERT_EQ(chmod((dir / "t").c_str(), 0664), 0);
  fs::remove_all(dir / "t.watch");
  EXPECT_EQ(statusOf(startChild([&] {
              become(owner, owner);  // who is not in the team
              Writer const writer(dir / "t", {.replace = true});
              return 0;
            })),
            0);
  EXPECT_EQ(statusAt(dir / "t").st_gid, owner);
  EXPECT_EQ(statusAt(dir / "t").st_mode & 07777, 0604U);
}

// The owner writes under a umask; another of its group reads and is woken, a stranger is refused or reads,
// as the table's mode says.
class Umask : public testing::TestWithParam<mode_t> {};

TEST_P(Umask, LetsThoseWhoMayReadWatch) {
  if (!isRoot()) GTEST_SKIP() << "only root becomes other users";
  for (mode_t const more : {0U, 0004U}) {
    Directory dir;
    ASSERT_EQ(chown(dir.path().c_str(), owner, team), 0);
    chmod(dir.path().c_str(), 0755);
    Baton made, watches, done;
    pid_t const writing = startChild([&] {
      umask(GetParam());
      become(owner, team);
      { Writer const make(dir / "t"); }
      struct stat status {};
      stat((dir / "t").c_str(), &status);
      chmod((dir / "t").c_str(), (status.st_mode & 0777) | more);
      Writer writer(dir / "t");
      if (!made.pass() || !watches.take()) return 2;
      writer.entryIs(record(1, 1));
      return done.take() ? 0 : 3;
    });
    ASSERT_TRUE(made.take());
    auto const read = [&](uid_t user, gid_t group) {
      return statusOf(startChild([&] {
        become(user, group);
        auto const said = [&]() -> std::string {
          try {
            Reader const reader(dir / "t");
          } catch (Shoal::FileException const& error) {
            return error.what();
          }
          return "";
        }();
        if (!said.empty()) return said.find("Permission denied") != std::string::npos ? 13 : 1;
        Watched w(dir / "t");
        if (w.reader->corruptions() != 0) std::printf("%s\n", w.reader->lastCorruption().c_str());
        return w.reader->corruptions() == 0 && slotsTaken(dir / "t") == 1 ? 0 : 2;
      }));
    };
    EXPECT_EQ(read(stranger, stranger), more != 0 ? 0 : 13) << "13: permission denied";
    pid_t const reading = startChild([&] {
      become(stranger, team);
      Watched w(dir / "t");
      w.awaitLook();
      if (!watches.pass()) return 2;
      bool const told = w.sees(1, 1, atOnce);
      return told && w.reader->corruptions() == 0 && done.pass() ? 0 : 1;
    });
    EXPECT_EQ(statusOf(reading), 0);
    EXPECT_EQ(statusOf(writing), 0);
    struct stat status {};
    ASSERT_EQ(stat((dir / "t.watch").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0022, 0U) << "nobody else may write the directory";
  }
}

INSTANTIATE_TEST_SUITE_P(Sidecar, Umask, testing::Values(0022, 0027, 0007), [](auto const& mask) {
  return std::to_string(mask.param / 64) + std::to_string(mask.param / 8 % 8) +
         std::to_string(mask.param % 8);
});

// Where there is no directory yet, its watchers never see half of one.
TEST(Sidecar, AppearsComplete) {
  Directory dir;
  { Writer(dir / "t").entryIs(record(1, 1)); }
  Watched w(dir / "t");
  for (U64 round = 1; round <= 30; ++round) {
    fs::remove_all(dir / "t.watch");
    settle(*w.reader, 5);
    pid_t const child = startChild([&] {
      Writer(dir / "t").entryIs(record(2, round));
      return 0;
    });
    EXPECT_TRUE(w.sees(2, round, aLook));
    EXPECT_EQ(statusOf(child), 0);
  }
  EXPECT_EQ(w.reader->corruptions(), 0U) << w.reader->lastCorruption();
}

// A maker that was killed left half of it.
TEST(Sidecar, IsCompletedByTheNextWriter) {
  Directory dir;
  { Writer const make(dir / "t"); }
  fs::rename(dir / "t.watch", dir / "t.watch.new");
  for (std::string const& name : std::initializer_list<std::string>{"slots", "100", "255"})
    fs::remove(dir / ("t.watch.new/" + name));
  chmod((dir / "t.watch.new").c_str(), 0700);
  Writer writer(dir / "t");
  EXPECT_FALSE(fs::exists(dir / "t.watch.new"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "t.watch"), {}), 257);
  Watched w(dir / "t");
  writer.entryIs(record(1, 1));
  EXPECT_TRUE(w.sees(1, 1, atOnce));
}

TEST(Sidecar, FollowsTheTablesModeAtTheNextWriter) {
  Directory dir;
  { Writer const make(dir / "t"); }
  auto const mode = [&](std::string const& name) {
    struct stat status {};
    stat((dir / name).c_str(), &status);
    return status.st_mode & 07777;
  };
  for (auto const& [table, directory, file] :
       {std::tuple{0644U, 0755U, 0666U}, {0600U, 0700U, 0600U}, {0640U, 0750U, 0660U}}) {
    chmod((dir / "t").c_str(), table);
    { Writer const next(dir / "t"); }
    EXPECT_EQ(mode("t.watch"), directory);
    for (char const* const name : {"t.watch/slots", "t.watch/0", "t.watch/255"})
      EXPECT_EQ(mode(name), file) << name;
  }
}

Writer* dying = nullptr;
void dieWhenPublished() {
  if (dying->entry(EntryKey(9)) != Config()) kill(getpid(), SIGKILL);
}

// A writer ends in a change that it published and did not come to announce, before it met its watcher.
TEST(Sidecar, AWriterThatMetNobodyIsHeardToEnd) {
  Directory dir;
  Baton opened, watches;
  pid_t const child = startChild([&] {
    Writer writer(dir / "t");
    dying = &writer;
    Shoal::Testing::storePoint = dieWhenPublished;
    opened.pass();
    watches.take();
    writer.entryIs(record(9, 1));
    return 0;
  });
  ASSERT_TRUE(opened.take());
  Watched w(dir / "t");
  w.awaitLook();
  watches.pass();
  EXPECT_EQ(statusOf(child), 1000 + SIGKILL);
  EXPECT_TRUE(w.sees(9, 1, atOnce));
}

}  // namespace
}  // namespace ShoalTest
