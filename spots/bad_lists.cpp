#include "spots/bad_lists.h"

#include "spots/call_sign.h"

#include <array>
#include <system_error>

#include "core/file_util.h"
#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/text_util.h"
#include "spots/dx_command.h"

namespace qx {

namespace {

// Upper-cases short texts into a stack buffer; longer ones spill into a string.  Look-ups
// on the hot path use it so that a comment word costs no allocation.
class UpperText {
 public:
  explicit UpperText(std::string_view text) {
    if (text.size() <= buf_.size()) {
      for (size_t i = 0; i < text.size(); ++i) buf_[i] = Up(text[i]);
      view_ = std::string_view(buf_.data(), text.size());
    } else {
      spill_ = ToUpper(text);
      view_ = spill_;
    }
  }
  std::string_view view() const { return view_; }

 private:
  static char Up(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }
  std::array<char, 128> buf_;
  std::string spill_;
  std::string_view view_;
};

bool IsAlnumUpper(char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

std::string_view StripTrailingPunctuation(std::string_view word) {
  while (!word.empty() && !IsAlnumUpper(word.back())) word.remove_suffix(1);
  return word;
}

void FillSet(UpperSet& set, const std::vector<std::string>& entries, bool without_ssid) {
  set.clear();
  for (const std::string& e : entries) {
    std::string up = ToUpper(Trim(e));
    if (up.empty()) continue;
    if (without_ssid) up = std::string(BaseCall(up));
    set.insert(std::move(up));
  }
}

bool LoadAddressFile(UpperSet& set, const std::filesystem::path& path) {
  set.clear();
  const std::optional<std::string> text = ReadFileText(path);
  if (!text) return false;
  for (std::string_view line : SplitLines(*text)) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') continue;
    // The first word is the address; exit lists say "ExitAddress <ip> <date> <time>" and
    // carry other lines ("ExitNode ...", "Published ...") that hold none.
    if (StartsWithIgnoreCase(line, "ExitAddress ")) line = Trim(line.substr(12));
    line = line.substr(0, line.find_first_of(" \t"));
    if (line.find_first_of(".:") == std::string_view::npos) continue;
    set.insert(ToUpper(line));
  }
  return true;
}

}  // namespace

// --- bad words ---------------------------------------------------------------------------

size_t BadLists::LoadBadWords(const ProgramDir& dir, Monitor* monitor) {
  if (monitor) monitor->Console("Loading Bad Words");
  const std::filesystem::path fresh = dir.home() / "badwords.txt";
  const std::filesystem::path target = dir.Data("files") / "badwords.txt";
  std::error_code ec;
  if (std::filesystem::exists(fresh, ec)) {
    std::filesystem::create_directories(target.parent_path(), ec);
    std::filesystem::rename(fresh, target, ec);
    if (ec) {
      // Another file system: copy, then remove the original.
      ec.clear();
      std::filesystem::copy_file(fresh, target, std::filesystem::copy_options::overwrite_existing,
                                 ec);
      if (!ec) std::filesystem::remove(fresh, ec);
    }
  }
  const std::optional<std::string> text = ReadFileText(target);
  SetBadWordsText(text ? *text : std::string_view());
  if (monitor) {
    monitor->Console(std::to_string(bad_word_count()) + " found   ... done");
    monitor->Console("Bad Words loaded");
  }
  return bad_word_count();
}

void BadLists::SetBadWordsText(std::string_view text) {
  bad_words_.clear();
  bad_phrases_.clear();
  for (std::string_view line : SplitLines(text)) AddBadWord(line);
}

void BadLists::AddBadWord(std::string_view entry) {
  std::string up = ToUpper(Trim(entry));
  if (up.empty()) return;
  if (up.find(' ') != std::string::npos) {
    bad_phrases_.push_back(std::move(up));
  } else {
    bad_words_.insert(std::move(up));
  }
}

bool BadLists::IsBadWord(std::string_view upper_word) const {
  return !upper_word.empty() && bad_words_.find(upper_word) != bad_words_.end();
}

bool BadLists::CheckWord(std::string_view word, std::string_view* hit) const {
  if (word.size() < 3 || IsReallyNumeric(word)) return false;
  const UpperText up(word);
  std::string_view w = StripTrailingPunctuation(up.view());
  auto found = bad_words_.find(w);
  if (!w.empty() && found != bad_words_.end()) {
    *hit = *found;
    return true;
  }
  if (up.view().find('/') == std::string_view::npos) return false;
  std::string_view rest = up.view();
  while (!rest.empty()) {
    const size_t slash = rest.find('/');
    std::string_view piece = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    if (piece.size() < 3 || IsReallyNumeric(piece)) continue;
    piece = StripTrailingPunctuation(piece);
    found = bad_words_.find(piece);
    if (!piece.empty() && found != bad_words_.end()) {
      *hit = *found;
      return true;
    }
  }
  return false;
}

std::string_view BadLists::FindBadWord(std::string_view text) const {
  if (!bad_words_enabled_ || bad_words_.empty()) return {};
  // "!" and "," count as blanks; runs of separators give no empty words.
  size_t i = 0;
  while (i < text.size()) {
    const auto is_sep = [](char c) { return c == ' ' || c == '!' || c == ','; };
    while (i < text.size() && is_sep(text[i])) ++i;
    const size_t start = i;
    while (i < text.size() && !is_sep(text[i])) ++i;
    if (i > start) {
      std::string_view hit;
      if (CheckWord(text.substr(start, i - start), &hit)) return hit;
    }
  }
  return {};
}

bool BadLists::BadPhraseCheck(std::string_view comment) const {
  if (bad_phrases_.empty()) return false;
  const UpperText up(comment);
  for (const std::string& phrase : bad_phrases_) {
    if (up.view().find(phrase) != std::string_view::npos) return true;
  }
  return false;
}

// --- addresses ---------------------------------------------------------------------------

bool BadLists::LoadRefusedAddresses(const std::filesystem::path& path) {
  return LoadAddressFile(refused_addresses_, path);
}

bool BadLists::LoadTorAddresses(const std::filesystem::path& path) {
  return LoadAddressFile(tor_addresses_, path);
}

void BadLists::AddRefusedAddress(std::string_view address) {
  if (!Trim(address).empty()) refused_addresses_.insert(ToUpper(Trim(address)));
}

void BadLists::AddTorAddress(std::string_view address) {
  if (!Trim(address).empty()) tor_addresses_.insert(ToUpper(Trim(address)));
}

bool BadLists::IsRefusedAddress(std::string_view address) const {
  if (address.empty() || refused_addresses_.empty()) return false;
  return refused_addresses_.find(UpperText(address).view()) != refused_addresses_.end();
}

bool BadLists::IsTorAddress(std::string_view address) const {
  if (address.empty() || tor_addresses_.empty()) return false;
  return tor_addresses_.find(UpperText(address).view()) != tor_addresses_.end();
}

void BadLists::NoteOffence(std::string_view address) {
  address = Trim(address);
  if (address.empty()) return;
  const UpperText up(address);
  auto it = offences_.find(up.view());
  if (it == offences_.end()) it = offences_.emplace(std::string(up.view()), 0).first;
  ++it->second;
  if (auto_refuse_after_ > 0 && it->second >= auto_refuse_after_) {
    refused_addresses_.insert(it->first);
  }
}

int BadLists::offences(std::string_view address) const {
  const auto it = offences_.find(UpperText(Trim(address)).view());
  return it == offences_.end() ? 0 : it->second;
}

// --- calls -------------------------------------------------------------------------------

void BadLists::SetDxNok(const std::vector<std::string>& entries) {
  dx_nok_.clear();
  dx_nok_prefixes_.clear();
  for (const std::string& e : entries) {
    std::string up = ToUpper(Trim(e));
    if (up.empty()) continue;
    if (up.back() == '*') {
      up.pop_back();
      if (!up.empty()) dx_nok_prefixes_.push_back(std::move(up));
    } else {
      dx_nok_.insert(std::move(up));
    }
  }
}

void BadLists::SetSpotterNok(const std::vector<std::string>& entries) {
  FillSet(spotter_nok_, entries, true);
}

void BadLists::SetNodeNok(const std::vector<std::string>& entries) {
  FillSet(node_nok_, entries, true);
}

bool BadLists::IsDxNok(std::string_view call) const {
  if (dx_nok_.empty() && dx_nok_prefixes_.empty()) return false;
  const UpperText up(call);
  if (dx_nok_.find(up.view()) != dx_nok_.end()) return true;
  for (const std::string& p : dx_nok_prefixes_) {
    if (up.view().starts_with(p)) return true;
  }
  return false;
}

bool BadLists::IsSpotterNok(std::string_view call) const {
  if (spotter_nok_.empty()) return false;
  return spotter_nok_.find(BaseCall(UpperText(call).view())) != spotter_nok_.end();
}

bool BadLists::IsNodeNok(std::string_view call) const {
  if (node_nok_.empty()) return false;
  return node_nok_.find(BaseCall(UpperText(call).view())) != node_nok_.end();
}

// --- calls not issued --------------------------------------------------------------------

bool CallNotIssued(std::string_view call) {
  const UpperText up(BaseCall(call));
  const std::string_view c = up.view();
  if (c.empty()) return true;
  if (c.front() == '0' || c.front() == 'Q') return true;
  if (c.front() == '1' && !(c.size() > 1 && (c[1] == 'A' || c[1] == 'S'))) return true;
  static constexpr std::string_view kPlaceholders[] = {"NOCALL", "N0CALL", "MYCALL",
                                                       "CALL",   "TEST",   "SWL"};
  for (std::string_view p : kPlaceholders) {
    if (c == p) return true;
  }
  return false;
}

}  // namespace qx
