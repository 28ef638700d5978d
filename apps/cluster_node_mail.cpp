// Mail and bulletins wired into the node: the store under data/msg/, the users' commands and
// editor, the notices, and the forwarder on the node links.
#include <set>

#include "apps/cluster_node.h"
#include "core/text_util.h"
#include "spots/call_sign.h"

namespace qx {

void ClusterNode::SetUpMail() {
  mail_store_ = std::make_unique<MailStore>(dir_.Data("msg"));
  std::vector<std::string> notes;
  const int count = mail_store_->Rebuild(&notes);
  for (const std::string& note : notes) log_.Write("Mail", "not indexed: " + note);

  MailServiceDeps deps;
  deps.streams = &streams_;
  deps.out = this;
  deps.clock = &clock_;
  deps.store = mail_store_.get();
  deps.node_call = ToUpper(config_.Get("Cluster Call"));
  deps.log = [this](std::string_view tag, std::string_view text) { log_.Write(tag, text); };
  deps.save_mail_number = [this](std::string_view call, int number) {
    store_.Save(call, "MAILNUMBER", std::to_string(number));
  };
  deps.stored = [this](int number) {
    if (mail_forwarder_) mail_forwarder_->Stored(number, clock_.Now());
  };
  deps.prompt = [this](int stream) {
    if (login_ && streams_.InRange(stream) && streams_.at(stream).IsUser()) {
      login_->BuildPrompt(stream);
    }
  };
  // The home node from SET/HOMENODE here or a PC41 from the network.
  deps.home_node = [this](std::string_view call) {
    return store_.Load(call, kStateUser).settings.home_node;
  };
  deps.drafts_dir = dir_.Data("msg") / "drafts";
  mail_ = std::make_unique<MailService>(std::move(deps));

  MailForwarderDeps f;
  f.store = mail_store_.get();
  f.node_call = ToUpper(config_.Get("Cluster Call"));
  f.send = [this](int stream, std::string_view text) { SendToStream(stream, text); };
  f.route = [this](std::string_view node) {
    for (const auto& [stream, peer] : mail_links_) {
      if (EqualsIgnoreCase(peer, node)) return stream;
    }
    return network_ ? network_->processor().view().RouteTo(ToUpper(node)) : 0;
  };
  f.receive = [this](MailMessage m) { return mail_->Receive(std::move(m)); };
  f.log = [this](std::string_view text) { log_.Write("MailForward", text); };
  mail_forwarder_ = std::make_unique<MailForwarder>(std::move(f));

  ApplyMailSettings();
  const int purged = mail_->Purge(mail_->purge_days());
  mail_purged_day_ =
      int(std::chrono::floor<std::chrono::days>(clock_.Now()).time_since_epoch().count());
  monitor_.Console("   " + std::to_string(count - purged) + " messages");
}

void ClusterNode::ApplyMailSettings() {
  if (!mail_) return;
  mail_->SetBulletinAddresses(config_.List("BullAddress").items);
  // "Mail Purge" counts days; empty or 0 keeps messages until they are deleted.
  mail_->set_purge_days(std::max(0, config_.GetInt("Mail Purge", 0)));
}

void ClusterNode::SyncMailLinks() {
  if (!mail_forwarder_ || !network_) return;
  const SysTime now = clock_.Now();
  // The forwarder follows the links that are up: new ones get what they have not had.
  std::map<int, std::string> up;
  for (const NodeNetwork::LinkInfo& l : network_->Links()) {
    if (l.up) up[l.stream] = ToUpper(l.peer);
  }
  for (auto it = mail_links_.begin(); it != mail_links_.end();) {
    const auto now_up = up.find(it->first);
    if (now_up == up.end() || now_up->second != it->second) {
      mail_forwarder_->LinkDown(it->first, now);
      it = mail_links_.erase(it);
    } else {
      ++it;
    }
  }
  for (const auto& [stream, peer] : up) {
    if (mail_links_.emplace(stream, peer).second) mail_forwarder_->LinkUp(stream, peer, now);
  }
}

void ClusterNode::MailTick() {
  if (!mail_forwarder_) return;
  SyncMailLinks();
  const SysTime now = clock_.Now();
  mail_forwarder_->Tick(now);

  const int today = int(std::chrono::floor<std::chrono::days>(now).time_since_epoch().count());
  if (today != mail_purged_day_) {
    mail_purged_day_ = today;
    mail_->Purge(mail_->purge_days());
  }
}

std::vector<std::string> ClusterNode::Mail(int stream, std::string_view verb,
                                           std::string_view args) {
  return mail_->Command(stream, verb, args);
}

bool ClusterNode::MailComposing(int stream) const { return mail_ && mail_->Composing(stream); }

}  // namespace qx
