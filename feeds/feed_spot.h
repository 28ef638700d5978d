// The sentence a feed spot enters intake as: a "PC11" (feeds know no spotter address, and a
// "PC61" without one would be noted as odd and refused by peers), built once so that the
// wiring hands it to SpotIntake::Process unchanged.
//
//   PC11^14025.1^K1ABC^14-Mar-2026^1854Z^CW    18 dB 26 WPM CQ V3^DL1ABC-#^XX0QX^H30^~
#pragma once

#include <string>
#include <string_view>

#include "core/time_text.h"
#include "spots/intake.h"
#include "spots/spot.h"

namespace qx {

// The widest comment a user's "DX de" line shows in full; feed comments are built to fit
// so that the tag at their end stays visible.
inline constexpr size_t kFeedCommentWidth = 27;

struct FeedSpotFields {
  std::string_view freq_text;  // kHz, "14025.1"
  std::string_view dx_call;
  SysTime time{};  // gives the date and "HHnnZ" texts
  std::string_view comment;
  std::string_view spotter;
  std::string_view origin_node;
  std::string_view hops = "H30";
};

// Replaces out with the sentence.  No field may hold "^" or a control character; the
// feed parsers guarantee it for what they pass.
void BuildFeedSentence(const FeedSpotFields& fields, std::string& out);

// The request that hands a feed spot to intake: feed comments are built here and carry no
// requests, so the request filter is skipped.  Nor does the spot meet the duplicate check of
// people's and nodes' spots (and it leaves no trace there): feeds judge repeats by their own
// rules (one verified spot per call and band per dupe window; one reporter spot per station
// per window), which know a QSY and a verified spot after an unverified one as news, and a
// person's spot of a call a skimmer just reported must not be refused either.
inline IntakeRequest FeedIntakeRequest(std::string_view sentence, SpotSource source,
                                       int source_stream) {
  IntakeRequest r;
  r.sentence = sentence;
  r.source = source;
  r.source_stream = source_stream;
  r.skip_request_filter = true;
  r.skip_dupe_check = true;
  return r;
}

// Appends " word" to comment when the result stays within width; false when it would not.
bool AppendWordWithin(std::string& comment, std::string_view word, size_t width);

}  // namespace qx
