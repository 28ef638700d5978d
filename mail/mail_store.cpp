#include "mail/mail_store.h"

#include <fmt/format.h>

#include <system_error>

#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {

namespace {
constexpr std::string_view kLastNumberFile = "lastnumber";
}  // namespace

MailStore::MailStore(std::filesystem::path dir) : dir_(std::move(dir)) {}

std::filesystem::path MailStore::PathOf(int number) const {
  return dir_ / fmt::format("{:06}.msg", number);
}

void MailStore::IndexHeader(const MailMessage& full) {
  MailMessage header = full;
  header.text.clear();
  keys_[header.Key()] = header.number;
  index_[header.number] = std::move(header);
}

int MailStore::Rebuild(std::vector<std::string>* notes) {
  index_.clear();
  keys_.clear();
  std::error_code ec;
  std::filesystem::create_directories(dir_, ec);
  last_number_ = 0;
  if (const auto text = ReadFileText(dir_ / kLastNumberFile)) {
    last_number_ = std::max(0, ParseIntOr(Trim(*text), 0));
  }
  for (const auto& entry : std::filesystem::directory_iterator(dir_, ec)) {
    if (entry.path().extension() != ".msg") continue;
    const auto text = ReadFileText(entry.path());
    MailMessage m;
    std::string why;
    if (!text || !ParseMailFile(*text, m, &why, /*with_text=*/false)) {
      if (notes)
        notes->push_back(entry.path().filename().string() + ": " + (text ? why : "unreadable"));
      continue;
    }
    if (entry.path().filename() != PathOf(m.number).filename()) {
      if (notes) notes->push_back(entry.path().filename().string() + ": number does not match");
      continue;
    }
    IndexHeader(m);
    last_number_ = std::max(last_number_, m.number);
  }
  return int(index_.size());
}

const MailMessage* MailStore::Find(int number) const {
  const auto it = index_.find(number);
  return it == index_.end() ? nullptr : &it->second;
}

const MailMessage* MailStore::FindKey(const std::string& key) const {
  const auto it = keys_.find(key);
  return it == keys_.end() ? nullptr : Find(it->second);
}

bool MailStore::ReadFull(int number, MailMessage& out) const {
  if (!Find(number)) return false;
  const auto text = ReadFileText(PathOf(number));
  return text && ParseMailFile(*text, out, nullptr) && out.number == number;
}

bool MailStore::SaveLastNumber() {
  return AtomicWriteFile(dir_ / kLastNumberFile, std::to_string(last_number_) + "\r\n");
}

bool MailStore::Add(MailMessage& m) {
  ++last_number_;
  m.number = last_number_;
  // The number is spent even if the message cannot be written.
  SaveLastNumber();
  if (!AtomicWriteFile(PathOf(m.number), FormatMailFile(m))) return false;
  IndexHeader(m);
  return true;
}

bool MailStore::Modify(int number, const std::function<void(MailMessage&)>& change) {
  MailMessage full;
  if (!ReadFull(number, full)) return false;
  change(full);
  full.number = number;
  if (!AtomicWriteFile(PathOf(number), FormatMailFile(full))) return false;
  IndexHeader(full);
  return true;
}

MailStore::PurgeResult MailStore::Purge(SysTime now, int days) {
  PurgeResult r;
  const SysTime limit = now - std::chrono::hours(24) * days;
  for (auto it = index_.begin(); it != index_.end();) {
    const MailMessage& m = it->second;
    const bool old = days > 0 && !m.keep && m.time < limit;
    if (!m.deleted && !old) {
      ++it;
      continue;
    }
    std::error_code ec;
    std::filesystem::remove(PathOf(m.number), ec);
    if (ec) {
      r.errors.push_back(PathOf(m.number).string() + ": " + ec.message());
      ++it;
      continue;
    }
    keys_.erase(m.Key());
    it = index_.erase(it);
    ++r.removed;
  }
  return r;
}

}  // namespace qx
