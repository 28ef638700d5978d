#include "feeds/feed_spot.h"

namespace qx {

void BuildFeedSentence(const FeedSpotFields& f, std::string& out) {
  char date[11];
  char time[5];
  WriteDateText(f.time, date);
  WriteTimeHHnnZ(f.time, time);
  out.clear();
  out += "PC11^";
  out += f.freq_text;
  out += '^';
  out += f.dx_call;
  out += '^';
  out.append(date, sizeof date);
  out += '^';
  out.append(time, sizeof time);
  out += '^';
  out += f.comment;
  out += '^';
  out += f.spotter;
  out += '^';
  out += f.origin_node;
  out += '^';
  out += f.hops;
  out += "^~";
}

bool AppendWordWithin(std::string& comment, std::string_view word, size_t width) {
  if (word.empty()) return true;
  const size_t added = word.size() + (comment.empty() ? 0 : 1);
  if (comment.size() + added > width) return false;
  if (!comment.empty()) comment += ' ';
  comment += word;
  return true;
}

}  // namespace qx
