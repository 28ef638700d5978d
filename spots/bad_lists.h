// The lists intake refuses spots by: bad words and phrases, refused DX calls, spotters and
// origin nodes, refused spotter addresses and anonymity-network exit addresses.  Everything
// is held in upper case and compared in upper case; look-ups take a string_view and do not
// allocate.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace qx {

class Monitor;
class ProgramDir;

// A fast hash for the short texts of spots (calls, words, addresses): eight bytes at a time
// with a multiply-xorshift mix.  Inline, so a look-up costs no library call.
inline uint64_t HashShortText(std::string_view s) noexcept {
  constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;
  uint64_t h = s.size() * kMul;
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w;
    __builtin_memcpy(&w, s.data() + i, 8);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
  }
  uint64_t tail = 0;
  for (size_t k = 0; i < s.size(); ++i, k += 8) tail |= uint64_t(uint8_t(s[i])) << k;
  h = (h ^ tail) * kMul;
  h ^= h >> 32;
  h *= 0xD6E8FEB86659FD93ull;
  h ^= h >> 32;
  return h;
}

struct StringViewHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return HashShortText(s); }
};
using UpperSet = std::unordered_set<std::string, StringViewHash, std::equal_to<>>;

class BadLists {
 public:
  // --- bad words -------------------------------------------------------------------------
  // Moves a "badwords.txt" found in the program directory to data/files/ (replacing the older
  // copy), then loads data/files/badwords.txt.  Writes "Loading Bad Words", "<n> found   ...
  // done" and "Bad Words loaded" to the console.  Returns the number of entries.
  size_t LoadBadWords(const ProgramDir& dir, Monitor* monitor);
  // The file's text: one word or phrase a line; entries holding blanks are phrases.
  void SetBadWordsText(std::string_view text);
  void AddBadWord(std::string_view entry);
  // The bad-word test as a whole can be switched off; phrases and lists stay active.
  void set_bad_words_enabled(bool on) { bad_words_enabled_ = on; }
  bool bad_words_enabled() const { return bad_words_enabled_; }
  size_t bad_word_count() const { return bad_words_.size() + bad_phrases_.size(); }

  // The first bad word in text by the word rules (blanks, "!" and "," separate words; words
  // of one or two characters and numbers are skipped; trailing punctuation is stripped; a
  // word holding "/" is also tried piece by piece).  Empty when none or when switched off.
  std::string_view FindBadWord(std::string_view text) const;
  // True when a bad phrase (an entry holding a blank) occurs in comment, ignoring case.
  bool BadPhraseCheck(std::string_view comment) const;

  // --- addresses -------------------------------------------------------------------------
  // data/files/ipnotok.dat and data/files/torlist.dat: one address a line; "#" lines are
  // comments; an exit-list line "ExitAddress <ip> ..." gives its address.  False when the
  // file cannot be read (the list is then left empty).
  bool LoadRefusedAddresses(const std::filesystem::path& path);
  bool LoadTorAddresses(const std::filesystem::path& path);
  void AddRefusedAddress(std::string_view address);
  void AddTorAddress(std::string_view address);
  bool IsRefusedAddress(std::string_view address) const;
  bool IsTorAddress(std::string_view address) const;
  // The address-refusal routine: spots refused for their words or an unissued spotter call
  // count against the spotter's address.  The sysop decides what goes into ipnotok.dat, so
  // by default this only counts; with a threshold set, an address that reaches it is refused
  // in memory (until the next load) -- a brake on a flood from one address.
  void NoteOffence(std::string_view address);
  void set_auto_refuse_after(int offences) { auto_refuse_after_ = offences; }
  int offences(std::string_view address) const;

  // --- calls -----------------------------------------------------------------------------
  // Filled from the configuration lists.  Refused DX calls: an entry matches the whole call,
  // or, ending in "*", every call that begins with the text before it ("K1AB*").  Spotters
  // and nodes match on the call without SSID, so "DL1ABC" refuses DL1ABC-2 too.
  void SetDxNok(const std::vector<std::string>& entries);
  void SetSpotterNok(const std::vector<std::string>& entries);
  void SetNodeNok(const std::vector<std::string>& entries);
  bool IsDxNok(std::string_view call) const;
  bool IsSpotterNok(std::string_view call) const;
  bool IsNodeNok(std::string_view call) const;

 private:
  bool IsBadWord(std::string_view upper_word) const;
  bool CheckWord(std::string_view word, std::string_view* hit) const;

  UpperSet bad_words_;
  std::vector<std::string> bad_phrases_;
  bool bad_words_enabled_ = true;
  UpperSet refused_addresses_;
  UpperSet tor_addresses_;
  std::unordered_map<std::string, int, StringViewHash, std::equal_to<>> offences_;
  int auto_refuse_after_ = 0;
  UpperSet dx_nok_;
  std::vector<std::string> dx_nok_prefixes_;
  UpperSet spotter_nok_;
  UpperSet node_nok_;
};

// Calls that no licensing authority issues, or that are placeholders a program sends before
// its user filled in a call.  Deliberately small: a prefix here must be one that no country
// has, so that no real station is ever refused.
//   - prefixes "0" and "Q" (no country issues calls beginning with a zero; the Q series is
//     reserved for the Q code);
//   - prefix "1" except "1A" and "1S" (the Sovereign Military Order of Malta and the Spratly
//     Islands are the entities of the country file that use a digit-one prefix);
//   - placeholders "NOCALL", "N0CALL", "MYCALL", "CALL", "TEST", "SWL".
bool CallNotIssued(std::string_view call);

}  // namespace qx
