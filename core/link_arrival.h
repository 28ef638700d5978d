// Framing of the bytes that arrive on the front-end link.  The front-end ends every record
// with Chr 3; a read from the socket can end anywhere, so the unfinished tail of one arrival
// is kept as the carry and completed by the next.
//
// A handler may yield to the event loop while a record is being handled, and the loop may
// then deliver more bytes before the first arrival is finished.  Such bytes are not framed at
// once: they are appended to a preallocated pending buffer and handled at the next regular
// arrival, after the carry and before that arrival's own bytes, so the byte order is kept.
//
// The class is pure: no sockets, no clock.  The owner calls Tick() once a second; a busy
// flag that stays set for 5 seconds is cleared by force so that a stuck arrival can never
// block the link for good (the pending bytes are then discarded).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

inline constexpr char kRecordEnd = '\x03';   // ends a record from the front-end
inline constexpr char kMessageEnd = '\x04';  // ends a message to the front-end

class LinkArrival {
 public:
  // Receives the records.  A record is a view that stays valid only during the call.
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void OnRecord(std::string_view record) = 0;
    // A record whose handling threw; the walk goes on with the next record.
    virtual void OnRecordError(std::string_view record, std::string_view what) = 0;
  };

  // What one watchdog tick found.  seconds is 0 when the link was not busy.
  struct BusyReport {
    int seconds = 0;
    bool reset = false;  // the busy flag was cleared by force and the pending bytes dropped
  };

  static constexpr int kBusyResetSeconds = 5;
  static constexpr size_t kDefaultPendingCapacity = 64 * 1024;

  explicit LinkArrival(Sink& sink, size_t pending_capacity = kDefaultPendingCapacity);
  LinkArrival(const LinkArrival&) = delete;
  LinkArrival& operator=(const LinkArrival&) = delete;
  ~LinkArrival();

  // Hands over the bytes of one read.  bytes need stay valid only until the call returns.
  void Arrive(std::string_view bytes);

  // The once-a-second watchdog.
  BusyReport Tick();
  // "WinsockClusterBusy for <n> secs ", the line the watchdog logs.
  static std::string BusyText(int seconds);

  // Forgets the carry and the pending bytes (the link was closed; a new connection starts
  // on a record boundary).
  void Reset();

  bool busy() const { return busy_; }
  std::string_view carry() const { return carry_; }
  size_t pending_length() const { return pending_used_; }
  size_t peak_pending() const { return peak_pending_; }
  uint64_t records_in() const { return records_in_; }
  uint64_t bytes_in() const { return bytes_in_; }
  uint64_t record_errors() const { return record_errors_; }

 private:
  // The joined text and the record views of one arrival.  An arrival that runs while another
  // is still walking its records (possible only after the watchdog cleared the busy flag)
  // takes the next scratch, so the outer walk's views stay valid.
  struct Scratch {
    std::string text;
    std::vector<std::string_view> records;
  };

  void AppendPending(std::string_view bytes);
  void Walk(Scratch& scratch);

  Sink& sink_;
  std::string carry_;
  std::string pending_;  // sized once; pending_used_ bytes are valid
  size_t pending_used_ = 0;
  size_t peak_pending_ = 0;
  bool busy_ = false;
  int busy_seconds_ = 0;
  int depth_ = 0;  // arrivals being walked right now
  std::vector<std::unique_ptr<Scratch>> scratch_;
  uint64_t records_in_ = 0;
  uint64_t bytes_in_ = 0;
  uint64_t record_errors_ = 0;
};

}  // namespace qx
