// OutputSpotToAll: an accepted spot goes to every logged-in user whose DX spots are on.  The
// line is built once per variant (resolution 1 or 2 decimals, and the set of extra columns
// behind the time that fit the user's width: locators, zones, states, country), then each
// user gets it cut to their width, with a bell if they asked for one, ended by CR LF.  Per spot the
// cost is one build per variant in use plus one push per user; per-user texts are assembled in
// buffers that are reused from spot to spot.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/session.h"
#include "spots/spot.h"
#include "spots/spot_line.h"

namespace qx {

class StreamTable;
struct StreamEntry;

// Where the lines go: the front-end link in the node, a recorder in tests.
class SpotSink {
 public:
  virtual ~SpotSink() = default;
  virtual void SendToStream(int stream, std::string_view text) = 0;
  // A spot line, shared by every user who gets the same text, so that a sink that holds
  // lines back (the link while the front-end is behind) keeps one copy, not one per user.
  virtual void SendSpotToStream(int stream, const std::shared_ptr<const std::string>& text) {
    SendToStream(stream, *text);
  }
};

struct DistributionStats {
  int users = 0;        // lines pushed
  int lines_built = 0;  // variants built for this spot
  int filtered = 0;     // users whose filters held the spot back
};

// The user's own switches for kinds of spots: beacons, the digital modes, reporter and
// skimmer spots (skimmer dupes, and CW, which only a skimmer's comment tells for sure).  A spot of
// a kind the user switched off is not sent; spots of no particular kind always pass.  (The spot
// filters proper come on top, through a SpotFilter.)
bool SwitchesAllow(const SessionSettings& session, const Spot& spot);

// The users' spot filters as distribution sees them.  Prepare is called once per spot before
// any user is asked, so whatever the filters need of the spot is worked out once, never per
// user; Passes then answers for one user and must not allocate.
class SpotFilter {
 public:
  virtual ~SpotFilter() = default;
  virtual void Prepare(const Spot& spot) = 0;
  virtual bool Passes(int stream, const StreamEntry& user, const Spot& spot) = 0;
};

class SpotDistributor {
 public:
  SpotDistributor(const StreamTable& streams, SpotSink& sink);

  // The users' spot filters; null: every spot passes.  Must outlive the distributor.
  void set_filter(SpotFilter* filter) { filter_ = filter; }
  // The locator of a call as the node knows it (the node asks its logged-in users' settings);
  // "" when unknown, in which case the locator of the call's country position is shown.
  // Asked at most once per spot for the spotter and once for the DX call, and only when some
  // user shows the column.
  using LocatorLookup = std::function<std::string_view(std::string_view call)>;
  void set_locator_lookup(LocatorLookup lookup) { locator_of_ = std::move(lookup); }
  // The state or province of a call (SET/STATEADD); "" when unknown.
  using StateLookup = std::function<std::string_view(std::string_view call)>;
  void set_state_lookup(StateLookup lookup) { state_of_ = std::move(lookup); }

  // The enhanced sentence that companion clients get in place of the "DX de" line (CR LF is
  // added here).  Its layout belongs to the node network, so the owner injects it.  Called
  // at most once per spot, when the first user who wants it gets the spot; unset: those
  // users get the "DX de" line.
  using EnhancedFormatter = std::function<void(const Spot& spot, std::string& out)>;
  void set_enhanced_formatter(EnhancedFormatter f) { enhanced_of_ = std::move(f); }
  // The spot as one JSON object with its line end, for users and streams in JSON mode
  // (kSwJson).  Asked at most once per spot, and only when such a user takes the spot; unset,
  // JSON users get nothing.
  using JsonMaker = std::function<void(const Spot& spot, std::string& out)>;
  void set_json_maker(JsonMaker maker) { json_of_ = std::move(maker); }

  DistributionStats OutputSpotToAll(const Spot& spot);
  // The line as that user would get it (width, resolution, columns, bell), to that user
  // alone and whatever their switches and filters say: what DXTEST shows.
  DistributionStats OutputSpotTo(const Spot& spot, int stream);

 private:
  struct Variant {
    std::string line;  // without line end
    bool built = false;
  };
  struct Extended {  // the line with a set of extra columns, built once per spot
    int decimals;
    uint8_t columns;
    std::string line;
  };
  struct Ready {  // a finished line for one (resolution, columns, width, bell) combination
    int decimals;
    uint8_t columns;
    int width;
    bool bell;
    // Shared with the sink; rebuilt in place next spot unless the sink still holds it.
    std::shared_ptr<std::string> text;
  };
  void Begin();
  void SendTo(int stream, const StreamEntry& user, const Spot& spot, DistributionStats& stats);
  const std::string& LineFor(const Spot& spot, int decimals, DistributionStats& stats);
  const std::string& ExtendedLine(const Spot& spot, int decimals, uint8_t columns,
                                  DistributionStats& stats);
  // The index in ready_ of the user's finished line.
  size_t UserText(const Spot& spot, int decimals, uint8_t columns, int width, bool bell,
                  DistributionStats& stats);
  // Hands the gathered lines to the sink, every user of one text after the other.
  void SendGathered();
  // Works out the spot's extra column texts (once per spot).
  void PrepareColumns(const Spot& spot);

  const StreamTable& streams_;
  SpotSink& sink_;
  SpotFilter* filter_ = nullptr;
  LocatorLookup locator_of_;
  StateLookup state_of_;
  EnhancedFormatter enhanced_of_;
  std::string enhanced_;  // this spot's enhanced sentence with CR LF, once built
  bool enhanced_built_ = false;
  JsonMaker json_of_;
  std::string json_;  // this spot's JSON object, shared by every JSON user
  bool json_built_ = false;
  Variant variants_[2];  // by decimals - 1
  std::vector<Extended> extended_;
  size_t extended_used_ = 0;
  std::vector<Ready> ready_;
  size_t ready_used_ = 0;
  // While a spot goes to all: the users of each finished line (stream, index in ready_),
  // handed on once every user has been seen, so that users of one text reach the sink
  // together and the link can send them as one message.  Each user gets one line per spot,
  // so no user's lines change order.
  struct Gathered {
    int stream;
    uint32_t ready;
  };
  bool gathering_ = false;
  std::vector<Gathered> gathered_;
  bool columns_ready_ = false;
  std::string column_store_[kExtraColumnCount];
  ExtraColumnTexts columns_;
};

}  // namespace qx
