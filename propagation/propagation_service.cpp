#include "propagation/propagation_service.h"

#include "core/file_util.h"
#include "core/monitor.h"
#include "core/session.h"
#include "core/stream_output.h"
#include "core/stream_table.h"
#include "core/text_util.h"

namespace qx {
namespace {

std::vector<std::string> Fields(std::string_view line) {
  std::vector<std::string> out;
  for (std::string_view f : Split(line, '^')) out.emplace_back(f);
  return out;
}

std::string Joined(const std::vector<std::string>& fields) {
  return Join(fields, "^").substr(0, 300);
}

}  // namespace

PropagationService::PropagationService(std::string our_call, PropagationDeps deps)
    : our_call_(ToUpper(our_call)), deps_(std::move(deps)) {}

size_t PropagationService::LoadToday() {
  const SysTime now = deps_.clock->Now();
  size_t loaded = 0;
  const auto load = [&](const std::filesystem::path& dir, std::string_view prefix,
                        std::string_view step, auto&& take) {
    if (deps_.monitor) deps_.monitor->Console(std::string(step));
    if (!dir.empty()) {
      if (const auto text = ReadFileText(dir / (std::string(prefix) + DateText(now)))) {
        // Lines written by an older version or edited by hand are held to the same checks
        // as a received sentence, except its age.
        for (std::string_view line : SplitLines(*text)) {
          if (take(Fields(Trim(line)))) ++loaded;
        }
      }
    }
    if (deps_.monitor) deps_.monitor->Console("   ... done");
  };
  load(deps_.wwv_dir, "wwv-", "Loading WWV", [&](const std::vector<std::string>& f) {
    WwvReport r;
    return ReadPc23(f, now, false, r) == ReportCheck::kOk && history_.AddWwv(r, now);
  });
  load(deps_.wcy_dir, "wcy-", "Loading WCY", [&](const std::vector<std::string>& f) {
    WcyReport r;
    return ReadPc73(f, now, false, r) == ReportCheck::kOk && history_.AddWcy(r, now);
  });
  return loaded;
}

size_t PropagationService::ReloadToday() {
  history_ = PropagationHistory();
  return LoadToday();
}

PropagationService::Intake PropagationService::OnPc23(const std::vector<std::string>& fields) {
  const SysTime now = deps_.clock->Now();
  WwvReport r;
  const ReportCheck check = ReadPc23(fields, now, true, r);
  if (check != ReportCheck::kOk) {
    Log("PC23", std::string(ReportCheckText(check)) + ", dropped: " + Joined(fields));
    return Intake::kRefused;
  }
  if (!history_.AddWwv(r, now)) return Intake::kRepeat;
  Keep(deps_.wwv_dir, "wwv-", BuildPc23(r, kOriginatedReportHops));
  ToUsers(kSwWwv, WwvUserLine(r), r.logger, r.origin);
  return Intake::kNew;
}

PropagationService::Intake PropagationService::OnPc73(const std::vector<std::string>& fields) {
  const SysTime now = deps_.clock->Now();
  WcyReport r;
  const ReportCheck check = ReadPc73(fields, now, true, r);
  if (check != ReportCheck::kOk) {
    Log("PC73", std::string(ReportCheckText(check)) + ", dropped: " + Joined(fields));
    return Intake::kRefused;
  }
  if (!history_.AddWcy(r, now)) return Intake::kRepeat;
  Keep(deps_.wcy_dir, "wcy-", BuildPc73(r, kOriginatedReportHops));
  ToUsers(kSwWcy, WcyUserLine(r), r.logger, r.origin);
  return Intake::kNew;
}

std::string PropagationService::EnterWwv(std::string_view logger, std::string_view args) {
  WwvReport r;
  std::string error;
  if (!ParseWwvCommand(args, r, error)) return error;
  const SysTime now = deps_.clock->Now();
  r.date = DateText(now);
  r.hour = SecondsOfDay(now) / 3600;
  r.logger = ToUpper(Trim(logger));
  r.origin = our_call_;
  if (!history_.AddWwv(r, now)) return "This WWV has been sent already.";
  Keep(deps_.wwv_dir, "wwv-", BuildPc23(r, kOriginatedReportHops));
  ToUsers(kSwWwv, WwvUserLine(r), r.logger, r.origin);
  if (deps_.originate) deps_.originate(BuildPc23(r, kOriginatedReportHops));
  return "WWV sent: " + WwvUserLine(r);
}

bool PropagationService::OriginateWwv(WwvReport r) {
  const SysTime now = deps_.clock->Now();
  if (history_.HasWwvFor(r.date, r.hour)) return false;
  r.logger = r.logger.empty() ? our_call_ : r.logger;
  r.origin = our_call_;
  if (!history_.AddWwv(r, now)) return false;
  Keep(deps_.wwv_dir, "wwv-", BuildPc23(r, kOriginatedReportHops));
  ToUsers(kSwWwv, WwvUserLine(r), r.logger, r.origin);
  if (deps_.originate) deps_.originate(BuildPc23(r, kOriginatedReportHops));
  return true;
}

bool PropagationService::ShowWwv(std::string_view args, int default_count, int max_count,
                                 std::vector<std::string>& lines) const {
  size_t n = 0;
  if (!ShowCount(args, default_count, max_count, n)) return false;
  lines.push_back(WwvListHeader());
  for (const WwvReport* r : history_.wwv().Newest(n)) lines.push_back(WwvListRow(*r));
  return true;
}

bool PropagationService::ShowWcy(std::string_view args, int default_count, int max_count,
                                 std::vector<std::string>& lines) const {
  size_t n = 0;
  if (!ShowCount(args, default_count, max_count, n)) return false;
  lines.push_back(WcyListHeader());
  for (const WcyReport* r : history_.wcy().Newest(n)) lines.push_back(WcyListRow(*r));
  return true;
}

void PropagationService::Keep(const std::filesystem::path& dir, std::string_view prefix,
                              std::string_view line) {
  if (dir.empty()) return;
  const auto path = dir / (std::string(prefix) + DateText(deps_.clock->Now()));
  if (!AppendToFile(path, line)) Log("Propagation", "cannot append to " + path.string());
}

void PropagationService::ToUsers(uint32_t bit, std::string_view text, std::string_view logger,
                                 std::string_view origin) {
  // Built once per form (with and without the bell), not once per user.
  const std::string plain = std::string(text) + "\r\n";
  const std::string bell = std::string(text) + "\a\r\n";
  const PropagationDeps::UserGate gate =
      deps_.user_gate ? deps_.user_gate(logger, origin, text) : PropagationDeps::UserGate();
  StreamTable& t = *deps_.streams;
  for (int s = 1; s <= t.high_socket(); ++s) {
    const StreamEntry& e = t.at(s);
    if (!e.TakesBroadcast(bit) || (gate && !gate(s, e))) continue;
    deps_.out->SendToStream(s, e.session.Has(kSwBeep) ? bell : plain);
  }
}

}  // namespace qx
