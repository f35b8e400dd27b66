// The request reader without sockets: the head limit and the small parsers it relies on.
#include "api/LocalAPIRequestReader.h"

#include <gtest/gtest.h>

namespace quillane {
namespace {

using Outcome = LocalAPIRequestReader::Outcome;
using LocalAPIHTTP::parseDecimal;
using LocalAPIHTTP::percentDecode;

TEST(RequestReader, HeaderLimitCountsTheWholeBufferEvenWhenTheHeadIsComplete) {
  LocalAPIRequestReader reader;
  ASSERT_EQ(
      reader.receive("GET / HTTP/1.1\r\nX: " + std::string(LocalAPIRequestReader::headerLimit - 40, 'a')),
      Outcome::needMore);
  // This chunk both completes the head and pushes the buffer past the limit.
  EXPECT_EQ(reader.receive("\r\n\r\n" + std::string(100, 'b')), Outcome::malformed);

  std::string head = "GET / HTTP/1.1\r\nX: ";
  head.append(LocalAPIRequestReader::headerLimit - head.size() - 4, 'a');
  head += "\r\n\r\n";
  EXPECT_EQ(LocalAPIRequestReader().receive(head), Outcome::request) << "exactly at the limit";
}

TEST(RequestReader, ContentLengthAndPercentEscapesAreReadStrictly) {
  EXPECT_EQ(parseDecimal("+5"), 5);
  for (const char* bad : {"", "+", "9223372036854775808", " 1", "1e3", "+-1"})
    EXPECT_EQ(parseDecimal(bad), std::nullopt) << bad;
  // Too big for 64 bits counts as no length at all, not as too large.
  EXPECT_EQ(
      LocalAPIRequestReader().receive("POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n"),
      Outcome::request);
  // Broken escapes, a cut sequence, a surrogate and an overlong "/" are refused.
  EXPECT_EQ(percentDecode("%C3%A9t%C3%A9"), "été");
  for (const char* bad : {"100%", "%g1", "%C3", "%ED%A0%80", "%C0%AF"})
    EXPECT_EQ(percentDecode(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace quillane
