// A node's user side without sockets: a stream table, a recording output, a user store in a
// temporary program directory, and the log-in and command interpreter on top.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "core/error_log.h"
#include "core/monitor.h"
#include "core/program_dir.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "spots/bands.h"
#include "spots/country.h"
#include "tests/testlib/test_util.h"
#include "users/command_interpreter.h"
#include "users/filter_book.h"
#include "users/login.h"
#include "users/user_record.h"

namespace qx::testing {

class RecordingOutput final : public StreamOutput {
 public:
  void SendToStream(int stream, std::string_view text) override {
    if (stream == 0 || text.empty()) return;
    sent[stream] += text;
  }
  void CloseStream(int stream) override { closed.push_back(stream); }
  void SetStreamIdentity(int stream, std::string_view call, int state) override {
    identity[stream] = std::string(call);
  }
  void SetStreamAttributes(int stream, std::string_view text) override {
    attributes[stream] = std::string(text);
  }
  std::map<int, std::string> sent;
  std::map<int, std::string> attributes;
  std::vector<int> closed;
  std::map<int, std::string> identity;
};

class FakeServices final : public CommandServices {
 public:
  std::string EnterSpot(int stream, std::string_view line, bool test_only) override {
    spots.emplace_back(line);
    return "";
  }
  std::vector<std::string> ShowDx(int, std::string_view args) override {
    return {"showdx:" + std::string(args)};
  }
  bool ListChange(std::string_view list, std::string_view item, bool add) override {
    auto& l = lists[std::string(list)];
    const auto it = std::find(l.begin(), l.end(), std::string(item));
    if (add) {
      if (it != l.end()) return false;
      l.emplace_back(item);
      return true;
    }
    if (it == l.end()) return false;
    l.erase(it);
    return true;
  }
  std::vector<std::string> NetworkLines(std::string_view what) override {
    return {"net:" + std::string(what)};
  }
  std::vector<std::string> StationInfo(std::string_view call) override {
    return {"station:" + std::string(call)};
  }
  std::string LinkCommand(std::string_view node, bool connect) override {
    return (connect ? "connect " : "disconnect ") + std::string(node);
  }
  void Shutdown() override { shutdown = true; }
  std::vector<std::string> Mail(int, std::string_view verb, std::string_view args) override {
    return {"mail:" + std::string(verb) + "(" + std::string(args) + ")"};
  }
  bool MailComposing(int stream) const override { return composing; }

  std::vector<std::string> spots;
  std::map<std::string, std::vector<std::string>> lists;
  bool shutdown = false;
  bool composing = false;
};

class UserFixture : public ::testing::Test {
 protected:
  UserFixture()
      : dir_(tmp_.path()),
        clock_(MakeUtc(2026, 11, 15, 0, 46, 0)),
        log_(tmp_.path() / "data/log", clock_),
        store_(dir_),
        ctx_{streams_,     out_,
             store_,       log_,
             monitor_,     clock_,
             relay_,       dir_,
             access_,      messages_,
             nullptr,      "XX0QX-1",
             "0.1.0",      "https://example.org/ssid",
             clock_.Now(), {}},
        login_(ctx_),
        interp_(ctx_, login_, services_) {
    std::string error;
    dir_.CreateTree(&error);
    countries_.LoadText(
        "United States: 05: 08: NA: 37.60: 91.87: 5.0: K:\n    AA,K,N,W;\n"
        "Germany: 14: 28: EU: 51.00: -10.00: -1.0: DL:\n    DA,DB,DC,DD,DF,DG,DH,DJ,DK,DL;\n"
        "Japan: 25: 45: AS: 36.40: -138.38: -9.0: JA:\n    JA,JE,JF,JG,JH;\n");
    ctx_.countries = &countries_;
    ctx_.filters = &filters_;
    login_.set_interpreter([this](int s, std::string_view l) { interp_.Execute(s, l); });
    interp_.set_help_address("https://example.org/help");
  }

  // Opens a stream as the front-end's "Connect Request" would.
  int Connect(int stream, std::string peer = "192.0.2.10:5000") {
    streams_.EnsureCapacity(stream);
    streams_.Reset(stream);
    StreamEntry& e = streams_.at(stream);
    e.state = kStateLoggingIn;
    e.peer_address = std::move(peer);
    e.since = clock_.Now();
    login_.OnConnectRequest(stream);
    return stream;
  }
  void Type(int stream, std::string_view line) {
    if (streams_.at(stream).IsUser()) {
      interp_.OnLine(stream, line);
    } else {
      login_.OnLine(stream, line);
    }
  }
  // Connects and logs in a call with a name on record.
  int LogIn(int stream, std::string_view call, std::string_view name = "Ann") {
    store_.SavePersonal(call, 1, name);
    Connect(stream);
    Type(stream, call);
    return stream;
  }
  std::string Take(int stream) {
    std::string s = out_.sent[stream];
    out_.sent[stream].clear();
    return s;
  }
  // The reply to one typed line, without the prompt that follows it.
  std::string Run(std::string_view line, int stream = 1) {
    Type(stream, line);
    std::string text = Take(stream);
    const size_t prompt = text.rfind(streams_.at(stream).call + " de XX0QX-1 ");
    if (prompt != std::string::npos) text.resize(prompt);
    return text;
  }

  TempDir tmp_;
  ProgramDir dir_;
  ManualClock clock_;
  ErrorLog log_;
  Monitor monitor_;
  StreamTable streams_;
  RecordingOutput out_;
  UserStore store_;
  RecordingNodeRelay relay_;
  AccessLists access_;
  LogonMessages messages_;
  BandTable bands_ = BandTable::SetupFreqRanges();
  CountryLookup countries_;
  FilterBook filters_{bands_, &countries_, clock_};
  UserContext ctx_;
  FakeServices services_;
  Login login_;
  CommandInterpreter interp_;
};

// K1ABC logged in on stream 1, its greeting taken.
class LoggedInFixture : public UserFixture {
 protected:
  void SetUp() override {
    LogIn(1, "K1ABC", "Ann");
    Take(1);
  }
};

}  // namespace qx::testing
