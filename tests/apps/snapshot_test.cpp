// SPDX-License-Identifier: Apache-2.0
// A large snapshot is sent to another process while keys arrive: the cost of one dispatch, and that keys do
// not wait for its reader.
#include <gmock/gmock.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <ctime>

#include "ostra/publish.h"
#include "shoal/local_table.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "tests/ostra/raw_peer.h"
#include "tests/support/agent.h"
#include "vantrel/vantrel.h"

using namespace TestSupport;
using namespace Vantrel;
using OstraTest::Picture;
using OstraTest::RawPeer;

namespace {

constexpr U32 entries = 10000;
constexpr U64 highKeys = U64{1} << 63;  // keys of twenty digits, so that a snapshot is far more than a buffer
constexpr char const* asking =
    "{\"verb\":\"mount\",\"entity\":\"debugStatus\"}\n"
    "{\"verb\":\"write\",\"entity\":\"debugConfig\",\"attribute\":\"version\",\"value\":1}\n";

EntryConfig entry(U32 n, U64 version) {
  EntryConfig e(EntryKey(highKeys + n), OpId(version << 16), n, 0, n);
  e.tableIndexIs(TableKey(0), n);
  return e;
}

double threadSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// An engine, its front end and the socket, turned by hand, in a process with the peer.
class Turned : public testing::Test {
 protected:
  Turned() {
    publisher.exportObject("debugConfig", debugConfig);
    publisher.exportObject("debugStatus", debugStatus);
    for (U32 n = 0; n < entries; ++n) table->entryIs(entry(n, 1));
  }

  int const quiet = setenv("LUMELOG_DISABLE", "1", 1);  // before there is an engine
  TempDir dir;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> table = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<DebugConfig> debugConfig = debugConfigFactory("debugConfig");
  Ostra::Ptr<DebugStatus> debugStatus = debugStatusFactory("debugStatus");
  Ostra::Ptr<FastVantrelImpl> engine = Ostra::make<FastVantrelImpl>(
      "engine", table, debugConfig, debugStatus, Ostra::make<VantrelHelper>("none", nullptr), 1U);
  Ostra::Ptr<VantrelSm> frontEnd =
      vantrelSmFactory(table, nullptr, debugConfig, debugStatus, engine, nullptr, nullptr);
  Ostra::Publisher publisher{dir / "mgmt.sock"};
};

}  // namespace

// A slice has at most 32 KB and the line that went beyond; there is one peer, so a dispatch has one slice.
TEST_F(Turned, DispatchSendsOneSlice) {
  constexpr int mostBytes = 48 * 1024;
  constexpr double mostSeconds = 0.1;  // hundreds of times what it takes
  RawPeer peer(dir / "mgmt.sock");
  ASSERT_TRUE(peer.connected());
  peer.write(asking);
  Picture picture;
  int longest = 0, slices = 0;
  double slowest = 0;
  for (U32 turn = 1; turn < 100000 && picture.scalars["version"] != 1; ++turn) {
    U32 const before = debugStatus->version();
    double const begin = threadSeconds();
    publisher.dispatch();
    if (debugStatus->version() == before) slowest = std::max(slowest, threadSeconds() - begin);
    int sent = 0;
    ASSERT_EQ(0, ::ioctl(peer.fd(), FIONREAD, &sent));
    longest = std::max(longest, sent);
    slices += sent > 0;
    peer.read();
    for (std::string const& line : peer.take()) picture.take(line);
    if (debugStatus->version() == 1) table->entryIs(entry(turn % entries, 2));  // keys arrive meanwhile
  }
  EXPECT_EQ(1, picture.scalars["version"]);
  EXPECT_EQ(entries, picture.collections["status"].size());
  EXPECT_EQ(entries, picture.collections["statusOpId"].size());
  EXPECT_LE(longest, mostBytes);
  EXPECT_GT(slices, 15) << "it was large";
  EXPECT_LT(slowest, mostSeconds);
}

namespace {

// An agent as a process, and its tables.
class RealAgent : public testing::Test {
 protected:
  RealAgent() {
    for (U32 n = 0; n < entries; ++n) table->entryIs(entry(n, 1));
    agent = startAgent(dir, dir.path());
    status = Ostra::make<Shoal::ReaderTable<EntryStatus>>(dir / "status.shoal");
  }
  // A new version of the entry, and its acknowledgement, for which nobody else need move.
  bool acknowledged(U32 n) {
    EntryConfig const e = entry(n, ++version);
    table->entryIs(e);
    return eventually([&] { return status->entry(e.key()).opId() == e.opId(); });
  }

  TempDir dir;
  Ostra::Ptr<Shoal::WriterTable<EntryConfig>> table =
      Ostra::make<Shoal::WriterTable<EntryConfig>>(dir / "config.shoal", Shoal::WriterOptions{});
  std::unique_ptr<Process> agent;
  Ostra::Ptr<Shoal::ReaderTable<EntryStatus>> status;
  U64 version = 1;
};

}  // namespace

// The lower half keeps its version; entries of the upper half change from before the request to behind the
// last byte, one each time that this peer has read another piece.
TEST_F(RealAgent, AcknowledgesKeysWhileASnapshotIsReadSlowly) {
  RawPeer peer(dir / "mgmt.sock");
  ASSERT_TRUE(peer.connected());
  peer.write(asking);
  U32 arrived = 0;
  auto const another = [&] { return acknowledged(entries / 2 + arrived++ % (entries / 2)); };
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(another()) << "while nothing at all is read";
  Picture picture;
  long const resident = agent->residentKib();
  int pieces = 0;
  while (picture.scalars["version"] != 1) {
    ASSERT_TRUE(eventually([&] {
      peer.read(32 * 1024);
      return !peer.lines().empty() || peer.closed();
    }));
    ASSERT_FALSE(peer.closed());
    for (std::string const& line : peer.take()) picture.take(line);
    ++pieces;
    ASSERT_TRUE(another()) << "after piece " << pieces;
  }
  EXPECT_GT(pieces, 10);
  EXPECT_LT(agent->residentKib(), resident + 4096);
  EXPECT_TRUE(picture.collections["pending"].empty());
  EXPECT_TRUE(picture.collections["pendingOpId"].empty());
  ASSERT_EQ(entries, picture.collections["status"].size());
  ASSERT_EQ(entries, picture.collections["statusOpId"].size());
  for (U32 n = 0; n < entries; ++n) {
    ASSERT_EQ(highKeys + n, picture.collections["status"][n]) << n;
    if (n >= entries / 2) continue;
    ASSERT_EQ(1u << 16, picture.collections["statusOpId"][highKeys + n]) << n;
  }
  agent->signal(SIGTERM);
  EXPECT_EQ(0, agent->wait()) << agent->err();
}
