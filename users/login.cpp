#include "users/login.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/file_util.h"
#include "core/text_util.h"
#include "spots/call_sign.h"
#include "users/filter_book.h"
#include "users/user_record.h"

namespace qx {
namespace {

constexpr int kMaxPasswordFailures = 3;
constexpr int kRunawayLimit = 101;
constexpr int kReconnectLimit = 10;

void ReportBadCompound(void* user, std::string_view call) {
  auto* ctx = static_cast<UserContext*>(user);
  ctx->log.Write("ValidCall",
                 "Bad UserCallsign = " + std::string(call) + " " + DateText(ctx->clock.Now()));
}

// Replaces the first occurrence of from by to; false when from does not occur.
bool ReplaceFirst(std::string& s, std::string_view from, std::string_view to) {
  const size_t pos = s.find(from);
  if (pos == std::string::npos) return false;
  s.replace(pos, from.size(), to);
  return true;
}

}  // namespace

NodeAdmission DecideNodeAdmission(bool on_password_list, const AddressList& addresses,
                                  std::string_view peer) {
  if (!addresses.empty() && !addresses.Contains(PeerHost(peer))) {
    return NodeAdmission::kWrongAddress;
  }
  if (on_password_list) return NodeAdmission::kAskPassword;
  return addresses.empty() ? NodeAdmission::kNotConfigured : NodeAdmission::kAdmit;
}

bool IsCommandNotName(std::string_view reply) {
  const std::string upper = ToUpper(Trim(reply));
  const size_t end = upper.find_first_of("/ ");
  if (end == std::string::npos || end == 0) return false;
  const std::string_view word = std::string_view(upper).substr(0, end);
  if (upper[end] == '/') {
    // "SET/PAGE 0", "SH/DX", "ACC/SPOT ...": command words that take a qualifier.
    for (const auto& [keyword, min] : {std::pair<std::string_view, size_t>{"SHOW", 2},
                                       {"SET", 3},
                                       {"UNSET", 4},
                                       {"ACCEPT", 3},
                                       {"REJECT", 3},
                                       {"CLEAR", 3},
                                       {"DX", 2},
                                       {"ANNOUNCE", 2},
                                       {"DIRECTORY", 3},
                                       {"READ", 4},
                                       {"SEND", 4}}) {
      if (MatchAbbrev(keyword, min, word)) return true;
    }
    return false;
  }
  // A blank after the word: only words no name begins with, so "Ann Marie" stays a name.
  for (std::string_view keyword :
       {"SET", "SH", "SHOW", "UNSET", "DX", "ACCEPT", "REJECT", "DIR", "DIRECTORY", "TALK"}) {
    if (word == keyword) return true;
  }
  return false;
}

Login::Login(UserContext& ctx) : ctx_(ctx) {}

void Login::OnConnectRequest(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  e.login_stage = LoginStage::kAwaitingCall;
  std::string banner;
  std::string logon1 = ctx_.messages.Get("Logon 1");
  if (logon1.empty()) logon1 = "Welcome to " + ctx_.node_call + "\r\n";
  banner += logon1;
  banner += "Running QX Cluster software version " + ctx_.version + "\r\n";
  banner += ctx_.messages.Get("Logon 2");
  banner += "Please enter your call: \r\n";
  banner += "login: ";
  ctx_.Send(stream, banner);
}

void Login::OnLine(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  switch (e.login_stage) {
    case LoginStage::kAwaitingCall:
      OnCall(stream, line);
      break;
    case LoginStage::kAwaitingPassword:
      OnPassword(stream, line);
      break;
    case LoginStage::kAwaitingNodePassword:
      OnNodePassword(stream, line);
      break;
    case LoginStage::kAwaitingName:
      OnName(stream, line);
      break;
    case LoginStage::kAwaitingNameConfirm:
      OnNameConfirm(stream, line);
      break;
    case LoginStage::kLoggedIn:
    case LoginStage::kRefused:
      break;
  }
}

void Login::Refuse(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  e.login_stage = LoginStage::kRefused;
  e.state = kStateTimedOut;
  ctx_.out.CloseStream(stream);
}

void Login::OnCall(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  std::string call(line);
  if (!call.empty() && static_cast<unsigned char>(call[0]) == 255) {
    call = std::string(StripTelnetPrefix(call));
  }
  if (Trim(call).empty()) return;  // an empty line at the prompt: keep waiting

  // A neighbour's call is looked at before the user call rules, which a node call need not
  // pass (and must never be refused by).
  if (node_hooks_.addresses) {
    const std::string upper = ToUpper(Trim(call));
    if (const AddressList* addresses = node_hooks_.addresses(upper)) {
      OnNodeCall(stream, upper, *addresses);
      return;
    }
  }
  CallCheckContext check;
  check.special_calls = &ctx_.access.special_calls;
  check.locked_out = &ctx_.access.locked_out;
  check.countries = ctx_.countries;
  check.node_call = ctx_.node_call;
  check.on_bad_compound = &ReportBadCompound;
  check.on_bad_compound_user = &ctx_;
  const std::string typed = call;
  if (!ValidCall(call, /*strict=*/true, check)) {
    if (ToUpper(typed).find("ECHO") != std::string::npos) return;
    ctx_.monitor.Write(MonitorChannel::kBadCall, typed, "red", stream);
    ctx_.SendLine(stream, std::string(Trim(typed)) + " is not a valid callsign");
    ctx_.log.Write("Login", "Invalid call " + typed + " from " + e.peer_address);
    Refuse(stream);
    return;
  }
  e.call = call;
  ctx_.monitor.Write(MonitorChannel::kConnections, std::to_string(stream), "", stream);
  if (ctx_.access.IsLockedOut(call)) {
    ctx_.SendLine(stream, "LockedOut ");
    ctx_.monitor.Write(MonitorChannel::kConsole, "LockedOut " + call, "red", stream);
    ConnectionLog(stream, "Connected ");
    Refuse(stream);
    ctx_.monitor.Write(MonitorChannel::kConnections, std::to_string(stream), "red", stream);
    return;
  }
  const UserRecordLoad loaded = ctx_.store.Load(call, e.state);
  e.session = loaded.settings;
  LoadFilters(stream);
  if (ctx_.access.NeedsPassword(call)) {
    e.login_stage = LoginStage::kAwaitingPassword;
    ctx_.SendLine(stream, "password: ");
    return;
  }
  if (e.session.name.empty()) {
    AskName(stream);
    return;
  }
  Complete(stream, /*name_was_set=*/false);
}

void Login::OnPassword(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  if (const PasswordRow* row = ctx_.access.CheckPassword(e.call, Trim(line))) {
    e.privilege = row->level;
    // The front-end keeps the rights with the connection, so a restart of this node does not
    // make the sysop log in again.
    ctx_.out.SetStreamAttributes(stream, "priv=" + std::to_string(row->level));
    if (e.session.name.empty()) {
      AskName(stream);
    } else {
      Complete(stream, false);
    }
    return;
  }
  ++e.password_failures;
  ctx_.log.Write("CheckPassword", "Wrong password for " + e.call + " from " + e.peer_address);
  if (e.password_failures >= kMaxPasswordFailures) {
    ctx_.SendLine(stream, "Password incorrect, disconnecting.");
    Refuse(stream);
    return;
  }
  ctx_.SendLine(stream, "password: ");
}

void Login::OnNodeCall(int stream, const std::string& call, const AddressList& addresses) {
  StreamEntry& e = ctx_.streams.at(stream);
  e.call = call;
  switch (DecideNodeAdmission(ctx_.access.NeedsPassword(call), addresses, e.peer_address)) {
    case NodeAdmission::kAdmit:
      ctx_.log.Write("Login", "Node " + call + " admitted by its address " + e.peer_address);
      node_hooks_.admit(stream, call);
      return;
    case NodeAdmission::kAskPassword:
      e.login_stage = LoginStage::kAwaitingNodePassword;
      ctx_.SendLine(stream, "password: ");
      return;
    case NodeAdmission::kWrongAddress:
      RefuseNode(stream, "not one of the addresses configured for it");
      return;
    case NodeAdmission::kNotConfigured:
      RefuseNode(stream, "no password and no address are configured for this node");
      return;
  }
}

void Login::OnNodePassword(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  if (!ctx_.access.CheckPassword(e.call, Trim(line))) {
    // A node gets one try: its connect script sends the password it has, and a stranger
    // trying passwords gets nothing but a closed connection.
    RefuseNode(stream, "wrong password");
    return;
  }
  ctx_.log.Write("Login", "Node " + e.call + " gave its password from " + e.peer_address);
  e.login_stage = LoginStage::kAwaitingCall;  // the node link takes the stream over
  node_hooks_.admit(stream, e.call);
}

void Login::RefuseNode(int stream, std::string_view why) {
  StreamEntry& e = ctx_.streams.at(stream);
  const std::string text =
      "Node log-in refused: " + e.call + " from " + e.peer_address + ": " + std::string(why);
  ctx_.log.Write("Login", text);
  ctx_.monitor.Write(MonitorChannel::kConsole, text, "red", stream);
  ++ctx_.node_logins_refused;
  ctx_.SendLine(stream, "Login refused.");
  Refuse(stream);
}

void Login::AskName(int stream) {
  ctx_.streams.at(stream).login_stage = LoginStage::kAwaitingName;
  ctx_.SendLine(stream, "Please enter your name");
}

void Login::OnName(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  std::string_view name = Trim(line);
  if (name.empty()) {
    AskName(stream);
    return;
  }
  if (name.size() > 9 && ToUpper(name.substr(0, 9)) == "SET/NAME ") {
    // The name given as a command is meant as given: asking to confirm it would hold a
    // logging program, whose next lines are commands, in the question.
    e.pending_name = PersonalValue(Trim(name.substr(name.find(' ') + 1)));
    if (!e.pending_name.empty()) {
      e.session.name = e.pending_name;
      Complete(stream, /*name_was_set=*/true);
      return;
    }
    AskName(stream);
    return;
  }
  if (IsCommandNotName(name)) {
    // A logging program that logs in by itself sends its start-up commands straight after
    // the call.  Asking it for a name would trap it in the question for good: the log-in
    // completes without a name and the command runs as if typed at the prompt.
    const std::string command(name);
    Complete(stream, /*name_was_set=*/false);
    if (e.login_stage != LoginStage::kLoggedIn || !e.IsUser()) return;
    ctx_.SendLine(stream, "Your name is not set yet: send SET/NAME <your name> to set it.");
    if (interpret_) interpret_(stream, command);
    if (e.login_stage == LoginStage::kLoggedIn && e.IsUser()) BuildPrompt(stream);
    return;
  }
  e.pending_name = PersonalValue(name);
  e.login_stage = LoginStage::kAwaitingNameConfirm;
  ctx_.Send(stream, "Your name is " + e.pending_name + ".  Is this correct? (Y or N) >");
}

void Login::OnNameConfirm(int stream, std::string_view line) {
  StreamEntry& e = ctx_.streams.at(stream);
  const std::string_view answer = Trim(line);
  if (MatchAbbrev("YES", 1, answer)) {
    e.session.name = e.pending_name;
    Complete(stream, /*name_was_set=*/true);
  } else if (MatchAbbrev("NO", 1, answer)) {
    AskName(stream);
  } else if (IsCommandNotName(answer)) {
    // A command instead of an answer: the sender has moved on, so the name stands as given
    // and the command runs as if typed at the prompt.
    const std::string command(answer);
    e.session.name = e.pending_name;
    Complete(stream, /*name_was_set=*/true);
    if (e.login_stage != LoginStage::kLoggedIn || !e.IsUser()) return;
    if (interpret_) interpret_(stream, command);
    if (e.login_stage == LoginStage::kLoggedIn && e.IsUser()) BuildPrompt(stream);
  } else {
    ctx_.Send(stream, "Your name is " + e.pending_name + ".  Is this correct? (Y or N) >");
  }
}

void Login::Complete(int stream, bool name_was_set) {
  StreamEntry& e = ctx_.streams.at(stream);
  e.login_stage = LoginStage::kLoggedIn;
  e.state = kStateUser;
  ctx_.log.Write("Login", "Login Ok " + e.call + " " + e.peer_address);
  const SysTime login_time = ctx_.clock.Now();
  ctx_.store.NoteLogin(e.call, DateText(login_time) + " " + TimeHHnnZ(login_time));
  ctx_.monitor.Write(MonitorChannel::kConsole, "Login Ok " + e.call, "green", stream);
  ctx_.out.SetStreamIdentity(stream, e.call, e.state);
  SendStreamAttributes(stream);
  if (name_was_set) {
    ctx_.SendLine(stream, "Name set to " + e.session.name + ".");
    ctx_.store.SavePersonal(e.call, 1, e.session.name);
    ctx_.relay.SendPc41(LocalPc41(e.call, 1, e.session.name));
  }
  ConnectionLog(stream, "Login");
  BuildPromptTemplates(stream);
  SendGreeting(stream);
  if (!CheckDupeConnection(stream)) return;
  ctx_.relay.UserLoggedInOut(e.call, stream, true);
  ctx_.monitor.Write(MonitorChannel::kConnections, std::to_string(stream), "", stream);
  BuildPrompt(stream);
}

void Login::SendGreeting(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  const std::string_view shown =
      e.session.name.empty() ? std::string_view(e.call) : std::string_view(e.session.name);
  std::string text = e.call + "\r\n\r\n";
  text += "Hello " + std::string(shown) + ".\r\n\r\n";
  text += ctx_.messages.Port(e.port_index);
  const ClusterCounts c = ctx_.counts ? ctx_.counts() : ClusterCounts{1, 1, 0};
  const auto up = std::chrono::duration_cast<std::chrono::seconds>(ctx_.clock.Now() - ctx_.started);
  text += fmt::format("Cluster: {} nodes  {} Locals  {} Total users   Uptime {}\r\n\r\n", c.nodes,
                      c.local_users, c.local_users + c.remote_users, UptimeText(up));
  ctx_.Send(stream, text);
  if (interpret_) {
    for (std::string_view line : SplitLines(ctx_.messages.Get("Logon 4"))) {
      if (!Trim(line).empty()) interpret_(stream, Trim(line));
    }
  }
  if (ctx_.mail_notices) {
    for (const std::string& notice : ctx_.mail_notices(stream)) ctx_.SendLine(stream, notice);
  }
}

bool Login::CheckDupeConnection(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  // The equivalent SSID spellings, each tried only when the previous found nothing.
  std::vector<std::string> variants{e.call};
  if (e.call.find('-') == std::string::npos) {
    variants.push_back(e.call + "-0");
  } else {
    std::string v = e.call;
    ReplaceFirst(v, "-", "-0");
    variants.push_back(v);
  }
  {
    std::string v = e.call;
    if (ReplaceFirst(v, "-00", "-")) variants.push_back(v);
    v = e.call;
    if (ReplaceFirst(v, "-0", "-")) variants.push_back(v);
    v = e.call;
    if (v.size() > 2 && v.ends_with("-0")) {
      v.resize(v.size() - 2);
      variants.push_back(v);
    }
    v = e.call;
    if (ReplaceFirst(v, "-01", "-2")) variants.push_back(v);
  }
  int old = 0;
  for (const std::string& v : variants) {
    for (int s = 1; s <= ctx_.streams.high_socket() && old == 0; ++s) {
      if (s != stream && ctx_.streams.at(s).IsUser() && ctx_.streams.at(s).call == v) old = s;
    }
    if (old) break;
  }
  if (old == 0) return true;

  StreamEntry& o = ctx_.streams.at(old);
  ctx_.SendLine(stream, e.call + " Dupe call and SSID connected from IP address " + o.peer_address);

  const bool banned = std::find(reconnect_banned_.begin(), reconnect_banned_.end(), e.call) !=
                      reconnect_banned_.end();
  const std::string bucket = TimeHHnn(ctx_.clock.Now()).substr(0, 3);
  if (!banned) {
    if (e.call == last_dupe_call_ && bucket == last_dupe_bucket_) {
      ++dupe_count_;
    } else {
      last_dupe_call_ = e.call;
      last_dupe_bucket_ = bucket;
      dupe_count_ = 1;
    }
  }
  if (banned || dupe_count_ > kReconnectLimit) {
    if (!banned) reconnect_banned_.push_back(e.call);
    ctx_.SendLine(stream, "Too many reconnects. ");
    ctx_.log.Write("CheckDupeConnection", "2 many recons " + e.call);
    Refuse(stream);
    return false;
  }

  const std::string prefix = o.call + " de " + ctx_.node_call;
  {
    ScopedCurrentStream cur(ctx_.streams, old);
    ctx_.SendLine(old, prefix + ": Connection Problem - Multiple connections, same SSID.");
    ctx_.SendLine(old, prefix + ":    - Each connection requires a unique SSID.");
    ctx_.SendLine(old, prefix + ":    - See " + ctx_.ssid_help_address);
    ctx_.SendLine(old, "Reconnected as " + e.call + " at " + e.peer_address +
                           ", this instance is disconnected");
  }
  // The session moves to the new stream: its settings survive, and neither the user count
  // nor the other nodes see a log-out.
  e.session = o.session;
  if (ctx_.filters) ctx_.filters->Move(old, stream);
  e.privilege = std::max(e.privilege, o.privilege);
  e.client_type = o.client_type;
  ctx_.log.Write("CheckDupeConnection",
                 o.call + " stream " + std::to_string(old) + " ignored due to reconnection");
  ConnectionLog(old, "Logout ignored due to reconnection");
  ctx_.out.CloseStream(old);
  // Freed at once, so that the front-end's close report is not taken for a log-out.
  o.state = kStateFree;
  o.login_stage = LoginStage::kRefused;
  ctx_.monitor.Write(MonitorChannel::kConnections, std::to_string(old), "", old);
  return true;
}

void Login::BuildPromptTemplates(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  const std::string fixed = e.call + " de " + ctx_.node_call + " ";
  e.prompt_insert = fixed.size();
  e.prompt_full = fixed + std::string(16, ' ') + "Z   QXC >\r\n";
  e.prompt_short = fixed + std::string(16, ' ') + "Z  not arc >\r\n";
}

std::string Login::PromptText(int stream, SysTime t) const {
  const StreamEntry& e = ctx_.streams.at(stream);
  if (e.session.prompt_form == ">") return ">\r\n";
  if (e.session.prompt_form == "%M>") return ctx_.node_call + ">\r\n";
  std::string p = e.prompt_full;
  if (p.empty()) return ">\r\n";
  const std::string stamp = DateText(t) + " " + TimeHHnn(t);  // 16 characters
  p.replace(e.prompt_insert, 16, stamp);
  return p;
}

std::string Login::PeriodStamp(SysTime t) {
  const auto minutes =
      std::chrono::duration_cast<std::chrono::minutes>(t.time_since_epoch()).count();
  return fmt::format("{:08d}", minutes % 100000000);
}

void Login::BuildPrompt(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  // A program reading JSON wants objects only; it knows when an answer is complete.
  if (!e.IsUser() || e.session.Has(kSwJson)) return;
  const SysTime now = ctx_.clock.Now();
  const std::string stamp = PeriodStamp(now);
  int count = 0;
  if (e.prompt_counter.size() >= 7 && e.prompt_counter.compare(0, 8, stamp) == 0) {
    count = ParseIntOr(
        std::string_view(e.prompt_counter).substr(std::min<size_t>(9, e.prompt_counter.size())), 0);
  }
  if (count >= kRunawayLimit) return;  // the runaway was told; no more prompts this period
  count = count == 0 ? 1 : count + 1;
  e.prompt_counter = stamp + " " + std::to_string(count);
  if (count >= kRunawayLimit) {
    ctx_.SendLine(stream, "Fatal Error: Runaway problem!.");
    ctx_.log.Write("BuildPrompt", "Runaway " + e.call);
    ctx_.monitor.Write(MonitorChannel::kRunaway,
                       DateText(now).substr(0, 2) + "  " + TimeHHnn(now).substr(0, 2) + ":" +
                           TimeHHnn(now).substr(2, 2) + " --  " + e.call,
                       "red", stream);
    return;
  }
  ctx_.Send(stream, PromptText(stream, now));
}

void Login::SendStreamAttributes(int stream) {
  const StreamEntry& e = ctx_.streams.at(stream);
  // When the connection began (WHO shows it after a restart of this node), the rights the
  // password gave, and the enhanced spot format a companion client asked for.
  std::string attributes = fmt::format(
      "since={}",
      std::chrono::duration_cast<std::chrono::seconds>(e.since.time_since_epoch()).count());
  if (e.privilege > 0) attributes += " priv=" + std::to_string(e.privilege);
  if (e.spot_format != kSpotFormatDxDe) attributes += " fmt=" + std::to_string(e.spot_format);
  ctx_.out.SetStreamAttributes(stream, attributes);
}

void Login::OnLoggedOut(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  if (ctx_.filters) ctx_.filters->Drop(stream);
  ConnectionLog(stream, "Logout");
  ctx_.relay.UserLoggedInOut(e.call, stream, false);
}

void Login::OnRecovered(int stream) {
  StreamEntry& e = ctx_.streams.at(stream);
  if (!e.IsUser() || e.call.empty()) return;
  const UserRecordLoad loaded = ctx_.store.Load(e.call, e.state);
  e.session = loaded.settings;
  LoadFilters(stream);
  e.login_stage = LoginStage::kLoggedIn;
  e.privilege = RecoveredPrivilege(e.call, e.frontend_attributes);
  if (StreamAttribute(e.frontend_attributes, "fmt") == std::to_string(kSpotFormatEnhanced)) {
    e.spot_format = kSpotFormatEnhanced;
  }
  BuildPromptTemplates(stream);
}

int Login::RecoveredPrivilege(std::string_view call, std::string_view attributes) const {
  // "priv=N" was given when the password was right.  Rights the sysop has taken away since
  // (the call's row removed from the password list) are not given back.
  const int level = ParseIntOr(StreamAttribute(attributes, "priv"), 0);
  if (level <= 0) return 0;
  int highest = 0;
  for (const PasswordRow& row : ctx_.access.passwords) {
    if (EqualsIgnoreCase(row.call, call) || EqualsIgnoreCase(row.call, BaseCall(call))) {
      highest = std::max(highest, row.level);
    }
  }
  return std::min(level, highest);
}

void Login::LoadFilters(int stream) {
  if (!ctx_.filters) return;
  StreamEntry& e = ctx_.streams.at(stream);
  const FilterBook::LoadResult r = ctx_.filters->Load(stream, e.session);
  for (const std::string& error : r.errors) {
    ctx_.log.Write("Filters", e.call + ": stored filter dropped: " + error);
  }
  if (r.rewrite) {
    // Old-form or broken lines are read once; what was understood is stored afresh.
    e.session.filter_lines = ctx_.filters->Of(stream)->RecordLines();
    ctx_.store.SaveLines(e.call, "FILTER", e.session.filter_lines);
  }
}

void Login::ConnectionLog(int stream, std::string_view what) {
  const StreamEntry& e = ctx_.streams.at(stream);
  const SysTime now = ctx_.clock.Now();
  const std::string line = fmt::format("{} {} {} {} stream {} {}\r\n", DateText(now),
                                       TimeHHnnssZ(now), what, e.call, stream, e.peer_address);
  AppendToFile(ctx_.dir.Data("log/conn") / (DateText(now) + ".log"), line);
}

}  // namespace qx
