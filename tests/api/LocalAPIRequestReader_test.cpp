// The request reader without sockets: chunking, limits and the small parsers it relies on.
#include <gtest/gtest.h>

#include "api/LocalAPIRequestReader.h"

namespace quillane {
namespace {

using Outcome = LocalAPIRequestReader::Outcome;
using LocalAPIHTTP::parseDecimal;
using LocalAPIHTTP::percentDecode;
using LocalAPIHTTP::splitQuery;

TEST(RequestReader, HeaderLimitCountsTheWholeBufferEvenWhenTheHeadIsComplete) {
  std::string filler = "GET / HTTP/1.1\r\nX: " + std::string(LocalAPIRequestReader::headerLimit - 40, 'a');
  LocalAPIRequestReader reader;
  ASSERT_EQ(reader.receive(filler), Outcome::needMore);
  // This chunk both completes the head and pushes the buffer past the limit.
  EXPECT_EQ(reader.receive("\r\n\r\n" + std::string(100, 'b')), Outcome::malformed);

  LocalAPIRequestReader exact;
  std::string head = "GET / HTTP/1.1\r\nX: ";
  head += std::string(LocalAPIRequestReader::headerLimit - head.size() - 4, 'a') + "\r\n\r\n";
  ASSERT_EQ(head.size(), LocalAPIRequestReader::headerLimit);
  EXPECT_EQ(exact.receive(head), Outcome::request);
}

TEST(RequestReader, EndOfStreamIsMalformedInEitherPhaseAndFinalOutcomesStick) {
  LocalAPIRequestReader head;
  head.receive("GET / HTTP/1.1\r\n");
  EXPECT_EQ(head.end(), Outcome::malformed);
  EXPECT_EQ(head.receive("\r\n"), Outcome::malformed);

  LocalAPIRequestReader body;
  EXPECT_EQ(body.receive("POST / HTTP/1.1\r\nContent-Length: 4\r\n\r\nab"), Outcome::needMore);
  EXPECT_EQ(body.receive(""), Outcome::needMore);
  EXPECT_EQ(body.end(), Outcome::malformed);

  LocalAPIRequestReader tooLarge;
  EXPECT_EQ(tooLarge.receive("POST / HTTP/1.1\r\nContent-Length: 8388609\r\n\r\n"), Outcome::payloadTooLarge);
  EXPECT_EQ(tooLarge.end(), Outcome::payloadTooLarge);
}

TEST(RequestReader, ContentLengthAsPlainDecimalOnly) {
  EXPECT_EQ(parseDecimal("+5"), 5);
  EXPECT_EQ(parseDecimal("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parseDecimal("-9223372036854775808"), INT64_MIN);
  for (const char* bad : {"", "+", "9223372036854775808", "-9223372036854775809", " 1", "1e3", "+-1"}) {
    EXPECT_EQ(parseDecimal(bad), std::nullopt) << bad;
  }
  // Too big for 64 bits counts as no length at all, not as too large.
  LocalAPIRequestReader reader;
  EXPECT_EQ(reader.receive("POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n"), Outcome::request);
  LocalAPIRequestReader negative;
  EXPECT_EQ(negative.receive("POST / HTTP/1.1\r\nContent-Length: -9223372036854775808\r\n\r\n"), Outcome::malformed);
}

TEST(RequestReader, SplitQuery) {
  auto [path, query] = splitQuery("/v1/x?a=b=c&empty=&bare&=lonely&=&&%41%42=%e2%82%ac&plus=a+b&bad=%zz&bad2=%ff&a2=1&a2=2");
  EXPECT_EQ(path, "/v1/x");
  std::map<std::string, std::string> expected{{"a", "b=c"},  {"empty", ""},   {"bare", ""},  {"lonely", ""},
                                              {"AB", "€"},   {"plus", "a+b"}, {"bad", "%zz"}, {"bad2", "%ff"},
                                              {"a2", "2"}};
  EXPECT_EQ(query, expected);

  auto [plainPath, none] = splitQuery("/a%20b");
  EXPECT_EQ(plainPath, "/a%20b");  // the path is never decoded here
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(splitQuery("?").first, "");
}

TEST(RequestReader, PercentDecodeRefusesBrokenEscapesAndNonUTF8) {
  EXPECT_EQ(percentDecode("My%20Profile"), "My Profile");
  EXPECT_EQ(percentDecode("%C3%A9t%C3%A9"), "été");
  EXPECT_EQ(percentDecode("100%"), std::nullopt);
  EXPECT_EQ(percentDecode("%g1"), std::nullopt);
  EXPECT_EQ(percentDecode("%C3"), std::nullopt);
  EXPECT_EQ(percentDecode("%ED%A0%80"), std::nullopt);  // a surrogate
  EXPECT_EQ(percentDecode("%C0%AF"), std::nullopt);     // overlong "/"
}

}  // namespace
}  // namespace quillane
