// What the user side asks of the node network.  The node network implements it; until a
// node is linked, RecordingNodeRelay keeps what was asked so the sysop and tests can see it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx {

class NodeRelay {
 public:
  virtual ~NodeRelay() = default;
  // A local user logged in (in = true) or out.
  virtual void UserLoggedInOut(std::string_view call, int stream, bool in) = 0;
  // A PC41 sentence this node originates (with its CR LF).
  virtual void SendPc41(std::string_view sentence) = 0;
  // An announcement to the whole network ("*"), the sysops ("SYSOP") or as weather ("WX").
  // hops: how far it travels; 1 reaches the neighbours' users only (ANNOUNCE LOCAL).
  virtual void Announce(std::string_view from, std::string_view to, std::string_view text,
                        int hops = 99) = 0;
  // Talk to a user who is not on this node; false when no route to the call is known.
  virtual bool Talk(std::string_view from, std::string_view to, std::string_view text) = 0;
};

class RecordingNodeRelay final : public NodeRelay {
 public:
  struct Event {
    std::string kind;  // "login", "logout", "pc41", "announce", "talk"
    std::string a, b, c;
  };
  void UserLoggedInOut(std::string_view call, int stream, bool in) override {
    events.push_back({in ? "login" : "logout", std::string(call), std::to_string(stream), ""});
  }
  void SendPc41(std::string_view sentence) override {
    events.push_back({"pc41", std::string(sentence), "", ""});
  }
  void Announce(std::string_view from, std::string_view to, std::string_view text,
                int hops = 99) override {
    events.push_back({hops == 99 ? "announce" : "announce/H" + std::to_string(hops),
                      std::string(from), std::string(to), std::string(text)});
  }
  bool Talk(std::string_view from, std::string_view to, std::string_view text) override {
    events.push_back({"talk", std::string(from), std::string(to), std::string(text)});
    return false;
  }
  std::vector<Event> events;
};

}  // namespace qx
