// Time stamps of PC92/PC93: the check that breaks loops in a meshed network (each origin's
// stamps must rise) and the generator of the stamps this node writes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qx {

class Pc9xTimeCheck {
 public:
  enum class Verdict {
    kAccept,
    kBadStamp,   // not a number, or outside 0 <= t < 86400
    kClockSkew,  // more than 15 minutes from our clock (mod one day)
    kNotNewer,   // not after the last stamp accepted from that origin
    kOwnOrigin,  // a PC92 that claims to come from us
  };

  static constexpr double kDay = 86400.0;
  static constexpr double kMaxSkew = 15 * 60.0;
  static constexpr double kWrapWindow = 137 * 60.0;

  explicit Pc9xTimeCheck(std::string our_call) : our_call_(std::move(our_call)) {}

  // Checks field 2 of a PC92/PC93 from origin against our clock (seconds of the UTC day)
  // and, on accept, remembers it as that origin's last stamp.
  Verdict Check(std::string_view origin, std::string_view stamp, int now_seconds_of_day,
                bool is_pc92);
  // The last accepted stamp of origin, or -1.
  double Last(std::string_view origin) const;
  void Forget(std::string_view origin) { last_.erase(std::string(origin)); }
  // Takes back an origin's last stamp from before a restart of this node, unless a newer
  // one has been accepted since.
  void Remember(std::string_view origin, double stamp);
  // Every origin with its last stamp.
  std::vector<std::pair<std::string, double>> Entries() const;
  size_t size() const { return last_.size(); }

  // Origins remembered at most; past it the quarter heard from longest ago is forgotten, so a
  // peer inventing origin calls cannot make the table grow without end.
  static constexpr size_t kMaxOrigins = 50000;

 private:
  struct Heard {
    double stamp = 0;
    uint64_t used = 0;  // when it was last accepted, in accepts
  };
  void EvictOldest();

  std::string our_call_;
  std::unordered_map<std::string, Heard> last_;
  uint64_t accepts_ = 0;
};

// Stamps for the PC92/PC93 this node creates: the seconds of the day, then ".01", ".02" ...
// for further sentences in the same second, so no two carry the same stamp.
class Pc9xStampGenerator {
 public:
  std::string Next(int now_seconds_of_day);
  // The last stamp made, empty before the first.
  std::string Last() const;
  // Goes on after a stamp written before a restart of this node, so that a restart within
  // the same second never repeats one.
  void ResumeAfter(std::string_view stamp);

 private:
  int second_ = -1;
  int counter_ = 0;
};

}  // namespace qx
