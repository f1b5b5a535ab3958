// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "ostra/exception.h"
#include "pallo/exception.h"
#include "shoal/local_table.h"
#include "vantrel/core/tables.h"

using namespace Vantrel;
using Traits = Shoal::RecordTraits<EntryConfig>;

// From a whole image.
EntryConfig decoded(std::byte const* image, Shoal::Extent extent = {12, 65}) {
  EntryConfig r = Traits::unset();
  std::memcpy(Traits::image(r), image, Traits::bytes);
  Traits::accept(r, extent);
  return r;
}

namespace {

constexpr char rangeText[] = "TableKey::value < TableKey::min or > TableKey::max not allowed";

EntryConfig full() {
  EntryConfig c(EntryKey(0x0102030405060708U), OpId(0x1112131415161718U), 0x21222324U, 0x3132, 0x41424344U);
  for (unsigned i = 0; i <= TableKey::max; ++i) c.tableIndexIs(TableKey(i), 100 + i);
  for (unsigned i = 0; i <= DataKey::max; ++i) c.dataIs(DataKey(i), 1000 + i);
  return c;
}

template <class Exception, class Call>
std::string textOf(Call call) {
  try {
    call();
  } catch (Exception const& e) {
    return e.what();
  }
  return "nothing was thrown";
}

}  // namespace

TEST(EntryConfig, AbsentKeyReadsAsTheEmptyConfiguration) {
  auto const table = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  EXPECT_EQ(table->entry(EntryKey(7)), EntryConfig(EntryKey(0), OpId(0), 0, 0, 0));
  EXPECT_TRUE(table->entry(EntryKey(7)).empty());
}

TEST(EntryConfig, PresentKeyWithNothingElseSetIsNotEmpty) {
  EXPECT_NE(EntryConfig(EntryKey(1), OpId(0), 0, 0, 0), EntryConfig());
  EXPECT_FALSE(EntryConfig(EntryKey(1), OpId(0), 0, 0, 0).empty());
}

TEST(EntryConfig, EveryFieldTakesPartInEquality) {
  EntryConfig const base(EntryKey(1), OpId(2), 3, 4, 5);
  EXPECT_EQ(base, EntryConfig(EntryKey(1), OpId(2), 3, 4, 5));
  EXPECT_NE(base, EntryConfig(EntryKey(9), OpId(2), 3, 4, 5));
  EXPECT_NE(base, EntryConfig(EntryKey(1), OpId(9), 3, 4, 5));
  EXPECT_NE(base, EntryConfig(EntryKey(1), OpId(2), 9, 4, 5));
  EXPECT_NE(base, EntryConfig(EntryKey(1), OpId(2), 3, 9, 5));
  EXPECT_NE(base, EntryConfig(EntryKey(1), OpId(2), 3, 4, 9));
  EntryConfig other = base;
  other.tableIndexIs(TableKey(0), 0);
  EXPECT_NE(base, other);
  other = base;
  other.dataIs(DataKey(0), 0);
  EXPECT_NE(base, other);
  other = base;
  other.isDelIs(true);
  EXPECT_NE(base, other);
}

TEST(EntryConfig, SettingElementZeroOfAnEmptyArrayMakesOne) {
  EntryConfig c(EntryKey(1), OpId(1), 1, 0, 0);
  c.tableIndexIs(TableKey(0), 77);
  EXPECT_EQ(c.tableIndexs(), 1U);
  EXPECT_EQ(c.tableIndex(TableKey(0)), 77U);
}

TEST(EntryConfig, SettingAnIndexBeyondTheCountFillsWithZeroes) {
  EntryConfig c(EntryKey(1), OpId(1), 1, 0, 0);
  c.tableIndexIs(TableKey(3), 9);
  EXPECT_EQ(c.tableIndexs(), 4U);
  EXPECT_EQ(c.tableIndex(TableKey(2)), 0U);
  c.tableIndexIs(TableKey(1), 5);
  EXPECT_EQ(c.tableIndexs(), 4U);
}

TEST(EntryConfig, CopiesAllTableIndexesAndDataWords) {
  EntryConfig const c = full();
  EntryConfig const copy = c;
  EXPECT_EQ(copy, c);
  EXPECT_EQ(copy.tableIndexs(), 17U);
  EXPECT_EQ(copy.datas(), 64U);
  std::byte image[Traits::bytes];
  Traits::encode(c, image);
  EXPECT_EQ(decoded(image), c);
  Shoal::Extent const least = Traits::encode(EntryConfig(EntryKey(7), OpId(8), 9, 1, 10), image);
  EXPECT_EQ(least.head, 4U);
  EXPECT_EQ(least.tail, 1U);
  EXPECT_EQ(decoded(image, least), EntryConfig(EntryKey(7), OpId(8), 9, 1, 10)) << "no element at all";
}

TEST(EntryConfig, ImageFollowsTheFieldOrder) {
  EntryConfig c(EntryKey(0x0102030405060708U), OpId(0x1112131415161718U), 0x21222324U, 0x3132, 0x41424344U);
  c.tableIndexIs(TableKey(0), 0x51525354U);
  c.dataIs(DataKey(0), 0x6162636465666768U);
  c.isDelIs(true);
  std::byte image[Traits::bytes];
  std::memset(image, 0xEE, sizeof image);
  Shoal::Extent const extent = Traits::encode(c, image);
  auto const at = [&image]<class T>(std::size_t offset, T value) {
    std::memcpy(&value, image + offset, sizeof value);
    return value;
  };
  EXPECT_EQ(at(0, U64{}), 0x0102030405060708U);
  EXPECT_EQ(at(8, U64{}), 0x1112131415161718U);
  EXPECT_EQ(at(16, U32{}), 0x21222324U);
  EXPECT_EQ(at(20, U16{}), 0x3132);
  EXPECT_EQ(at(22, U16{}), 1);
  EXPECT_EQ(at(24, U32{}), 0x41424344U);
  EXPECT_EQ(at(28, U32{}), 1U);
  EXPECT_EQ(at(32, U32{}), 0x51525354U);
  EXPECT_EQ(at(36, U32{}), 0U);
  EXPECT_EQ(at(100, U32{}), 1U);
  EXPECT_EQ(at(104, U64{}), 0x6162636465666768U);
  EXPECT_EQ(at(96, U32{}), 0U);
  EXPECT_EQ(extent.head, 5U);
  EXPECT_EQ(extent.tail, 2U);
  EXPECT_EQ(Traits::bytes, 616U);
}

TEST(EntryConfig, OneTableIndexTooManyThrowsNamingSeventeen) {
  std::byte image[Traits::bytes];
  Traits::encode(full(), image);
  U32 const count = 18;
  std::memcpy(image + 28, &count, sizeof count);
  std::string const text = textOf<Pallo::InvalidSizeException>([&] { decoded(image); });
  EXPECT_THAT(
      text, testing::StartsWith("PodArray::set expected size <= 17, instead got 18. Buffer is at address: "));
  // Eighteen elements, the last of which is the next field's bytes.
  std::size_t const dump = text.find(" with contents: ");
  ASSERT_NE(dump, std::string::npos);
  EXPECT_EQ(text.size() - dump - std::strlen(" with contents: "), 2U * 18 * 4);
  EXPECT_THAT(text, testing::HasSubstr(" with contents: 64000000"));
}

TEST(EntryConfig, OneDataWordTooManyThrowsNamingSixtyFour) {
  std::byte image[Traits::bytes];
  Traits::encode(full(), image);
  U32 const count = 65;
  std::memcpy(image + 100, &count, sizeof count);
  EXPECT_THAT(
      textOf<Pallo::InvalidSizeException>([&] { decoded(image); }),
      testing::StartsWith("PodArray::set expected size <= 64, instead got 65. Buffer is at address: "));
}

TEST(EntryConfig, AnAbsurdCountDumpsNoMoreThanTheRecordHolds) {
  std::byte image[Traits::bytes];
  Traits::encode(full(), image);
  U32 const count = 0xFFFFFFFF;
  std::memcpy(image + 100, &count, sizeof count);
  std::string const text = textOf<Pallo::InvalidSizeException>([&] { decoded(image); });
  EXPECT_THAT(text, testing::HasSubstr("instead got 4294967295"));
  EXPECT_LT(text.size(), 2U * 512 + 200);
}

TEST(EntryConfig, ImageTooShortForItsCountsIsDamage) {
  std::byte image[Traits::bytes];
  Shoal::Extent const whole = Traits::encode(full(), image);
  EXPECT_EQ(decoded(image, whole), full());
  for (U32 head = 0; head < whole.head; ++head)
    EXPECT_THROW(decoded(image, {head, whole.tail}), Pallo::CorruptionDetectedException) << head;
  for (U32 tail = 0; tail < whole.tail; ++tail)
    EXPECT_THROW(decoded(image, {whole.head, tail}), Pallo::CorruptionDetectedException) << tail;
}

TEST(TableKey, OutsideItsRangeRaisesTheRangeError) {
  EXPECT_EQ(textOf<Ostra::RangeException>([] { TableKey(17); }), rangeText);
  TableKey last(16);
  EXPECT_EQ(textOf<Ostra::RangeException>([&] { ++last; }), rangeText);
  EXPECT_EQ(last.value(), 16U);
  TableKey first(0);
  EXPECT_EQ(textOf<Ostra::RangeException>([&] { --first; }), rangeText);
  EXPECT_EQ((++first).value(), 1U);
  EXPECT_EQ(TableKey::min, 0U);
  EXPECT_EQ(TableKey::max, 16U);
}

TEST(DataKey, OutsideItsRangeRaisesARangeError) {
  EXPECT_NO_THROW(DataKey(63));
  EXPECT_THROW(DataKey(64), Ostra::RangeException);
}

TEST(OpId, DeleteMarkerExceedsEveryOrdinaryVersion) {
  EXPECT_EQ(OpId::deleteAcknowledge().value(), 0xFFFFFFFFFFFF0000U);
  EXPECT_GT(OpId::deleteAcknowledge(), OpId(0xFFFFFFFFFFFEFFFFU));
  EXPECT_GT(OpId(0x8000000000000000U), OpId(0x7FFFFFFFFFFFFFFFU));
  EXPECT_EQ(OpId(0x12345678).low(), 0x5678);
  EXPECT_EQ(OpId(0x12345678).high(), 0x1234U);
}

TEST(EntryKey, OrdersAndHashesByValue) {
  EXPECT_LT(EntryKey(1), EntryKey(0xFFFFFFFFFFFFFFFFU));
  EXPECT_EQ(EntryKey(5).hash(), EntryKey(5).hash());
  EXPECT_NE(EntryKey(5).hash(), EntryKey(6).hash());
  EXPECT_EQ(hash_value(EntryKey(5)), EntryKey(5).hash());
  EXPECT_EQ(std::hash<EntryKey>{}(EntryKey(5)), EntryKey(5).hash());
  std::ostringstream out;
  out << EntryKey(18446744073709551615U) << ' ' << OpId(65537);
  EXPECT_EQ(out.str(), "18446744073709551615 65537");
}

TEST(EntryStatus, ImageIsKeyAndOpId) {
  using StatusTraits = Shoal::RecordTraits<EntryStatus>;
  std::byte image[StatusTraits::bytes];
  EntryStatus const s(EntryKey(3), OpId::deleteAcknowledge());
  StatusTraits::encode(s, image);
  EntryStatus copy = StatusTraits::unset();
  std::memcpy(StatusTraits::image(copy), image, sizeof image);
  StatusTraits::accept(copy, {2, 0});
  EXPECT_EQ(copy, s);
  EXPECT_THROW(StatusTraits::accept(copy, {1, 0}), Pallo::CorruptionDetectedException);
  EXPECT_EQ(StatusTraits::bytes, 16U);
}

namespace {
class Damaged : public Shoal::LocalTable<EntryConfig> {
 public:
  EntryConfig entry(EntryKey const&) const override { throw Pallo::CorruptionDetectedException("checksum"); }
};
}  // namespace

TEST(ReadEntry, DamageIsReportedToTheTableAndReadsAsEmpty) {
  auto const table = Ostra::make<Damaged>();
  EXPECT_TRUE(readEntry(*table, EntryKey(1)).empty());
  EXPECT_EQ(table->corruptions(), 1U);
  EXPECT_EQ(table->lastCorruption(), "checksum");
}
