// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/parse.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/apps/acl/random_rules.h"

namespace Acl {
namespace {

constexpr char const* good = "@10.0.0.0/8\t192.0.2.1/32\t0 : 65535\t80 : 443\t0x06/0xFF\t0x0200/0x1200\t";

TEST(ParseTest, ReadsEveryField) {
  std::vector<Rule> const rules = parse(good, "f");
  ASSERT_EQ(rules.size(), 1U);
  Rule const& r = rules[0];
  EXPECT_EQ(r.source, (Ternary<U32>{0x0A000000, 0xFF000000}));
  EXPECT_EQ(r.destination, (Ternary<U32>{0xC0000201, 0xFFFFFFFF}));
  EXPECT_EQ(r.sourcePort, (Range{0, 65535}));
  EXPECT_EQ(r.destinationPort, (Range{80, 443}));
  EXPECT_EQ(r.protocol, (Ternary<U8>{6, 0xFF}));
  EXPECT_EQ(r.flags, (Ternary<U16>{0x0200, 0x1200}));
  EXPECT_EQ(r.action, (Action{ActionKind::Permit, 0}));
}

TEST(ParseTest, ReadsActions) {
  auto const action = [](std::string const& suffix) { return parse(good + suffix, "f").at(0).action; };
  EXPECT_EQ(action("permit"), (Action{ActionKind::Permit, 0}));
  EXPECT_EQ(action("deny\t"), (Action{ActionKind::Deny, 0}));
  EXPECT_EQ(action("mark 4294967295"), (Action{ActionKind::Mark, 4294967295}));
}

TEST(ParseTest, SkipsBlanksCommentsAndCarriageReturns) {
  std::string const spaced = "@10.0.0.0/8 192.0.2.1/32 0:65535   80  :443 0x06/0xFF\t \t0x0200/0x1200\r\n";
  std::string const file = "# edge filter\n\n" + spaced + "   \n \t# more\n" + good + "\n";
  EXPECT_EQ(parse(file, "f"), (std::vector{parse(good, "f")[0], parse(good, "f")[0]}));
  EXPECT_TRUE(parse("", "f").empty());
}

TEST(ParseTest, BitsThatNobodyLooksAtAreDropped) {
  Rule const r = parse("@10.1.2.3/8 1.2.3.4/0 0 : 0 0 : 0 0x07/0x03 0xffff/0x0000", "f").at(0);
  EXPECT_EQ(r.source.value, 0x0A000000U);
  EXPECT_EQ(r.destination, (Ternary<U32>{0, 0}));
  EXPECT_EQ(r.protocol, (Ternary<U8>{3, 3}));
  EXPECT_EQ(r.flags, (Ternary<U16>{0, 0}));
}

TEST(ParseTest, TextIsReadBack) {
  std::mt19937 random(4);
  for (int i = 0; i < 500; ++i) {
    Rule rule = randomRule(random);
    rule.action.kind = static_cast<ActionKind>(i % 3);
    if (rule.action.kind == ActionKind::Mark) rule.action.argument = static_cast<U32>(i);
    ASSERT_EQ(parse(text(rule), "f").at(0), rule);
  }
}

struct Malformed {
  char const* line;
  char const* error;
};

class MalformedTest : public testing::TestWithParam<Malformed> {};

TEST_P(MalformedTest, IsSaidExactly) {
  std::string const file = std::string(good) + "\n# a comment\n" + GetParam().line + "\n" + good + "\n";
  try {
    parse(file, "edge.rules");
    FAIL() << "it was taken";
  } catch (ParseError const& error) {
    EXPECT_STREQ(error.what(), GetParam().error);
    EXPECT_EQ(error.line(), 3U);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, MalformedTest,
    testing::Values(
        Malformed{"10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:1: expected '@' before the source address, found \"10.0.0.0/8\""},
        Malformed{"@10.0.256.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:7: expected a number from 0 to 255 in the source address, found \"256.0/8\""},
        Malformed{"@10.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:8: expected '.' inside the address, found \"/8\""},
        Malformed{"@10.0.0.-1/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:9: expected a number from 0 to 255 in the source address, found \"-1/8\""},
        Malformed{"@10.0.0.0 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:10: expected '/' and a prefix length, found \" \""},
        Malformed{"@10.0.0.0/33 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:11: expected a source prefix length from 0 to 32, found \"33\""},
        Malformed{"@10.0.0.0/8,1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:12: expected a blank between the addresses, found \",1.1.1.1/32\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/x 0 : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:21: expected a destination prefix length from 0 to 32, found \"x\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32",
                  "edge.rules:3:23: expected a blank before the source ports, found the end of the line"},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 any : 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:24: expected a source port from 0 to 65535, found \"any\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 - 1 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:26: expected ':' between the ports, found \"-\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 65536 0 : 1 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:28: expected a source port from 0 to 65535, found \"65536\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 90 : 80 0x06/0xFF 0x0/0x0",
                  "edge.rules:3:35: expected a destination port from 90 to 65535, found \"80\""},
        Malformed{
            "@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 6/0xFF 0x0/0x0",
            "edge.rules:3:36: expected the protocol as 0x and up to 2 hexadecimal digits, found \"6/0xFF\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x106/0xFF 0x0/0x0",
                  "edge.rules:3:38: expected the protocol as 0x and up to 2 hexadecimal digits, found "
                  "\"106/0xFF\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x006/0xFF 0x0/0x0",
                  "edge.rules:3:38: expected the protocol as 0x and up to 2 hexadecimal digits, found "
                  "\"006/0xFF\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06 0x0/0x0",
                  "edge.rules:3:40: expected '/' and a mask, found \" \""},
        Malformed{
            "@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/ 0x0/0x0",
            "edge.rules:3:41: expected the protocol mask as 0x and up to 2 hexadecimal digits, found \" \""},
        Malformed{
            "@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x10000/0x0",
            "edge.rules:3:48: expected the flags as 0x and up to 4 hexadecimal digits, found \"10000/0x0\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0 drop",
                  "edge.rules:3:54: expected permit, deny, mark N or the end of the line, found \"drop\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0 mark",
                  "edge.rules:3:58: expected a blank before the mark, found the end of the line"},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0 mark 4294967296",
                  "edge.rules:3:59: expected a mark from 0 to 4294967295, found \"4294967296\""},
        Malformed{"@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0 deny deny",
                  "edge.rules:3:59: expected the end of the line, found \"deny\""},
        Malformed{
            "@10.0.0.0/8 1.1.1.1/32 0 : 1 0 : 1 0x06/0xFF 0x0/0x0 \x01\x80",
            "edge.rules:3:54: expected permit, deny, mark N or the end of the line, found \"\\x01\\x80\""}));

TEST(ParseTest, AFileThatIsNotThereIsNamed) {
  EXPECT_THAT([] { parseFile("/nonexistent/x.rules"); },
              testing::ThrowsMessage<std::runtime_error>(
                  "cannot read the rule file /nonexistent/x.rules: No such file or directory"));
  EXPECT_THAT([] { parseFile("/"); },
              testing::ThrowsMessage<std::runtime_error>("/ is a directory, expected a rule file"));
}

}  // namespace
}  // namespace Acl
