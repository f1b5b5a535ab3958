// SPDX-License-Identifier: Apache-2.0
// Attributes, collections and operations by their names.
#include <gmock/gmock.h>

#include <array>
#include <set>

#include "ostra/type_info.h"
#include "sample.h"

namespace OstraTest {
namespace {

using Ostra::AttributeException;
using Ostra::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

class ByNameTest : public testing::Test {
 protected:
  // The text of the exception that `act` ends with.
  template <class Act>
  static std::string errorOf(Act act) {
    try {
      act();
    } catch (AttributeException const& e) {
      return e.what();
    }
    return "no exception";
  }

  Ostra::Ptr<Sample> sample_ = Ostra::make<Sample>("sample");
  Ostra::TypeInfo const& type_ = Sample::staticType();
};

TEST_F(ByNameTest, AreListedInTheOrderOfDeclaration) {
  std::vector<std::string> listed;
  for (Ostra::Attribute const* a : type_.attributes()) listed.push_back(a->name + " " + a->type);
  EXPECT_THAT(listed, ElementsAre("level U8", "title text", "ratio double", "locked bool", "fixed U32",
                                  "ordered U32 -> text", "hashed U64 -> U64", "add (U8)", "above (U64)",
                                  "reached ()", "fail ()", "version U32"));
}

TEST_F(ByNameTest, AreReadAndWritten) {
  type_.write(*sample_, "level", Value(U64{200}));
  type_.write(*sample_, "title", Value(std::string("t")));
  type_.write(*sample_, "ratio", Value(U64{2}));
  type_.write(*sample_, "locked", Value(true));
  EXPECT_EQ(200, sample_->level());
  EXPECT_EQ("t", sample_->title());
  EXPECT_EQ(2.0, sample_->ratio()) << "a double takes an integer";
  EXPECT_EQ(Value(U64{200}), type_.read(*sample_, "level"));
  EXPECT_EQ(Value(std::string("t")), type_.read(*sample_, "title"));
  EXPECT_EQ(Value(2.0), type_.read(*sample_, "ratio"));
  EXPECT_EQ(Value(true), type_.read(*sample_, "locked"));
}

TEST_F(ByNameTest, AWriteTellsWatchersOnlyOfAChange) {
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(sample_));
  type_.write(*sample_, "level", Value(U64{0}));
  type_.write(*sample_, "level", Value(U64{1}));
  EXPECT_THAT(diary.lines(), ElementsAre("level 1"));
}

TEST_F(ByNameTest, AnUnknownNameIsAnsweredWithTheKnownOnes) {
  EXPECT_THAT(
      errorOf([&] { type_.read(*sample_, "lebel"); }),
      HasSubstr("OstraTest::Sample has no attribute \"lebel\"; it has: level, title, ratio, locked, fixed"));
}

TEST_F(ByNameTest, AWrongTypeNamesWhatWasExpectedAndWhatCame) {
  EXPECT_EQ("level expects a value of type U8, got 256",
            errorOf([&] { type_.write(*sample_, "level", U64{256}); }));
  EXPECT_EQ("level expects a value of type U8, got \"x\"",
            errorOf([&] { type_.write(*sample_, "level", std::string("x")); }));
  EXPECT_EQ("level expects a value of type U8, got true",
            errorOf([&] { type_.write(*sample_, "level", true); }));
  EXPECT_EQ("level expects a value of type U8, got 1.5",
            errorOf([&] { type_.write(*sample_, "level", 1.5); }));
  EXPECT_EQ("locked expects a value of type bool, got 1",
            errorOf([&] { type_.write(*sample_, "locked", U64{1}); }));
  EXPECT_EQ("title expects a value of type text, got nothing",
            errorOf([&] { type_.write(*sample_, "title", Value()); }));
  EXPECT_EQ(0, sample_->level());
}

TEST_F(ByNameTest, WhatCannotBeWrittenReadOrInvokedSaysSo) {
  EXPECT_EQ("fixed of OstraTest::Sample cannot be written",
            errorOf([&] { type_.write(*sample_, "fixed", U64{1}); }));
  EXPECT_EQ("ordered of OstraTest::Sample is not a scalar attribute",
            errorOf([&] { type_.read(*sample_, "ordered"); }));
  EXPECT_EQ("level of OstraTest::Sample is not a collection",
            errorOf([&] { type_.members(*sample_, "level"); }));
  EXPECT_EQ("level of OstraTest::Sample cannot be invoked",
            errorOf([&] { type_.invoke(*sample_, "level"); }));
}

TEST_F(ByNameTest, ARefusalHoldsForOutsidersAndSaysWhy) {
  sample_->lockedIs(true);
  EXPECT_EQ("level of OstraTest::Sample cannot be written: it is locked",
            errorOf([&] { type_.writeFromOutside(*sample_, "level", U64{1}); }));
  type_.write(*sample_, "level", U64{2});
  EXPECT_EQ(2, sample_->level()) << "the process itself may";
  sample_->lockedIs(false);
  type_.writeFromOutside(*sample_, "level", U64{3});
  EXPECT_EQ(3, sample_->level());
}

TEST_F(ByNameTest, OperationsTakeTheirArguments) {
  type_.invoke(*sample_, "add", {U64{5}});
  EXPECT_EQ(5, sample_->level());
  EXPECT_EQ("add takes 1 arguments, got 0", errorOf([&] { type_.invoke(*sample_, "add"); }));
  EXPECT_EQ("add expects a value of type U8, got \"5\"",
            errorOf([&] { type_.invoke(*sample_, "add", {std::string("5")}); }));
  EXPECT_THROW(type_.invoke(*sample_, "fail"), std::runtime_error);
}

TEST_F(ByNameTest, AnOperationsResultComesBack) {
  sample_->levelIs(5);
  EXPECT_EQ(Value(U64{12}), type_.invoke(*sample_, "above", {U64{7}}));
  EXPECT_EQ(Value(), type_.invoke(*sample_, "add", {U64{1}})) << "it returns nothing";
  EXPECT_EQ(Value(), type_.invoke(*sample_, "reached")) << "it returns what no value can hold";
  EXPECT_EQ(6, sample_->level());
}

TEST_F(ByNameTest, AnOperationMayBeRefusedToOutsiders) {
  EXPECT_EQ("no exception", errorOf([&] { type_.checkOutsider(*sample_, "above"); }));
  sample_->lockedIs(true);
  EXPECT_EQ("above of OstraTest::Sample cannot be invoked: it is locked",
            errorOf([&] { type_.checkOutsider(*sample_, "above"); }));
  EXPECT_EQ(Value(U64{1}), type_.invoke(*sample_, "above", {U64{1}})) << "the process itself may";
}

TEST_F(ByNameTest, MembersAreReadAndWrittenOneByOneAndAll) {
  type_.memberIs(*sample_, "ordered", U64{2}, std::string("two"));
  type_.memberIs(*sample_, "ordered", U64{1}, std::string("one"));
  EXPECT_THAT(type_.members(*sample_, "ordered"),
              ElementsAre(Pair(Value(U64{1}), Value(std::string("one"))),
                          Pair(Value(U64{2}), Value(std::string("two")))));
  EXPECT_EQ(Value(std::string("two")), type_.member(*sample_, "ordered", U64{2}));
  EXPECT_EQ(std::nullopt, type_.member(*sample_, "ordered", U64{3}));
  type_.memberDel(*sample_, "ordered", U64{2});
  EXPECT_EQ(std::nullopt, type_.member(*sample_, "ordered", U64{2}));
  EXPECT_EQ("ordered expects a value of type U32, got 4294967296",
            errorOf([&] { type_.member(*sample_, "ordered", U64{1} << 32); }));
}

// A walk in slices reaches every member that stays, whatever comes and goes between two slices.
class WalkTest : public testing::TestWithParam<char const*> {};

TEST_P(WalkTest, ReachesEveryMemberThatStays) {
  constexpr U64 members = 11'000;  // a hash map falls into pieces meanwhile
  std::string const name = GetParam();
  Ostra::TypeInfo const& type = Sample::staticType();
  Sample sample("sample");
  Value const value = name == "ordered" ? Value(std::string("x")) : Value(U64{1});
  for (U64 k = 0; k < members; ++k) type.memberIs(sample, name, k, value);
  std::set<U64> seen;
  Ostra::MemberCursor cursor;
  U64 comes = members, goes = 0, slices = 0;
  while (!cursor.done) {
    Ostra::Members slice;
    type.membersFrom(sample, name, cursor, 64, slice);
    ASSERT_LE(slice.size(), 64u) << "a slice is a slice";
    for (auto const& [k, v] : slice) {
      EXPECT_EQ(value, v);
      seen.insert(std::get<U64>(k));
    }
    for (int i = 0; i < 100 && comes < 2 * members; ++i) type.memberIs(sample, name, U64{comes++}, value);
    for (int i = 0; i < 5 && goes < 1000; ++i) type.memberDel(sample, name, U64{goes++});
    ASSERT_LT(++slices, 10000u) << "the walk ends";
  }
  for (U64 k = 1000; k < members; ++k) ASSERT_TRUE(seen.contains(k)) << k;
}

// Keys in sixteen small maps. Counts how often the members of each are gone through.
class Pieces {
 public:
  class Piece : public boost::unordered_flat_map<U64, U64> {
   public:
    auto begin() const {
      ++walks;
      return boost::unordered_flat_map<U64, U64>::begin();
    }
    int mutable walks = 0;
  };
  std::array<Piece, 16> const& pieces() const { return pieces_; }
  Piece& of(U64 key) { return pieces_[key % 16]; }
  auto find(U64 key) const { return pieces_[key % 16].find(key); }
  auto begin() const { return pieces_[0].begin(); }
  auto end() const { return pieces_[15].end(); }
  int walks() const {
    int all = 0;
    for (Piece const& piece : pieces_) all += piece.walks;
    return all;
  }

 private:
  std::array<Piece, 16> pieces_;
};

class InPieces : public Ostra::Described {
 public:
  Pieces const& members() const { return members_; }
  static Ostra::TypeInfo const& staticType() {
    static Ostra::TypeInfo const type =
        Ostra::TypeInfo::of<InPieces>("OstraTest::InPieces").collection("members", &InPieces::members);
    return type;
  }
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

  Pieces members_;
};

TEST(WalkOfPiecesTest, CopiesKeysOfOnePieceAtATime) {
  InPieces object;
  for (U64 k = 0; k < 3200; ++k) object.members_.of(k)[k] = k;
  Ostra::MemberCursor cursor;
  std::set<U64> seen;
  U64 comes = 3200, goes = 0;
  for (int slice = 0; !cursor.done; ++slice) {
    int const before = object.members_.walks();
    Ostra::Members members;
    InPieces::staticType().membersFrom(object, "members", cursor, 64, members);
    EXPECT_LE(members.size(), 64u);
    EXPECT_LE(object.members_.walks() - before, 1)
        << "of 200 keys and more, a slice comes to one piece's end";
    for (auto const& [k, v] : members) seen.insert(std::get<U64>(k));
    for (int i = 0; i < 20; ++i, ++comes) object.members_.of(comes)[comes] = 1;
    for (int i = 0; i < 5; ++i, ++goes) object.members_.of(goes).erase(goes);
    ASSERT_LT(slice, 1000) << "the walk ends";
  }
  EXPECT_EQ(16, object.members_.walks());
  for (U64 k = goes; k < 3200; ++k) ASSERT_TRUE(seen.contains(k)) << k;
}

TEST_P(WalkTest, OfNothingEndsAtOnce) {
  Sample const sample("sample");
  Ostra::MemberCursor cursor;
  Ostra::Members slice;
  Sample::staticType().membersFrom(sample, GetParam(), cursor, 64, slice);
  EXPECT_TRUE(cursor.done);
  EXPECT_TRUE(slice.empty());
}

INSTANTIATE_TEST_SUITE_P(Every, WalkTest, testing::Values("ordered", "hashed"));

}  // namespace
}  // namespace OstraTest
