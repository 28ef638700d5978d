// The web console's view of the running node: streams, lists, settings, log-on messages,
// node links, statistics and logs, read from and written to the node's own objects.
#pragma once

#include <map>
#include <memory>

#include "console/console_logs.h"
#include "console/console_model.h"
#include "console/sysop_files.h"
#include "mail/mail_forwarder.h"

namespace qx {

class ClusterNode;

class NodeConsoleModel final : public ConsoleModel {
 public:
  explicit NodeConsoleModel(ClusterNode& node);
  ~NodeConsoleModel() override { *alive_ = false; }

  Monitor& monitor() override;
  std::string NodeCall() const override;
  void LogEvent(std::string_view heading, std::string_view text) override;

  std::vector<ConsoleStream> Streams() const override;
  ConsoleResult DisconnectStream(int stream) override;

  std::vector<std::string> ListNames() const override;
  std::optional<std::vector<std::string>> ListItems(std::string_view list) const override;
  ConsoleResult ListAdd(std::string_view list, std::string_view item) override;
  ConsoleResult ListRemove(std::string_view list, std::string_view item) override;
  ConsoleImport ListImport(std::string_view list, std::string_view pasted) override;
  bool ListFetchable(std::string_view list) const override;
  ConsoleResult ListFetch(std::string_view list, std::string_view url) override;
  std::string ListNote(std::string_view list) const override;

  std::vector<ConsolePassword> PasswordCalls() const override;
  ConsoleResult SetPassword(std::string_view call, std::string_view password, int level) override;
  ConsoleResult RemovePassword(std::string_view call) override;

  ConsoleUserPage Users(std::string_view query, size_t offset, size_t limit) const override;
  std::optional<ConsoleUserDetail> User(std::string_view call) const override;
  ConsoleResult SetUserLockedOut(std::string_view call, bool locked) override;

  std::vector<ConsoleSettingsGroup> Settings() const override;
  ConsoleResult SaveSettings(
      const std::vector<std::pair<std::string, std::string>>& changes) override;

  std::vector<std::string> LogonSections() const override;
  std::optional<std::string> LogonMessage(std::string_view section) const override;
  ConsoleResult SetLogonMessage(std::string_view section, std::string_view text) override;

  std::vector<ConsoleNode> DefinedNodes() const override;
  std::vector<ConsoleLink> Links() const override;
  ConsoleResult SaveLink(const ConsoleLink& link) override;
  ConsoleResult SaveNode(const ConsoleNode& node, std::string_view password) override;
  ConsoleResult RemoveNode(std::string_view call) override;
  ConsoleResult RemoveLink(std::string_view name) override;
  ConsoleResult ConnectLink(std::string_view name) override;
  ConsoleResult DisconnectLink(std::string_view name) override;

  std::vector<ConsoleSpot> SpotsOfDay(SysTime day) const override;
  std::vector<ConsoleSpot> RecentRefusals() const override;

  int MonitorView() const override;
  ConsoleResult SetMonitorView(int view) override;

  ConsoleStats Statistics() const override;
  std::vector<ConsoleDownload> Downloads() const override;
  std::string UpdateCheckOutcome() const override;
  ConsoleResult UpdateReferenceData() override;
  ConsoleMetrics Metrics() const override;

  std::vector<std::string> LogFiles() const override;
  std::optional<std::vector<std::string>> TailLog(std::string_view name,
                                                  size_t max_lines) const override;
  std::optional<std::vector<std::string>> SearchLog(std::string_view name, std::string_view needle,
                                                    size_t max_hits) const override;

  std::vector<ConsoleMail> MailList() const override;
  std::optional<ConsoleMail> MailRead(int number) const override;
  ConsoleResult MailDelete(int number) override;
  ConsoleResult MailRequeue(int number) override;

  ConsoleResult Restart() override;
  void Shutdown() override;

  // Checks one setting's value; "" when it is acceptable, else the reason.
  static std::string ValidateSetting(std::string_view key, std::string_view value);

 private:
  std::filesystem::path FilePath(const SysopFile& f) const;
  // Writes a sysop file atomically and has the node read it again, so the change counts for
  // the next spot or log-in.
  bool WriteSysopFile(const SysopFile& f, std::string_view text);
  // Adds candidates to the file in one write; the audit line names what was added.
  ConsoleImport ImportIntoFile(const SysopFile& f, const std::vector<std::string>& candidates,
                               std::string_view source);
  bool WritePasswords(std::string_view text);
  ConsoleUser UserSummary(const std::string& call, const std::string& text) const;
  ConsoleMail MailRow(const MailMessage& m,
                      const std::vector<MailForwarder::Pending>& pending) const;

  ClusterNode& node_;
  ConsoleLogFiles logs_;
  std::map<std::string, std::string, std::less<>> notes_;  // list -> how the last fetch went
  std::map<std::string, bool, std::less<>> fetching_;      // list -> a fetch is under way
  // Fetch callbacks hold this, so one that completes after the model is gone does nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace qx
