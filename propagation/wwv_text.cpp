#include "propagation/wwv_text.h"

#include <cmath>
#include <vector>

#include "core/text_util.h"
#include "core/time_text.h"

namespace qx {
namespace {

using Words = std::vector<std::string>;

// The text in sentences, each as its words (lower case, trailing punctuation kept apart).
// A "." ends a sentence only before white space or the end, so "1.33" stays a number.
std::vector<Words> Sentences(std::string_view text) {
  std::vector<Words> out(1);
  std::string word;
  const auto end_word = [&] {
    while (!word.empty() && (word.back() == ',' || word.back() == ';' || word.back() == ')')) {
      word.pop_back();
    }
    if (!word.empty() && word.front() == '(') word.erase(0, 1);
    if (!word.empty()) out.back().push_back(word);
    word.clear();
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
    const bool stop = c == '.' && (i + 1 == text.size() || text[i + 1] == ' ' ||
                                   text[i + 1] == '\r' || text[i + 1] == '\n');
    if (blank || stop) {
      end_word();
      if (stop && !out.back().empty()) out.emplace_back();
      continue;
    }
    word += char(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  end_word();
  if (out.back().empty()) out.pop_back();
  return out;
}

bool Number(const std::string& word, double& out) { return ParseDouble(word, out); }

// Index of the first word equal to w, or of the first word holding it when contains.
size_t Find(const Words& s, std::string_view w, bool contains = false, size_t from = 0) {
  for (size_t i = from; i < s.size(); ++i) {
    if (contains ? s[i].find(w) != std::string::npos : s[i] == w) return i;
  }
  return s.size();
}

bool Holds(const Words& s, std::string_view a, std::string_view b) {
  const size_t i = Find(s, a);
  return i + 1 < s.size() && s[i + 1] == b;
}

// The figure named by the word holding key, in the first sentence that names it.
bool Figure(const std::vector<Words>& sentences, std::string_view key, double& out) {
  for (const Words& s : sentences) {
    const size_t at = Find(s, key, /*contains=*/true);
    if (at == s.size()) continue;
    // "... was 1.33": when the sentence says it, what follows is the figure or nothing.
    for (std::string_view verb : {"was", "is"}) {
      const size_t v = Find(s, verb, false, at + 1);
      if (v < s.size()) return v + 1 < s.size() && Number(s[v + 1], out);
    }
    // "flux 135", "A-index of 5": the figure comes right after its name, or it is missing
    // (and a number further on belongs to something else).
    size_t i = at + 1;
    while (i < s.size() && (s[i] == "of" || s[i] == "index" || s[i] == ":" || s[i] == "=")) ++i;
    return i < s.size() && Number(s[i], out);
  }
  return false;
}

// "No Storms", "Minor w/R1", "Strong w/G3,R2": the level of the sentence that speaks of the
// period and the scales named in the sentences after it, up to the other period's sentence.
std::string Summary(const std::vector<Words>& sentences, std::string_view period) {
  for (size_t i = 0; i < sentences.size(); ++i) {
    const Words& s = sentences[i];
    if (!Holds(s, period, "24")) continue;
    if (Find(s, "no") < s.size() && Find(s, "storm", /*contains=*/true) < s.size()) {
      return "No Storms";
    }
    std::string level;
    for (std::string_view word : {"minor", "moderate", "strong", "severe", "extreme"}) {
      if (Find(s, word) < s.size()) {
        level = std::string(word);
        level[0] = char(level[0] - 'a' + 'A');
        break;
      }
    }
    std::string scales;
    for (size_t j = i; j < sentences.size(); ++j) {
      if (j > i && (Holds(sentences[j], "past", "24") || Holds(sentences[j], "next", "24"))) break;
      for (const std::string& w : sentences[j]) {
        if (w.size() == 2 && (w[0] == 'r' || w[0] == 's' || w[0] == 'g') && w[1] >= '1' &&
            w[1] <= '5') {
          const std::string scale{char(w[0] - 'a' + 'A'), w[1]};
          if (scales.find(scale) != std::string::npos) continue;
          if (!scales.empty()) scales += ',';
          scales += scale;
        }
      }
    }
    if (level.empty()) level = scales.empty() ? "" : "Storms";
    if (level.empty()) return "";
    return scales.empty() ? level : level + " w/" + scales;
  }
  return "";
}

}  // namespace

bool ParseWwvText(std::string_view text, WwvText& out, std::string& error) {
  // ":Issued: 2024 Jan 05 2105 UTC"
  const size_t issued = text.find(":Issued:");
  if (issued == std::string_view::npos) {
    error = "no issue date";
    return false;
  }
  const std::vector<Words> head =
      Sentences(text.substr(issued + 8, text.find('\n', issued) - issued - 8));
  double year = 0;
  double day = 0;
  double hhmm = 0;
  const Words empty;
  const Words& h = head.empty() ? empty : head[0];
  const int month = h.size() >= 4 ? MonthFromAbbrev(h[1].substr(0, 3)) : 0;
  if (h.size() < 4 || !Number(h[0], year) || month == 0 || !Number(h[2], day) ||
      !Number(h[3], hhmm) || year < 1970 || year > 9999 || day < 1 || day > 31 || hhmm < 0 ||
      hhmm > 2359) {
    error = "no issue date";
    return false;
  }
  const SysTime issue_day = MakeUtc(int(year), month, int(day));
  const int issue_hour = int(hhmm) / 100;

  const std::vector<Words> sentences = Sentences(text);
  double sfi = 0;
  double a = 0;
  double k = 0;
  if (!Figure(sentences, "flux", sfi)) {
    error = "no solar flux";
    return false;
  }
  if (!Figure(sentences, "a-index", a)) {
    error = "no A index";
    return false;
  }
  if (!Figure(sentences, "k-index", k)) {
    error = "no K index";
    return false;
  }
  if (sfi < 0 || sfi > kMaxSfi || a < 0 || a > kMaxA || k < 0 || k > kMaxK) {
    error = "a figure is out of range";
    return false;
  }
  // The hour of the K index ("at 2100 UTC"), which is the hour the report stands for.
  int hour = issue_hour;
  for (const Words& s : sentences) {
    if (Find(s, "k-index", true) == s.size()) continue;
    for (size_t i = 0; i + 1 < s.size(); ++i) {
      double t = 0;
      if (s[i + 1] == "utc" && s[i].size() == 4 && Number(s[i], t) && t >= 0 && t <= 2359) {
        hour = int(t) / 100;
      }
    }
  }
  // Measured late yesterday, issued just after midnight.
  const SysTime day_of_report = hour > issue_hour ? issue_day - std::chrono::hours(24) : issue_day;

  out.date = DateText(day_of_report);
  out.hour = hour;
  out.sfi = int(std::lround(sfi));
  out.a = int(std::lround(a));
  out.k = int(std::lround(k));
  const std::string past = Summary(sentences, "past");
  const std::string next = Summary(sentences, "next");
  if (!past.empty() && !next.empty()) {
    out.forecast = past + " -> " + next;
  } else {
    out.forecast = past.empty() ? next : past;
  }
  return true;
}

}  // namespace qx
