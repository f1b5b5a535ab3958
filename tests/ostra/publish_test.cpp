// SPDX-License-Identifier: Apache-2.0
// The protocol of the management socket, line by line, and what a peer can and cannot do to the agent.
#include "ostra/publish.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <random>

#include "published.h"

namespace OstraTest {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::size_t megabyte = 1 << 20;

#ifdef __SANITIZE_ADDRESS__
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

class PublishTest : public Published {};

TEST_F(PublishTest, ListsEntitiesAndTheirAttributes) {
  RawPeer peer(path_);
  EXPECT_EQ(R"({"answer":"list","entities":[)"
            R"({"entity":"sample","type":"OstraTest::Sample","mountable":true},)"
            R"({"entity":"silent","type":"OstraTest::Silent","mountable":false}],"tag":1})",
            ask(peer, R"({"verb":"list","tag":1})"));
  sample_->lockedIs(true);
  std::string const answer = ask(peer, R"({"verb":"list","entity":"sample","tag":"a"})");
  EXPECT_THAT(
      answer,
      StartsWith(
          R"({"answer":"list","entity":"sample","type":"OstraTest::Sample","attributes":[)"
          R"({"name":"level","kind":"scalar","type":"U8","writable":true,"refused":"it is locked"},)"));
  EXPECT_THAT(answer, HasSubstr(R"({"name":"fixed","kind":"scalar","type":"U32","writable":false})"));
  EXPECT_THAT(answer, HasSubstr(R"x({"name":"add","kind":"operation","type":"(U8)","writable":false})x"));
  EXPECT_THAT(answer, EndsWith(R"("tag":"a"})"));
}

TEST_F(PublishTest, ReadsWritesDeletesAndInvokes) {
  RawPeer peer(path_);
  EXPECT_EQ(R"({"answer":"write","entity":"sample","attribute":"level","value":7,"tag":9})",
            ask(peer, R"({"verb":"write","entity":"sample","attribute":"level","value":7,"tag":9})"));
  EXPECT_EQ(7, sample_->level());
  EXPECT_EQ(R"({"answer":"read","entity":"sample","attribute":"level","value":7})",
            ask(peer, R"({"verb":"read","entity":"sample","attribute":"level"})"));
  EXPECT_EQ(R"({"answer":"read","entity":"sample","values":{"level":7,"title":"","ratio":0.0,"locked":false,)"
            R"("fixed":7,"version":0}})",
            ask(peer, R"({"verb":"read","entity":"sample"})"));
  EXPECT_EQ(R"({"answer":"write","entity":"sample","attribute":"ordered","key":4,"value":"four"})",
            ask(peer, R"({"verb":"write","entity":"sample","attribute":"ordered","key":4,"value":"four"})"));
  EXPECT_EQ(R"({"answer":"read","entity":"sample","attribute":"ordered","key":4,"value":"four"})",
            ask(peer, R"({"verb":"read","entity":"sample","attribute":"ordered","key":4})"));
  EXPECT_EQ(R"({"answer":"read","entity":"sample","attribute":"ordered","members":[[4,"four"]]})",
            ask(peer, R"({"verb":"read","entity":"sample","attribute":"ordered"})"));
  EXPECT_EQ(R"({"answer":"delete","entity":"sample","attribute":"ordered","key":4})",
            ask(peer, R"({"verb":"delete","entity":"sample","attribute":"ordered","key":4})"));
  EXPECT_THAT(sample_->ordered(), IsEmpty());
  EXPECT_EQ(R"({"answer":"invoke","entity":"sample","operation":"add"})",
            ask(peer, R"({"verb":"invoke","entity":"sample","operation":"add","arguments":[3]})"));
  EXPECT_EQ(10, sample_->level());
  std::string const above = R"({"verb":"invoke","entity":"sample","operation":"above","arguments":[5]})";
  EXPECT_EQ(R"({"answer":"invoke","entity":"sample","operation":"above","result":15})", ask(peer, above));
  sample_->lockedIs(true);
  EXPECT_EQ(R"({"error":"above of OstraTest::Sample cannot be invoked: it is locked"})", ask(peer, above));
  sample_->hashedIs(4, 5);
  for (char const* verb : {"delete", "write"})
    EXPECT_EQ(R"({"error":"hashed of OstraTest::Sample cannot be written: it is locked"})",
              ask(peer, R"({"verb":")" + std::string(verb) +
                            R"(","entity":"sample","attribute":"hashed","key":4,"value":6})"));
  EXPECT_EQ(5u, sample_->hashed().at(4));
}

TEST_F(PublishTest, TheReadOfALongCollectionTakesSeveralLines) {
  for (U64 k = 0; k < 2000; ++k) sample_->hashedIs(k, k + 1);
  RawPeer peer(path_);
  peer.write(
      "{\"verb\":\"read\",\"entity\":\"sample\",\"attribute\":\"hashed\",\"tag\":5}\n{\"verb\":\"list\"}\n");
  pump(50);
  peer.read();
  std::map<U64, U64> members;
  std::size_t lines = 0;
  for (bool more = true; more; ++lines) {
    Json const line = Json::parse(peer.lines().at(lines));
    EXPECT_EQ("read", line.at("answer"));
    EXPECT_EQ(5, line.at("tag"));
    for (Json const& m : line.at("members")) members[m[0].get<U64>()] = m[1].get<U64>();
    more = line.value("more", false);
  }
  EXPECT_EQ(2000u, members.size());
  EXPECT_EQ(100u, members.at(99));
  EXPECT_GT(lines, 5u);
  EXPECT_THAT(peer.lines().at(lines), HasSubstr(R"({"answer":"list")"))
      << "answers come in the order of requests";
}

TEST_F(PublishTest, AMountIsASnapshotThenEachChange) {
  sample_->levelIs(1);
  sample_->orderedIs(3, "three");
  sample_->versionIs(8);
  RawPeer peer(path_);
  EXPECT_EQ(R"({"answer":"mount","entity":"sample","type":"OstraTest::Sample","tag":1})",
            ask(peer, R"({"verb":"mount","type":"OstraTest::Sample","tag":1})"));
  settle();
  peer.read();
  peer.read();
  EXPECT_THAT(
      peer.take(),
      ElementsAre(R"({"answer":"mount","entity":"sample","type":"OstraTest::Sample","tag":1})",
                  R"({"event":"snapshot","entity":"sample"})",
                  R"({"event":"set","entity":"sample","attribute":"level","value":1})",
                  R"({"event":"set","entity":"sample","attribute":"title","value":""})",
                  R"({"event":"set","entity":"sample","attribute":"ratio","value":0.0})",
                  R"({"event":"set","entity":"sample","attribute":"locked","value":false})",
                  R"({"event":"set","entity":"sample","attribute":"fixed","value":7})",
                  R"({"event":"set","entity":"sample","attribute":"ordered","members":[[3,"three"]]})",
                  R"({"event":"set","entity":"sample","attribute":"version","value":8})",
                  R"({"event":"live","entity":"sample"})"));
  sample_->versionIs(9);
  sample_->orderedIs(4, "four");
  sample_->orderedDel(3);
  sample_->levelIs(2);
  sample_->orderedIs(5, "five");
  settle();
  peer.read();
  EXPECT_THAT(
      peer.take(),
      ElementsAre(
          R"({"event":"set","entity":"sample","attribute":"level","value":2})",
          R"({"event":"set","entity":"sample","attribute":"ordered","members":[[4,"four"],[5,"five"]]})",
          R"({"event":"del","entity":"sample","attribute":"ordered","keys":[3]})",
          R"({"event":"set","entity":"sample","attribute":"version","value":9})"))
      << "a scalar that is told last comes when everything else is told";
  EXPECT_EQ(R"({"answer":"unmount","entity":"sample"})",
            ask(peer, R"({"verb":"unmount","entity":"sample"})"));
  EXPECT_TRUE(sample_->attributeWatchers().empty()) << "nobody watches any more";
  peer.take();
  sample_->versionIs(10);
  settle();
  peer.read();
  EXPECT_THAT(peer.lines(), IsEmpty());
}

TEST_F(PublishTest, MistakesAreAnsweredAndTheConnectionGoesOn) {
  RawPeer peer(path_);
  sample_->lockedIs(true);
  std::string const nested = std::string(9, '[') + std::string(9, ']');
  std::vector<std::pair<std::string, std::string>> const mistakes{
      {"hello", "expected one JSON object a line, got something that is not JSON"},
      {"{\"verb\":\"list\"", "expected one JSON object a line, got something that is not JSON"},
      {"[]", "expected a JSON object, got another JSON value"},
      {"3", "expected a JSON object, got another JSON value"},
      {nested, "a line nests at most 8 levels deep"},
      {"{}", "the request needs \"verb\""},
      {R"({"verb":4})", "\"verb\" must be a text"},
      {R"({"verb":"frobnicate"})",
       "unknown verb \"frobnicate\"; expected list, mount, unmount, read, write, delete or invoke"},
      {R"({"verb":"list","tag":[1]})", "\"tag\" must be a number or a text"},
      {R"({"verb":"list","entity":7})", "\"entity\" must be a text"},
      {R"({"verb":"read"})", "the request needs \"entity\""},
      {R"({"verb":"read","entity":"no"})", "no entity is named \"no\"; there are: sample, silent"},
      {R"({"verb":"read","entity":"sample","attribute":"add"})",
       "add of OstraTest::Sample is not a scalar attribute"},
      {R"({"verb":"read","entity":"sample","attribute":"ordered","key":1})", "ordered has no member 1"},
      {R"({"verb":"read","entity":"sample","attribute":"ordered","key":"x"})",
       "ordered expects a value of type U32, got \"x\""},
      {R"({"verb":"write","entity":"sample","attribute":"title"})", "the request needs \"value\""},
      {R"({"verb":"write","entity":"sample","attribute":"title","value":3})",
       "title expects a value of type text, got 3"},
      {R"({"verb":"write","entity":"sample","attribute":"title","value":[3]})",
       "\"value\" must be a bool, an unsigned integer, a double, a text or null"},
      {R"({"verb":"write","entity":"sample","attribute":"version","value":-1})",
       "\"value\" must be a bool, an unsigned integer, a double, a text or null"},
      {R"({"verb":"write","entity":"sample","attribute":"fixed","value":1})",
       "fixed of OstraTest::Sample cannot be written"},
      {R"({"verb":"write","entity":"sample","attribute":"level","value":1})",
       "level of OstraTest::Sample cannot be written: it is locked"},
      {R"({"verb":"write","entity":"sample","attribute":"title","key":1,"value":1})",
       "title of OstraTest::Sample is not a collection"},
      {R"({"verb":"invoke","entity":"sample","operation":"add"})", "add takes 1 arguments, got 0"},
      {R"({"verb":"invoke","entity":"sample","operation":"add","arguments":{}})",
       "\"arguments\" must be an array"},
      {R"({"verb":"invoke","entity":"sample","operation":"fail"})", "the sample failed"},
      {R"({"verb":"unmount","entity":"sample"})", "sample is not mounted"},
      {R"({"verb":"mount","type":"Nothing"})", "no entity has the type \"Nothing\""},
      {R"({"verb":"mount","entity":"sample","type":"Nothing"})",
       "sample has the type OstraTest::Sample, not \"Nothing\""},
      {R"({"verb":"mount","entity":"silent"})",
       "silent does not tell its changes and cannot be mounted; read it instead"},
  };
  for (auto const& [line, error] : mistakes)
    EXPECT_EQ(error, Json::parse(ask(peer, line)).value("error", "no error")) << line;
  EXPECT_EQ(R"({"error":"the request needs \"entity\"","tag":"t"})",
            ask(peer, R"({"verb":"read","tag":"t"})"));
  EXPECT_EQ(0, sample_->level());
  EXPECT_THAT(ask(peer, R"({"verb":"list"})"), HasSubstr("entities"));
}

TEST_F(PublishTest, RepeatsTagsAsTheyCame) {
  RawPeer peer(path_);
  for (char const* tag : {"0", "-5", "18446744073709551615", "0.5", "\"a \\\"b\\\"\"", "true", "null"})
    EXPECT_EQ(fmt::format(R"({{"answer":"unmount","entity":"sample","tag":{}}})", tag),
              (ask(peer, R"({"verb":"mount","entity":"sample"})"),
               ask(peer, fmt::format(R"({{"verb":"unmount","entity":"sample","tag":{}}})", tag))));
}

TEST_F(PublishTest, PassesOverUnknownFields) {
  RawPeer peer(path_);
  std::string const odd = R"("x":[[1,2],{"verb":"fly","y":[]}],"members":[[1]],"keys":{"verb":3},)";
  EXPECT_EQ(R"({"answer":"read","entity":"sample","attribute":"level","value":0})",
            ask(peer, "{" + odd + R"("verb":"list","verb":"read","entity":"sample","attribute":"level"})"))
      << "of two fields of a name the last counts";
}

TEST_F(PublishTest, RefusesArgumentsThatAreNoScalars) {
  RawPeer peer(path_);
  for (char const* arguments : {"[[1,2]]", "[[1]]", "[1,[2]]", "[{}]", "[-1]", "[[],1]"})
    EXPECT_EQ(
        R"({"error":"\"arguments\" must be a bool, an unsigned integer, a double, a text or null"})",
        ask(peer, fmt::format(R"({{"verb":"invoke","entity":"sample","operation":"add","arguments":{}}})",
                              arguments)))
        << arguments;
  EXPECT_EQ(0, sample_->level());
}

// The reading went on by name, with whatever had the name by then.
TEST_F(PublishTest, EndsReadOfEntityThatIsReplaced) {
  for (U64 k = 0; k < 200000; ++k) sample_->hashedIs(k, k);
  RawPeer peer(path_);
  peer.write("{\"verb\":\"read\",\"entity\":\"sample\",\"attribute\":\"hashed\"}\n{\"verb\":\"list\"}\n");
  pump(5);
  publisher_->exportObject("sample", Ostra::make<Silent>());
  EXPECT_NO_THROW(pump(5));
  for (int i = 0;
       i < 1000 && (peer.lines().empty() || !peer.lines().back().starts_with("{\"answer\":\"list")); ++i) {
    pump(1);
    peer.read();
  }
  ASSERT_GT(peer.lines().size(), 2u);
  EXPECT_EQ(R"({"error":"sample is gone"})", peer.lines()[peer.lines().size() - 2]);
}

TEST_F(PublishTest, DeafReadersHoldFewKeysEach) {
  for (U64 k = 0; k < 500000; ++k) sample_->hashedIs(k, k);
  std::vector<std::unique_ptr<RawPeer>> deaf;
  for (int i = 0; i < 40; ++i) {
    deaf.push_back(std::make_unique<RawPeer>(path_));
    deaf.back()->write("{\"verb\":\"read\",\"entity\":\"sample\",\"attribute\":\"hashed\"}\n");
  }
  std::size_t const before = residentBytes();
  settle();
  EXPECT_EQ(40u, publisher_->peers());
  if (sanitized) return;  // what was freed stays in memory for a while
  EXPECT_LT(residentBytes(), before + 40 * megabyte) << "a copy of all keys each would be 160";
}

TEST_F(PublishTest, TwoEntitiesOfATypeMustBeNamed) {
  publisher_->exportObject("other", Ostra::make<Sample>("other"));
  RawPeer peer(path_);
  EXPECT_THAT(ask(peer, R"({"verb":"mount","type":"OstraTest::Sample"})"),
              HasSubstr("several entities have the type OstraTest::Sample: other and sample"));
}

TEST_F(PublishTest, LinesMayComeInPieces) {
  RawPeer peer(path_);
  std::string const request = "{\"verb\":\"list\"}\n";
  for (char const c : request) {
    EXPECT_THAT(peer.lines(), IsEmpty());
    peer.write(std::string_view(&c, 1));
    pump(3);
    peer.read();
  }
  EXPECT_THAT(peer.lines(), SizeIs(1));
  peer.write(R"({"verb":"li)");
  pump();
  peer.close();
  settle();
  EXPECT_EQ(0u, publisher_->peers());
}

TEST_F(PublishTest, ManyRequestsAtOnceAreAllAnsweredInOrder) {
  RawPeer peer(path_);
  std::string requests;
  for (int i = 0; i < 500; ++i)
    requests += fmt::format("{{\"verb\":\"read\",\"entity\":\"silent\",\"tag\":{}}}\n", i);
  std::string_view rest = requests;
  for (int i = 0; i < 1000 && peer.lines().size() < 500; ++i) {
    if (!rest.empty()) rest.remove_prefix(peer.write(rest));
    publisher_->dispatch();
    peer.read();
  }
  ASSERT_THAT(peer.lines(), SizeIs(500));
  for (int i = 0; i < 500; ++i)
    EXPECT_EQ(i, Json::parse(peer.lines()[static_cast<std::size_t>(i)])["tag"].get<int>());
}

TEST_F(PublishTest, APeerThatSaysNoMoreGetsItsAnswersFirst) {
  RawPeer peer(path_);
  for (U64 k = 0; k < 20000; ++k) sample_->hashedIs(k, k);
  peer.write("{\"verb\":\"read\",\"entity\":\"sample\",\"attribute\":\"hashed\"}\n{\"verb\":\"list\"}\n");
  ::shutdown(peer.fd(), SHUT_WR);
  for (int i = 0; i < 1000 && !peer.closed(); ++i) {
    publisher_->dispatch();
    peer.read();
  }
  EXPECT_TRUE(peer.closed());
  EXPECT_THAT(peer.lines().back(), HasSubstr("entities"));
  EXPECT_EQ(0u, publisher_->peers());
}

TEST_F(PublishTest, AWholeLineThatIsTooLongIsRefusedToo) {
  RawPeer peer(path_);
  peer.write(R"({"verb":"list","x":")" + std::string(70000, 'x') + "\"}\n");
  for (int i = 0; i < 20 && !peer.closed(); ++i) {
    publisher_->dispatch();
    peer.read();
  }
  EXPECT_TRUE(peer.closed());
  EXPECT_THAT(peer.lines(), ElementsAre(R"({"error":"a line is longer than 65536 bytes"})"));
}

TEST_F(PublishTest, ALineOfAHundredMegabytesIsCutOffEarly) {
  RawPeer peer(path_);
  std::string const piece(megabyte, 'x');
  std::size_t const before = residentBytes();
  std::size_t sent = 0;
  while (sent < 100 * megabyte && !peer.closed()) {
    sent += peer.write(piece);
    publisher_->dispatch();
    peer.read();
  }
  EXPECT_TRUE(peer.closed());
  EXPECT_THAT(peer.lines(), ElementsAre(R"({"error":"a line is longer than 65536 bytes"})"));
  EXPECT_LT(sent, 2 * megabyte);
  EXPECT_LT(residentBytes(), before + 64 * megabyte);
  RawPeer next(path_);
  EXPECT_THAT(ask(next, R"({"verb":"list"})"), HasSubstr("entities"));
}

TEST_F(PublishTest, DeepNestingIsAnError) {
  RawPeer peer(path_);
  EXPECT_THAT(ask(peer, std::string(60000, '[')), HasSubstr("nests at most"));
  std::string objects;
  for (int i = 0; i < 10000; ++i) objects += "{\"a\":";
  EXPECT_THAT(ask(peer, objects), HasSubstr("nests at most"));
  EXPECT_THAT(ask(peer, R"({"verb":"[[[[[[[[[[[["})"), HasSubstr("unknown verb"))
      << "brackets in a text nest nothing";
}

TEST_F(PublishTest, GarbageNeverDoesHarm) {
  std::mt19937 random(4711);
  std::vector<std::string> const seeds{
      R"({"verb":"mount","entity":"sample","tag":1})",
      R"({"verb":"write","entity":"sample","attribute":"level","value":7})",
      R"({"verb":"read","entity":"sample","attribute":"ordered","key":3})",
      R"({"verb":"invoke","entity":"sample","operation":"add","arguments":[1]})"};
  for (int round = 0; round < 300; ++round) {
    RawPeer peer(path_);
    for (int n = 0; n < 10; ++n) {
      std::string line = seeds[random() % seeds.size()];
      for (auto flips = random() % 6; flips > 0; --flips)
        line[random() % line.size()] =
            static_cast<char>(random() % 4 == 0 ? random() : "{}[]\",:0\n\\"[random() % 10]);
      peer.write(line + '\n');
      pump(2);
    }
    peer.read();
    for (std::string const& line : peer.take()) ASSERT_TRUE(Json::accept(line)) << line;
  }
  RawPeer peer(path_);
  EXPECT_THAT(ask(peer, R"({"verb":"list"})"), HasSubstr("entities"));
}

TEST_F(PublishTest, ADeafPeerCostsLittleAndGetsNewestValues) {
  RawPeer peer(path_);
  ask(peer, R"({"verb":"mount","entity":"sample"})");
  Picture picture;
  drain(peer, picture);
  std::size_t const before = residentBytes();
  for (U64 round = 1; round <= 1000; ++round) {
    for (U64 k = 0; k < 1000; ++k) sample_->hashedIs(k, k * round);
    sample_->versionIs(static_cast<U32>(round));
    pump(3);
  }
  EXPECT_LT(residentBytes(), before + 48 * megabyte) << "a million changes are not kept";
  picture.told.clear();
  drain(peer, picture);
  EXPECT_EQ(1000, picture.scalars.at("version"));
  ASSERT_EQ(1000u, picture.collections.at("hashed").size());
  for (U64 k = 0; k < 1000; ++k) EXPECT_EQ(k * 1000, picture.collections["hashed"][k].get<U64>());
  U64 most = 0;
  for (auto const& [k, times] : picture.told["hashed"]) most = std::max(most, times);
  EXPECT_LT(most, 100u) << "only what fits the buffers is told step by step";
  EXPECT_TRUE(picture.live);
}

TEST_F(PublishTest, ABurstOfChangesOfOneMemberIsToldOnce) {
  RawPeer peer(path_);
  ask(peer, R"({"verb":"mount","entity":"sample"})");
  Picture picture;
  drain(peer, picture);
  picture.told.clear();
  for (U64 i = 1; i <= 100000; ++i) {
    sample_->hashedIs(5, i);
    sample_->levelIs(static_cast<U8>(i));
  }
  drain(peer, picture);
  EXPECT_EQ(1u, picture.told["hashed"][5]);
  EXPECT_EQ(100000, picture.collections["hashed"][5]);
  EXPECT_EQ(1, picture.snapshots) << "no need for a fresh one";
}

TEST_F(PublishTest, AWatcherThatFellFarBehindGetsAFreshSnapshot) {
  for (U64 k = 0; k < 40000; ++k) sample_->hashedIs(k, 1);
  RawPeer peer(path_);
  ask(peer, R"({"verb":"mount","entity":"sample"})");
  Picture picture;
  drain(peer, picture);
  for (U64 k = 0; k < 40000; k += 2) sample_->hashedDel(k);
  for (U64 k = 1; k < 40000; k += 2) sample_->hashedIs(k, 2);
  sample_->versionIs(1);
  drain(peer, picture);
  EXPECT_EQ(2, picture.snapshots);
  EXPECT_TRUE(picture.live);
  EXPECT_EQ(20000u, picture.collections["hashed"].size());
  EXPECT_EQ(2, picture.collections["hashed"][39999]);
}

// Reads no more than it is told to between two turns.
class SlowReader {
 public:
  explicit SlowReader(std::string const& path) : peer_(path) {
    peer_.write("{\"verb\":\"mount\",\"entity\":\"sample\"}\n");
  }
  void read(std::size_t atMost) {
    peer_.read(atMost);
    for (std::string const& line : peer_.take()) picture.take(line);
  }
  Picture picture;

 private:
  RawPeer peer_;
};

TEST_F(PublishTest, TellsAllOfWhatChangesFasterThanItIsRead) {
  constexpr U64 members = 40000;
  for (U64 k = 0; k < members; ++k) sample_->hashedIs(k, 0);
  SlowReader slow(path_);
  U64 level = 0, levels = 0;
  for (U64 round = 1; round <= 200; ++round) {
    for (U64 n = 0; n < 20000; ++n) sample_->hashedIs((round * 20000 + n) % members, round);
    sample_->levelIs(static_cast<U8>(round));
    pump(4);
    slow.read(32768);
    slow.read(32768);
    EXPECT_FALSE(slow.picture.live) << "it never comes to the end of the changes";
    if (!slow.picture.scalars.contains("level") || slow.picture.scalars["level"] == level) continue;
    level = slow.picture.scalars["level"].get<U64>();
    ++levels;
  }
  EXPECT_GT(levels, 50u);
  EXPECT_GT(slow.picture.snapshots, 2);
  U64 newest = 0;
  for (auto const& [k, value] : slow.picture.collections["hashed"])
    newest = std::max(newest, value.get<U64>());
  EXPECT_GT(newest, 150u);
  EXPECT_EQ(members, slow.picture.told["hashed"].size());
  EXPECT_FALSE(slow.picture.scalars.contains("version")) << "nothing was complete";
}

TEST_F(PublishTest, TellsASlowReaderOfAMemberThatNeverRests) {
  SlowReader slow(path_);
  RawPeer quick(path_);
  ask(quick, R"({"verb":"mount","entity":"sample"})");
  for (U64 round = 1; round <= 3000; ++round) {
    sample_->orderedIs(7, std::string(100, 'x') + std::to_string(round));
    for (U64 n = 0; n < 60; ++n) sample_->hashedIs((round * 60 + n) % 9000, round);
    pump(2);
    quick.read();
    quick.take();
    slow.read(300);
  }
  U64 const hot = slow.picture.told["ordered"][7];
  EXPECT_GT(hot, 2u);
  EXPECT_LT(hot, 2500u) << "never every step";
}

TEST_F(PublishTest, TellsAVersionBehindASnapshotBegunAgain) {
  for (U64 k = 0; k < 60000; ++k) sample_->hashedIs(k, 0);
  SlowReader slow(path_);
  for (U64 round = 1; round <= 40; ++round) {
    for (U64 k = 0; k < 60000; k += 2) sample_->hashedIs(k, round);
    for (U64 k = 1; k < 60000; k += 2) sample_->hashedDel(k + 1000 * round % 60000);
    sample_->versionIs(static_cast<U32>(round));
    for (int n = 0; n < 4; ++n) {
      publisher_->dispatch();
      slow.read(2048);
      EXPECT_FALSE(slow.picture.scalars.contains("version")) << "nothing is complete yet";
    }
  }
  for (int n = 0; n < 100000 && !slow.picture.live; ++n) {
    publisher_->dispatch();
    slow.read(32768);
  }
  EXPECT_EQ(40, slow.picture.scalars.at("version"));
  EXPECT_GT(slow.picture.snapshots, 1);
  ASSERT_EQ(sample_->hashed().size(), slow.picture.collections["hashed"].size());
  for (auto const& [k, v] : sample_->hashed()) ASSERT_EQ(v, slow.picture.collections["hashed"][k].get<U64>());
}

TEST_F(PublishTest, ABusyEntityLeavesOthersTheirTurn) {
  auto const quiet = Ostra::make<Sample>("zebra");
  publisher_->exportObject("zebra", quiet);
  RawPeer peer(path_);
  peer.write("{\"verb\":\"mount\",\"entity\":\"sample\"}\n{\"verb\":\"mount\",\"entity\":\"zebra\"}\n");
  bool told = false;
  for (U64 round = 1; round <= 50 && !told; ++round) {
    for (U64 n = 0; n < 10000; ++n) sample_->hashedIs(n, round);
    quiet->levelIs(static_cast<U8>(round));
    pump(1);
    peer.read();
    for (std::string const& line : peer.take())
      told |= line.find(R"("entity":"zebra","attribute":"level")") != std::string::npos;
  }
  EXPECT_TRUE(told);
}

TEST_F(PublishTest, ARemountGivesAFreshSnapshot) {
  RawPeer peer(path_);
  ask(peer, R"({"verb":"mount","entity":"sample"})");
  Picture picture;
  drain(peer, picture);
  ask(peer, R"({"verb":"mount","entity":"sample"})");
  drain(peer, picture);
  EXPECT_EQ(2, picture.snapshots + 0);
  EXPECT_TRUE(picture.live);
}

TEST_F(PublishTest, AWithdrawnEntityIsGoneForThoseWhoMountedIt) {
  RawPeer watching(path_), asking(path_);
  ask(watching, R"({"verb":"mount","entity":"sample"})");
  settle();
  watching.read();
  watching.take();
  publisher_->withdraw("sample");
  settle();
  watching.read();
  EXPECT_THAT(watching.lines(), ElementsAre(R"({"event":"gone","entity":"sample"})"));
  EXPECT_TRUE(sample_->attributeWatchers().empty());
  EXPECT_THAT(ask(asking, R"({"verb":"read","entity":"sample"})"), HasSubstr("no entity is named"));
}

// Whatever the order of changes, reading and stalls, a peer ends with the truth, and whenever it is told a
// version it has everything that was there when the version was written.
TEST_F(PublishTest, RandomChangesAndReadingPatternsEndInTheTruth) {
  std::mt19937 random(99);
  std::map<U64, std::map<U64, U64>> history;  // hashed at each version
  std::vector<std::unique_ptr<RawPeer>> peers;
  std::vector<Picture> pictures(5);
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    peers.push_back(std::make_unique<RawPeer>(path_));
    ask(*peers.back(), R"({"verb":"mount","entity":"sample"})");
  }
  auto const take = [&](std::size_t i) {
    for (std::string const& line : peers[i]->take()) {
      pictures[i].take(line);
      if (line.find("\"version\"") == std::string::npos || pictures[i].scalars["version"] == 0) continue;
      std::map<U64, U64> seen;
      for (auto const& [k, v] : pictures[i].collections["hashed"]) seen[k] = v.get<U64>();
      ASSERT_EQ(history.at(pictures[i].scalars["version"].get<U64>()), seen) << "peer " << i;
    }
  };
  for (U32 version = 1; version <= 60; ++version) {
    U64 const keys = random() % 10 == 0 ? 30000 : 300;
    for (U64 n = random() % (keys / 2); n > 0; --n) {
      if (U64 const k = random() % keys; random() % 3)
        sample_->hashedIs(k, U64{random()});
      else
        sample_->hashedDel(k);
    }
    sample_->versionIs(version);
    history[version] = sample_->hashedInOrder();
    for (int n = 0; n < 20; ++n) {
      publisher_->dispatch();
      std::size_t const i = random() % peers.size();
      if (random() % 5 < i) continue;  // the later ones read seldom
      peers[i]->read(1 + random() % 60000);
      take(i);
    }
  }
  for (std::size_t i = 0; i < peers.size(); ++i) {
    for (int idle = 0; idle < 5;) {
      pump(4);
      peers[i]->read();
      idle = peers[i]->lines().empty() ? idle + 1 : 0;
      take(i);
    }
    EXPECT_EQ(60, pictures[i].scalars["version"]) << "peer " << i;
    EXPECT_TRUE(pictures[i].live);
  }
}

TEST_F(PublishTest, OnlyAPeerThatReadsNothingIsDropped) {
  publish({.stallSeconds = 0.2});
  for (U64 k = 0; k < 200000; ++k) sample_->hashedIs(k, k);
  RawPeer deaf(path_), slow(path_), idle(path_);
  ask(idle, R"({"verb":"list"})");
  for (RawPeer* peer : {&deaf, &slow}) peer->write("{\"verb\":\"mount\",\"entity\":\"sample\"}\n");
  pollfd p{publisher_->fd(), POLLIN, 0};
  for (int i = 0; i < 3000 && publisher_->peers() == 3; ++i) {
    ::poll(&p, 1, 10);
    publisher_->dispatch();
    slow.read(4000);
  }
  EXPECT_EQ(2u, publisher_->peers());
  while (!deaf.closed()) deaf.read();
  Picture picture;
  for (std::string const& line : deaf.take())
    if (Json::accept(line)) picture.take(line);
  EXPECT_FALSE(picture.live);
  for (int i = 0; i < 100000 && !picture.live; ++i) {
    publisher_->dispatch();
    slow.read();
    for (std::string const& line : slow.take()) picture.take(line);
  }
  EXPECT_TRUE(picture.live) << "the slow one got it all";
  EXPECT_EQ(200000u, picture.collections["hashed"].size());
  EXPECT_THAT(ask(idle, R"({"verb":"list"})"), HasSubstr("entities"));
}

// Its socket takes no more for many ticks on end, as it empties only when most of it was read.
TEST_F(PublishTest, APeerThatReadsALittleAtEachTickIsKept) {
  publish({.stallSeconds = 0.2});
  for (U64 k = 0; k < 200000; ++k) sample_->hashedIs(k, k);
  RawPeer slow(path_);
  slow.write("{\"verb\":\"mount\",\"entity\":\"sample\"}\n");
  pump(100);
  for (int tick = 0; tick < 40; ++tick) {
    pollfd p{publisher_->fd(), POLLIN, 0};
    ASSERT_EQ(1, ::poll(&p, 1, 10000));
    publisher_->dispatch();
    slow.read(14000);
  }
  EXPECT_EQ(1u, publisher_->peers());
  EXPECT_FALSE(slow.closed());
}

TEST_F(PublishTest, TheSocketIsForOwnerAndGroup) {
  struct stat s {};
  ASSERT_EQ(0, ::stat(path_.c_str(), &s));
  EXPECT_EQ(0660u, s.st_mode & 0777u);
  EXPECT_EQ(::geteuid(), s.st_uid);
}

TEST_F(PublishTest, APathThatCannotBeASocketIsRefused) {
  auto const errorOf = [](std::string const& path) {
    try {
      Ostra::Publisher const publisher(path);
    } catch (std::runtime_error const& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  EXPECT_THAT(errorOf(path_), EndsWith("mgmt.sock: a live agent serves it already"));
  EXPECT_THAT(errorOf(dir_.path() + "/none/mgmt.sock"), HasSubstr("No such file or directory"));
  EXPECT_THAT(errorOf(dir_.path() + "/" + std::string(200, 'x')), HasSubstr("expected 1 to 107 bytes"));
  std::string const file = dir_.path() + "/file";
  std::ofstream(file) << "mine";
  EXPECT_THAT(errorOf(file), EndsWith("file: the path exists and is not a socket"));
  std::string content;
  std::ifstream(file) >> content;
  EXPECT_EQ("mine", content);
  RawPeer peer(path_);
  EXPECT_THAT(ask(peer, R"({"verb":"list"})"), HasSubstr("entities")) << "the live agent is not disturbed";
}

TEST_F(PublishTest, TheSocketGoesWithThePublisher) {
  publisher_.reset();
  EXPECT_NE(0, ::access(path_.c_str(), F_OK));
  EXPECT_FALSE(RawPeer(path_).connected());
}

}  // namespace
}  // namespace OstraTest
