#include "console/setting_check.h"

#include <arpa/inet.h>

#include <cctype>
#include <optional>

#include "core/text_util.h"

namespace qx {
namespace {

std::string ToLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::optional<long long> WholeNumber(std::string_view text) {
  if (text.empty() || text.size() > 12) return std::nullopt;
  long long n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    n = n * 10 + (c - '0');
  }
  return n;
}

bool IsPort(std::string_view text) {
  const auto n = WholeNumber(Trim(text));
  return n && *n >= 1 && *n <= 65535;
}

bool IsIpAddress(std::string_view text) {
  const std::string s(text);
  unsigned char buf[16];
  return inet_pton(AF_INET, s.c_str(), buf) == 1 || inet_pton(AF_INET6, s.c_str(), buf) == 1;
}

bool IsHostName(std::string_view host) {
  if (host.empty() || host.size() > 253) return false;
  if (host.front() == '[' && host.back() == ']')
    return IsIpAddress(host.substr(1, host.size() - 2));
  for (char c : host) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.') return false;
  }
  return host.front() != '.' && host.front() != '-';
}

struct Site {
  std::string scheme;     // "http" or "https"
  std::string host;       // lower case
  std::string port;       // empty: the scheme's default
  std::string_view rest;  // from the first "/" after the host on
};

// Splits "scheme://host[:port][/...]".  nullopt when any part is not what a browser would use.
std::optional<Site> ParseSite(std::string_view text) {
  Site site;
  const size_t sep = text.find("://");
  if (sep == std::string_view::npos) return std::nullopt;
  site.scheme = ToLower(text.substr(0, sep));
  if (site.scheme != "http" && site.scheme != "https") return std::nullopt;
  std::string_view hostport = text.substr(sep + 3);
  const size_t slash = hostport.find_first_of("/?#");
  if (slash != std::string_view::npos) {
    site.rest = hostport.substr(slash);
    hostport = hostport.substr(0, slash);
  }
  // A port follows the last ":" unless that colon is inside an IPv6 address's brackets.
  const size_t colon = hostport.rfind(':');
  if (colon != std::string_view::npos && hostport.find(']', colon) == std::string_view::npos) {
    site.port = std::string(hostport.substr(colon + 1));
    hostport = hostport.substr(0, colon);
    if (!IsPort(site.port)) return std::nullopt;
    site.port = std::to_string(*WholeNumber(site.port));
    if ((site.scheme == "http" && site.port == "80") ||
        (site.scheme == "https" && site.port == "443")) {
      site.port.clear();
    }
  }
  if (!IsHostName(hostport)) return std::nullopt;
  site.host = ToLower(hostport);
  return site;
}

}  // namespace

std::string_view SettingKindName(SettingKind kind) {
  switch (kind) {
    case SettingKind::kText:
      return "text";
    case SettingKind::kSwitch:
      return "switch";
    case SettingKind::kNumber:
      return "number";
    case SettingKind::kPort:
      return "port";
    case SettingKind::kPortOrOff:
      return "number";
    case SettingKind::kPortList:
      return "ports";
    case SettingKind::kIpAddress:
      return "address";
    case SettingKind::kUrl:
      return "url";
    case SettingKind::kPublicSite:
      return "site";
  }
  return "text";
}

std::string CheckSettingValue(SettingKind kind, std::string_view value) {
  if (value.find_first_of("^\r\n") != std::string_view::npos) return "one line, without ^";
  value = Trim(value);
  switch (kind) {
    case SettingKind::kText:
      return "";
    case SettingKind::kSwitch:
      if (EqualsIgnoreCase(value, "True") || EqualsIgnoreCase(value, "False")) return "";
      return "True or False";
    case SettingKind::kNumber: {
      const auto n = WholeNumber(value);
      return n && *n <= 100000000 ? "" : "a whole number from 0 to 100000000";
    }
    case SettingKind::kPort:
      return IsPort(value) ? "" : "a port number from 1 to 65535";
    case SettingKind::kPortOrOff:
      return value.empty() || value == "0" || IsPort(value) ? ""
                                                            : "a port number from 1 to 65535, "
                                                              "or 0 for none";
    case SettingKind::kPortList: {
      const auto parts = Split(value, ',');
      if (value.empty()) return "at least one port";
      if (parts.size() > 9) return "at most nine ports";
      for (std::string_view p : parts) {
        if (!IsPort(p)) return "port numbers from 1 to 65535, comma-separated";
      }
      return "";
    }
    case SettingKind::kIpAddress:
      if (IsIpAddress(value)) return "";
      return "an IP address such as 127.0.0.1, 0.0.0.0 or ::1 (a name cannot be listened on)";
    case SettingKind::kUrl: {
      if (value.empty()) return "";
      if (value.find_first_of(" \t") == std::string_view::npos && ParseSite(value)) return "";
      return "a web address starting with http:// or https://, or empty";
    }
    case SettingKind::kPublicSite:
      if (value.empty() || !OriginOfSite(value).empty()) return "";
      return "the address browsers use, such as https://cluster.example.org, without a path; "
             "or empty";
  }
  return "";
}

std::string OriginOfSite(std::string_view text) {
  text = Trim(text);
  if (text.empty() || text.find_first_of(" \t") != std::string_view::npos) return "";
  const auto site = ParseSite(text);
  if (!site || (!site->rest.empty() && site->rest != "/")) return "";
  return site->scheme + "://" + site->host + (site->port.empty() ? "" : ":" + site->port);
}

bool LiveViewOriginAllowed(std::string_view origin, std::string_view host,
                           std::string_view public_site) {
  if (origin.empty()) return true;
  const std::string seen = OriginOfSite(origin);
  if (seen.empty()) return false;
  if (!host.empty() && seen == OriginOfSite("http://" + std::string(host))) return true;
  const std::string pub = OriginOfSite(public_site);
  return !pub.empty() && seen == pub;
}

}  // namespace qx
