// An in-memory node for the console's tests and the demo server: lists, settings and
// log-on messages that can be changed, a few streams, and a record of what was asked.
// Optionally keeps lists and settings in files under a program directory, as the node does,
// so that a browser test can look at the files.
#pragma once

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "console/console_model.h"
#include "console/setting_check.h"
#include "core/file_util.h"
#include "core/text_util.h"

namespace qx::testing {

class FakeConsoleModel : public ConsoleModel {
 public:
  // home empty: nothing is written to disk.
  explicit FakeConsoleModel(std::filesystem::path home = {}) : home_(std::move(home)) {
    for (const char* name :
         {"LockOuts", "SpotterNok", "DxNok", "BadNodes", "AnnNok", "SkimmerNok", "SkimmerDxNok",
          "SkimmerDoNotVerify", "Nodes", "LocalNodes", "Sysop", "BullAddress"}) {
      lists_[name];
    }
    settings_ = {
        {"Station and link",
         {{"Cluster Call", "XX0QX-2", "the node's own call", false, "text", true},
          {"Winsock IP", "127.0.0.1", "", false, "address", true},
          {"Winsock Port", "7399", "", false, "port", true}}},
        {"Web console",
         {{"Console Address", "127.0.0.1", "address the console listens on", false, "address",
           true},
          {"Console Public Address", "", "address browsers use behind a proxy", false, "site",
           true}}},
        {"Behaviour",
         {{"Connection Retry", "60", "seconds between tries", false, "number"},
          {"NewMaxSpotsPerMin", "100", "", false, "number"},
          {"Get WWV", "True", "fetch solar reports", false, "switch"},
          {"Help Address", "https://example.org/help", "", false, "url"},
          {"HighestSpotsPerMin", "42", "kept across restarts", true, "number"}}},
    };
    for (int i = 1; i <= 4; ++i) logon_["Logon " + std::to_string(i)] = "";
    for (int i = 0; i <= 8; ++i) logon_["Logon Port " + std::to_string(i)] = "";
    logon_["Log Out"] = "73";
    links_ = {{"GB7AAA", "pc9x", "127.0.0.1", 7300, true, "idle", 0, "Connection refused"}};
    nodes_ = {{"GB7AAA", "QXC", false, "", true}, {"XX0QX-1", "QXC", true, "127.0.0.1", false}};
    users = {{"G4ABC", "Bob", "Leeds", "24-Nov-2026 1952Z", 3, false, 5},
             {"K1ABC/P", "Ann", "", "", 0, false, 0},
             {"XX9XX", "Unknown Name", "", "", 0, false, 0}};
  }

  // What the tests look at.
  Monitor monitor_obj;
  std::vector<ConsoleStream> streams;
  std::vector<std::string> events;
  std::vector<int> disconnected;
  bool shutdown_called = false;
  int restarts = 0;
  int monitor_view = 0;
  ConsoleMetrics metrics;
  ConsoleStats stats;
  std::vector<ConsoleDownload> downloads;
  int download_requests = 0;
  std::vector<ConsoleMail> mail;
  std::map<std::string, std::vector<std::string>> log_files;  // name -> lines
  std::vector<ConsoleSpot> spots;                             // taken, oldest first, of any day
  std::vector<ConsoleSpot> refusals;                          // oldest first

  std::vector<ConsoleSpot> SpotsOfDay(SysTime day) const override {
    std::vector<ConsoleSpot> out;
    const SysTime start = std::chrono::floor<std::chrono::days>(day);
    for (const ConsoleSpot& s : spots) {
      if (s.time >= start && s.time < start + std::chrono::days(1)) out.push_back(s);
    }
    return out;
  }
  std::vector<ConsoleSpot> RecentRefusals() const override { return refusals; }
  std::vector<ConsoleUser> users;                                // sorted by call
  std::map<std::string, std::pair<std::string, int>> passwords;  // call -> password, level

  Monitor& monitor() override { return monitor_obj; }
  std::string NodeCall() const override { return Value("Cluster Call"); }
  std::vector<ConsoleDownload> Downloads() const override { return downloads; }
  std::string UpdateCheckOutcome() const override { return "not checked yet"; }
  ConsoleResult UpdateReferenceData() override {
    if (downloads.empty()) return ConsoleResult::Fail("no reference file or update address is set");
    ++download_requests;
    return ConsoleResult::Ok();
  }
  void LogEvent(std::string_view heading, std::string_view text) override {
    events.push_back(std::string(heading) + " " + std::string(text));
  }

  std::vector<ConsoleStream> Streams() const override { return streams; }
  ConsoleResult DisconnectStream(int stream) override {
    const auto it = std::find_if(streams.begin(), streams.end(),
                                 [&](const ConsoleStream& s) { return s.number == stream; });
    if (it == streams.end()) return ConsoleResult::Fail("no such stream");
    disconnected.push_back(stream);
    streams.erase(it);
    monitor_obj.Write(MonitorChannel::kConnections, std::to_string(stream), {}, stream);
    return ConsoleResult::Ok();
  }

  std::vector<std::string> ListNames() const override {
    std::vector<std::string> names;
    for (const auto& [k, v] : lists_) names.push_back(k);
    return names;
  }
  std::optional<std::vector<std::string>> ListItems(std::string_view list) const override {
    const auto it = lists_.find(std::string(list));
    if (it == lists_.end()) return std::nullopt;
    return it->second;
  }
  ConsoleResult ListAdd(std::string_view list, std::string_view item) override {
    auto& items = lists_.at(std::string(list));
    const std::string upper = ToUpper(item);
    if (std::find(items.begin(), items.end(), upper) != items.end()) {
      return ConsoleResult::Fail(upper + " is already in " + std::string(list));
    }
    items.push_back(upper);
    SaveList(list);
    return ConsoleResult::Ok();
  }
  ConsoleResult ListRemove(std::string_view list, std::string_view item) override {
    auto& items = lists_.at(std::string(list));
    const auto it = std::find(items.begin(), items.end(), ToUpper(item));
    if (it == items.end()) return ConsoleResult::Fail(std::string(item) + " is not in the list");
    items.erase(it);
    SaveList(list);
    return ConsoleResult::Ok();
  }

  std::vector<ConsoleSettingsGroup> Settings() const override { return settings_; }
  ConsoleResult SaveSettings(
      const std::vector<std::pair<std::string, std::string>>& changes) override {
    for (const auto& [key, value] : changes) {
      ConsoleSetting* s = Find(key);
      if (!s) return ConsoleResult::Fail("unknown key " + key);
      if (s->read_only) return ConsoleResult::Fail(key + " cannot be changed here");
      for (SettingKind kind : {SettingKind::kText, SettingKind::kSwitch, SettingKind::kNumber,
                               SettingKind::kPort, SettingKind::kPortList, SettingKind::kIpAddress,
                               SettingKind::kUrl, SettingKind::kPublicSite}) {
        if (SettingKindName(kind) != s->kind) continue;
        const std::string why = CheckSettingValue(kind, value);
        if (!why.empty()) return ConsoleResult::Fail(key + ": " + why);
      }
    }
    for (const auto& [key, value] : changes) Find(key)->value = value;
    if (!home_.empty()) {
      std::string text;
      for (const auto& g : settings_) {
        for (const auto& k : g.keys) text += k.key + "^" + k.value + "\r\n";
      }
      AtomicWriteFile(home_ / "cluster.cfg", text);
    }
    return ConsoleResult::Ok();
  }

  std::vector<std::string> LogonSections() const override {
    std::vector<std::string> out;
    for (int i = 1; i <= 4; ++i) out.push_back("Logon " + std::to_string(i));
    for (int i = 0; i <= 8; ++i) out.push_back("Logon Port " + std::to_string(i));
    out.push_back("Log Out");
    return out;
  }
  std::optional<std::string> LogonMessage(std::string_view section) const override {
    const auto it = logon_.find(std::string(section));
    if (it == logon_.end()) return std::nullopt;
    return it->second;
  }
  ConsoleResult SetLogonMessage(std::string_view section, std::string_view text) override {
    logon_[std::string(section)] = std::string(text);
    return ConsoleResult::Ok();
  }

  std::vector<ConsolePassword> PasswordCalls() const override {
    std::vector<ConsolePassword> out;
    for (const auto& [call, row] : passwords) out.push_back({call, row.second});
    return out;
  }
  ConsoleResult SetPassword(std::string_view call, std::string_view password, int level) override {
    passwords[ToUpper(call)] = {std::string(password), level};
    return ConsoleResult::Ok();
  }
  ConsoleResult RemovePassword(std::string_view call) override {
    return passwords.erase(ToUpper(call)) ? ConsoleResult::Ok()
                                          : ConsoleResult::Fail("no password for that call");
  }

  ConsoleUserPage Users(std::string_view query, size_t offset, size_t limit) const override {
    ConsoleUserPage page;
    std::vector<ConsoleUser> matching;
    for (const ConsoleUser& u : users) {
      if (ToUpper(u.call).find(ToUpper(query)) != std::string::npos) matching.push_back(u);
    }
    page.total = matching.size();
    page.offset = offset;
    for (size_t i = offset; i < matching.size() && page.users.size() < limit; ++i) {
      page.users.push_back(matching[i]);
    }
    return page;
  }
  std::optional<ConsoleUserDetail> User(std::string_view call) const override {
    for (const ConsoleUser& u : users) {
      if (u.call == call)
        return ConsoleUserDetail{u, {{"Name", u.name}, {"WIDTH", "80"}}, {"accept/spots on hf/cw"}};
    }
    return std::nullopt;
  }
  ConsoleResult SetUserLockedOut(std::string_view call, bool locked) override {
    for (ConsoleUser& u : users) {
      if (u.call != call) continue;
      u.locked_out = locked;
      if (locked && u.stream) {
        disconnected.push_back(u.stream);
        u.stream = 0;
      }
      return ConsoleResult::Ok();
    }
    return ConsoleResult::Fail("no such user");
  }

  ConsoleResult SaveNode(const ConsoleNode& node, std::string_view password) override {
    if (node.call.empty()) return ConsoleResult::Fail("a call is needed");
    std::erase_if(nodes_, [&](const ConsoleNode& n) { return n.call == node.call; });
    nodes_.push_back(node);
    if (!password.empty()) passwords[node.call] = {std::string(password), 0};
    nodes_.back().has_password = passwords.count(node.call) > 0;
    return ConsoleResult::Ok();
  }
  ConsoleResult RemoveNode(std::string_view call) override {
    const auto n = std::erase_if(nodes_, [&](const ConsoleNode& x) { return x.call == call; });
    return n ? ConsoleResult::Ok() : ConsoleResult::Fail("no such node");
  }

  std::vector<ConsoleNode> DefinedNodes() const override { return nodes_; }
  std::vector<ConsoleLink> Links() const override { return links_; }
  ConsoleResult SaveLink(const ConsoleLink& link) override {
    for (auto& l : links_) {
      if (l.name == link.name) {
        l = link;
        return ConsoleResult::Ok();
      }
    }
    links_.push_back(link);
    links_.back().state = "idle";
    return ConsoleResult::Ok();
  }
  ConsoleResult RemoveLink(std::string_view name) override {
    const auto n = std::erase_if(links_, [&](const ConsoleLink& l) { return l.name == name; });
    return n ? ConsoleResult::Ok() : ConsoleResult::Fail("no such connection");
  }
  ConsoleResult ConnectLink(std::string_view name) override {
    for (auto& l : links_) {
      if (l.name == name) {
        l.state = "connecting";
        return ConsoleResult::Ok();
      }
    }
    return ConsoleResult::Fail("no such connection");
  }
  ConsoleResult DisconnectLink(std::string_view name) override {
    for (auto& l : links_) {
      if (l.name == name) {
        l.state = "idle";
        l.stream = 0;
        return ConsoleResult::Ok();
      }
    }
    return ConsoleResult::Fail("no such connection");
  }

  int MonitorView() const override { return monitor_view; }
  ConsoleResult SetMonitorView(int view) override {
    if (view != kMonitorViewAll && view != kMonitorViewNodes) {
      return ConsoleResult::Fail("the monitor view is 0 (all traffic) or 1 (node traffic)");
    }
    monitor_view = view;
    return ConsoleResult::Ok();
  }

  ConsoleStats Statistics() const override { return stats; }
  ConsoleMetrics Metrics() const override { return metrics; }

  std::vector<std::string> LogFiles() const override {
    std::vector<std::string> names;
    for (const auto& [k, v] : log_files) names.push_back(k);
    return names;
  }
  std::optional<std::vector<std::string>> TailLog(std::string_view name,
                                                  size_t max_lines) const override {
    const auto it = log_files.find(std::string(name));
    if (it == log_files.end()) return std::nullopt;
    const auto& lines = it->second;
    const size_t first = lines.size() > max_lines ? lines.size() - max_lines : 0;
    return std::vector<std::string>(lines.begin() + long(first), lines.end());
  }
  std::optional<std::vector<std::string>> SearchLog(std::string_view name, std::string_view needle,
                                                    size_t max_hits) const override {
    const auto it = log_files.find(std::string(name));
    if (it == log_files.end()) return std::nullopt;
    std::vector<std::string> out;
    for (auto l = it->second.rbegin(); l != it->second.rend() && out.size() < max_hits; ++l) {
      if (ToUpper(*l).find(ToUpper(needle)) != std::string::npos) out.push_back(*l);
    }
    return out;
  }

  std::vector<ConsoleMail> MailList() const override {
    std::vector<ConsoleMail> out = mail;
    for (ConsoleMail& m : out) m.text.clear();
    return out;
  }
  std::optional<ConsoleMail> MailRead(int number) const override {
    for (const ConsoleMail& m : mail) {
      if (m.number == number) return m;
    }
    return std::nullopt;
  }
  ConsoleResult MailDelete(int number) override {
    if (std::erase_if(mail, [&](const ConsoleMail& m) { return m.number == number; }) == 0) {
      return ConsoleResult::Fail("no message " + std::to_string(number));
    }
    return ConsoleResult::Ok();
  }
  // A stuck forward is queued again; anything else has nothing to do.
  ConsoleResult MailRequeue(int number) override {
    for (ConsoleMail& m : mail) {
      for (ConsoleMail::Forward& f : m.forwards) {
        if (m.number == number && f.state == "given up") {
          f = {f.node, "queued", 0};
          return ConsoleResult::Ok();
        }
      }
    }
    return ConsoleResult::Fail("message " + std::to_string(number) + " is due on no link");
  }

  ConsoleResult Restart() override {
    ++restarts;
    return ConsoleResult::Ok();
  }
  void Shutdown() override { shutdown_called = true; }

  std::string Value(std::string_view key) const {
    for (const auto& g : settings_) {
      for (const auto& k : g.keys) {
        if (k.key == key) return k.value;
      }
    }
    return {};
  }

 private:
  ConsoleSetting* Find(std::string_view key) {
    for (auto& g : settings_) {
      for (auto& k : g.keys) {
        if (k.key == key) return &k;
      }
    }
    return nullptr;
  }

  void SaveList(std::string_view list) {
    if (home_.empty()) return;
    std::string text = "[Form.Top, .Left, .Height, .Width]\r\n0\r\n0\r\n0\r\n0\r\n[Items]\r\n";
    for (const auto& item : lists_.at(std::string(list))) text += item + "\r\n";
    std::filesystem::create_directories(home_ / "data" / "cfg");
    AtomicWriteFile(home_ / "data" / "cfg" / (std::string(list) + ".cfg"), text);
  }

  std::filesystem::path home_;
  std::map<std::string, std::vector<std::string>> lists_;
  std::vector<ConsoleSettingsGroup> settings_;
  std::map<std::string, std::string> logon_;
  std::vector<ConsoleLink> links_;
  std::vector<ConsoleNode> nodes_;
};

}  // namespace qx::testing
