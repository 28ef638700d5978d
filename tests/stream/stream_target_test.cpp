#include "stream/stream_target.h"

#include <gtest/gtest.h>

namespace qx {
namespace {

TEST(StreamTargetTest, PercentDecodingLeavesControlCharactersOut) {
  EXPECT_EQ(PercentDecode("a%20b+c%2B%zz%4", true), "a b c+%zz%4");
  EXPECT_EQ(PercentDecode("a+b", false), "a+b");
  EXPECT_EQ(PercentDecode("x%00%07%0d%0Ay%7f", true), "xy");
}

TEST(StreamTargetTest, WebSocketRequestIsRead) {
  const StreamRequest r = ParseStreamKind(
      "ws:/stream?since=1234&filter=accept%2Fspots%20on%2020m&call=k1abc&password=p%26w&x=1");
  EXPECT_EQ(r.status, 200) << r.error;
  EXPECT_EQ(r.kind, StreamKind::kWebSocket);
  EXPECT_TRUE(r.has_since);
  EXPECT_EQ(r.since, 1234u);
  EXPECT_EQ(r.filter, "accept/spots on 20m");
  EXPECT_EQ(r.call, "K1ABC");
  EXPECT_EQ(r.password, "p&w");

  const StreamRequest bare = ParseStreamKind("ws:/stream");
  EXPECT_EQ(bare.status, 200);
  EXPECT_FALSE(bare.has_since);
}

TEST(StreamTargetTest, TypesNameWhatAStreamCarries) {
  EXPECT_EQ(ParseStreamKind("ws:/stream").types, kStreamSpots);
  EXPECT_EQ(ParseStreamKind("ws:/stream?types=announce").types, kStreamAnnounce);
  EXPECT_EQ(ParseStreamKind("ws:/stream?types=spot,WWV,%20wcy%20,,").types,
            kStreamSpots | kStreamWwv | kStreamWcy);
  EXPECT_EQ(ParseStreamKind("ws:/stream?types=wwv,all").types, kStreamAllTypes);
  // Every unknown name is told at once; a list that names nothing is no default.
  const StreamRequest bad = ParseStreamKind("ws:/stream?types=spot,talk,moon");
  EXPECT_EQ(bad.status, 400);
  EXPECT_NE(bad.error.find("talk, moon"), std::string::npos) << bad.error;
  EXPECT_EQ(ParseStreamKind("ws:/stream?types=").status, 400);
  EXPECT_EQ(ParseStreamKind("ws:/stream?types=,").status, 400);
  // A poll answers an array of spots, so it cannot carry anything else.
  EXPECT_EQ(ParseStreamKind("http:/spots?types=spot").status, 200);
  EXPECT_EQ(ParseStreamKind("http:/spots?types=spot,wwv").status, 400);
}

TEST(StreamTargetTest, PollLimitAndRefusals) {
  EXPECT_EQ(ParseStreamKind("http:/spots").limit, StreamRequest::kDefaultLimit);
  EXPECT_EQ(ParseStreamKind("http:/spots?limit=5000").limit, StreamRequest::kMaxLimit);
  EXPECT_EQ(ParseStreamKind("http:/spots?limit=7&since=3").limit, 7u);
  EXPECT_EQ(ParseStreamKind("http:/spots?limit=0").status, 400);
  EXPECT_EQ(ParseStreamKind("http:/spots?limit=-1").status, 400);
  EXPECT_EQ(ParseStreamKind("ws:/stream?since=12a").status, 400);
  EXPECT_EQ(ParseStreamKind("ws:/stream?since=99999999999999999999").status, 400);
  EXPECT_EQ(ParseStreamKind("ws:/spots").status, 404);
  EXPECT_EQ(ParseStreamKind("http:/stream").status, 404);
  EXPECT_EQ(ParseStreamKind("ws:stream").status, 400);
  EXPECT_EQ(ParseStreamKind("in").status, 400);
  EXPECT_TRUE(IsJsonStreamKind("http:/spots"));
  EXPECT_FALSE(IsJsonStreamKind("out:DB0ABC"));
}

}  // namespace
}  // namespace qx
