#include "core/link_arrival.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace qx {
namespace {

// Collects the records; a test may hook a reaction to one record.
class Recorder : public LinkArrival::Sink {
 public:
  void OnRecord(std::string_view record) override {
    records.emplace_back(record);
    if (on_record) on_record(record);
  }
  void OnRecordError(std::string_view record, std::string_view what) override {
    errors.push_back(std::string(record) + " | " + std::string(what));
  }
  std::vector<std::string> records;
  std::vector<std::string> errors;
  std::function<void(std::string_view)> on_record;
};

using Records = std::vector<std::string>;

// Link bytes with the record terminator written as "|".
std::string Etx(std::string_view text) {
  std::string out(text);
  std::replace(out.begin(), out.end(), '|', '\x03');
  return out;
}

class LinkArrivalTest : public ::testing::Test {
 protected:
  Recorder sink;
  LinkArrival arrival{sink};
};

TEST_F(LinkArrivalTest, RecordsEndWithTerminatorAndTheTailWaitsAsCarry) {
  arrival.Arrive(Etx("AA18|AA00^1^hel"));
  EXPECT_EQ(sink.records, Records{"AA18"});
  EXPECT_EQ(arrival.carry(), "AA00^1^hel");

  // The next arrival completes the record, which is handled exactly once.
  arrival.Arrive(Etx("lo\r\n|AA17^1^"));
  EXPECT_EQ(sink.records, (Records{"AA18", "AA00^1^hello\r\n"}));
  EXPECT_EQ(arrival.carry(), "AA17^1^");

  // An arrival that is exactly one terminator completes the carry and leaves none.
  arrival.Arrive(Etx("|"));
  EXPECT_EQ(sink.records, (Records{"AA18", "AA00^1^hello\r\n", "AA17^1^"}));
  EXPECT_EQ(arrival.carry(), "");
  EXPECT_FALSE(arrival.busy());
  EXPECT_EQ(arrival.records_in(), 3u);

  // Carets and line ends inside a record are kept.
  arrival.Arrive(Etx("AA00^7^PC11^14025.0^DL1ABC^^~\r\nsh/dx\n|"));
  EXPECT_EQ(sink.records.back(), "AA00^7^PC11^14025.0^DL1ABC^^~\r\nsh/dx\n");
}

TEST_F(LinkArrivalTest, EmptyRecordsAndEmptyArrivalsCarryNothing) {
  arrival.Arrive("");
  arrival.Arrive(Etx("||AA18||"));
  arrival.Arrive("");
  EXPECT_EQ(sink.records, Records{"AA18"});
  EXPECT_EQ(arrival.carry(), "");

  // A carry survives an empty arrival unchanged.
  arrival.Arrive("QRV x");
  arrival.Arrive("");
  EXPECT_EQ(arrival.carry(), "QRV x");
  EXPECT_EQ(sink.records, Records{"AA18"});
}

TEST_F(LinkArrivalTest, DataArrivingWhileBusyIsHandledAfterTheCarryAndBeforeNewData) {
  bool nested = false;
  sink.on_record = [&](std::string_view record) {
    if (record == "A" && !nested) {
      nested = true;
      // The handler yields and the loop delivers more bytes meanwhile.
      arrival.Arrive(Etx("B|C"));
      arrival.Arrive(Etx("c|D"));
      EXPECT_TRUE(arrival.busy());
      EXPECT_EQ(arrival.pending_length(), 6u);
    }
  };
  arrival.Arrive(Etx("A|X"));
  EXPECT_EQ(sink.records, Records{"A"});  // nothing of the nested bytes yet
  EXPECT_EQ(arrival.pending_length(), 6u);
  EXPECT_EQ(arrival.carry(), "X");
  EXPECT_FALSE(arrival.busy());

  arrival.Arrive(Etx("E|F"));
  // carry "X", then the pending "B^Cc^D", then "E^F".
  EXPECT_EQ(sink.records, (Records{"A", "XB", "Cc", "DE"}));
  EXPECT_EQ(arrival.carry(), "F");
  EXPECT_EQ(arrival.pending_length(), 0u);
  EXPECT_EQ(arrival.peak_pending(), 6u);
}

TEST_F(LinkArrivalTest, PendingBytesWithoutCarryAreHandledBeforeTheNewArrival) {
  sink.on_record = [&](std::string_view record) {
    if (record == "A") arrival.Arrive(Etx("P1|P2|"));
  };
  arrival.Arrive(Etx("A|"));
  EXPECT_EQ(arrival.carry(), "");
  // Even an empty arrival releases what waited.
  arrival.Arrive("");
  EXPECT_EQ(sink.records, (Records{"A", "P1", "P2"}));
}

TEST(LinkArrivalPiecesTest, PendingBufferOutgrowsItsCapacityWithoutLosingBytes) {
  Recorder sink;
  LinkArrival arrival(sink, /*pending_capacity=*/8);
  const std::string big = std::string(100, 'x') + "\x03" + std::string(50, 'y') + "\x03";
  sink.on_record = [&](std::string_view record) {
    if (record == "go") {
      arrival.Arrive(big.substr(0, 30));
      arrival.Arrive(big.substr(30));
    }
  };
  arrival.Arrive(Etx("go|"));
  arrival.Arrive(Etx("z|"));
  EXPECT_EQ(sink.records, (Records{"go", std::string(100, 'x'), std::string(50, 'y'), "z"}));
}

TEST_F(LinkArrivalTest, AFailingRecordIsReportedAndTheWalkGoesOn) {
  sink.on_record = [](std::string_view record) {
    if (record == "BAD") throw std::runtime_error("broken");
    if (record == "ODD") throw 42;
  };
  arrival.Arrive(Etx("ONE|BAD|ODD|TWO|TA"));
  EXPECT_EQ(sink.records, (Records{"ONE", "BAD", "ODD", "TWO"}));
  EXPECT_EQ(sink.errors, (Records{"BAD | broken", "ODD | unknown error"}));
  EXPECT_FALSE(arrival.busy());
  EXPECT_EQ(arrival.record_errors(), 2u);
  // The link keeps working after the errors.
  arrival.Arrive(Etx("IL|"));
  EXPECT_EQ(sink.records.back(), "TAIL");
}

TEST_F(LinkArrivalTest, WatchdogLogsBelowFiveSecondsAndClearsAStuckArrivalAtFive) {
  EXPECT_EQ(arrival.Tick().seconds, 0);  // not busy: nothing to count

  std::vector<LinkArrival::BusyReport> reports;
  sink.on_record = [&](std::string_view record) {
    if (record != "STALL") return;
    // A handler that is stuck in a nested loop: the main timer keeps ticking.
    arrival.Arrive(Etx("LOST|"));  // pending, and dropped by the reset
    for (int i = 0; i < 5; ++i) reports.push_back(arrival.Tick());
    EXPECT_FALSE(arrival.busy());
    EXPECT_EQ(arrival.pending_length(), 0u);
    // With the flag cleared, new bytes are handled at once, inside the stuck walk, and the
    // outer walk's records must survive it.
    arrival.Arrive(Etx("N1|N2|"));
  };
  arrival.Arrive(Etx("STALL|AFTER1|AFTER2|"));

  ASSERT_EQ(reports.size(), 5u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(reports[size_t(i)].seconds, i + 1);
    EXPECT_FALSE(reports[size_t(i)].reset);
  }
  EXPECT_EQ(reports[4].seconds, 5);
  EXPECT_TRUE(reports[4].reset);
  EXPECT_EQ(sink.records, (Records{"STALL", "N1", "N2", "AFTER1", "AFTER2"}));
  EXPECT_FALSE(arrival.busy());
  EXPECT_EQ(arrival.Tick().seconds, 0);
  EXPECT_EQ(LinkArrival::BusyText(3), "WinsockClusterBusy for 3 secs ");
}

TEST_F(LinkArrivalTest, WatchdogCountStartsAgainWithEachArrival) {
  int last_seconds = -1;
  sink.on_record = [&](std::string_view) {
    arrival.Tick();
    last_seconds = arrival.Tick().seconds;
  };
  arrival.Arrive(Etx("A|"));
  EXPECT_EQ(last_seconds, 2);
  arrival.Arrive(Etx("B|"));
  EXPECT_EQ(last_seconds, 2);  // not 4: the first arrival's busy time is over
}

TEST_F(LinkArrivalTest, ResetForgetsCarryAndPending) {
  sink.on_record = [&](std::string_view) { arrival.Arrive(Etx("P|")); };
  arrival.Arrive(Etx("A|half"));
  arrival.Reset();
  sink.on_record = nullptr;
  arrival.Arrive(Etx("B|"));
  EXPECT_EQ(sink.records, (Records{"A", "B"}));
}

// The same bytes give the same records wherever the reads cut them.
Records OneShot(const std::string& input) {
  Recorder sink;
  LinkArrival arrival(sink);
  arrival.Arrive(input);
  return sink.records;
}

TEST(LinkArrivalPiecesTest, CutsAnywhereGiveTheSameRecords) {
  std::mt19937 rng(7);
  const std::string alphabet = "AA00^12\r\n\x03\x03 xyz";
  for (int round = 0; round < 40; ++round) {
    std::string input;
    const int len = 20 + int(rng() % 200);
    for (int i = 0; i < len; ++i) input.push_back(alphabet[rng() % alphabet.size()]);
    const Records expected = OneShot(input);

    // Every single cut point.
    for (size_t cut = 0; cut <= input.size(); ++cut) {
      Recorder sink;
      LinkArrival arrival(sink);
      arrival.Arrive(std::string_view(input).substr(0, cut));
      arrival.Arrive(std::string_view(input).substr(cut));
      ASSERT_EQ(sink.records, expected) << "cut at " << cut;
    }
    // Many random cuts; some reads arrive while a record is being handled.
    Recorder sink;
    LinkArrival arrival(sink);
    size_t pos = 0;
    const auto next_piece = [&] {
      const size_t n = std::min<size_t>(1 + rng() % 9, input.size() - pos);
      const std::string piece = input.substr(pos, n);
      pos += n;
      return piece;
    };
    sink.on_record = [&](std::string_view) {
      if (pos < input.size() && rng() % 3 == 0) arrival.Arrive(next_piece());
    };
    while (pos < input.size()) arrival.Arrive(next_piece());
    arrival.Arrive("");
    ASSERT_EQ(sink.records, expected) << "round " << round;
  }
}

}  // namespace
}  // namespace qx
