#include "frontend/frontend_settings.h"

#include <boost/asio/ip/address.hpp>
#include <optional>
#include <string>

#include "core/config.h"
#include "core/file_util.h"
#include "core/text_util.h"

namespace qx {
namespace {

bool ParsePort(std::string_view text, int& port) {
  long long value = 0;
  if (!ParseInt(Trim(text), value) || value < 1 || value > 65535) return false;
  port = static_cast<int>(value);
  return true;
}

// A whole number from 0 up; a bad value keeps the default and warns.
void ReadCount(const Config& config, std::string_view key, int& value,
               std::vector<std::string>& warnings) {
  const std::string& text = config.Get(key);
  long long n = 0;
  if (!ParseInt(Trim(text), n) || n < 0 || n > 100000000) {
    warnings.push_back(std::string(key) + " \"" + text + "\" is not a whole number from 0 up");
    return;
  }
  value = static_cast<int>(n);
}

}  // namespace

FrontendSettingsResult ParseFrontendSettings(std::string_view text) {
  // The node's configuration reader reads the file; the front-end checks the few keys it
  // uses and keeps its defaults where a value is unusable.
  const Config config = ParseCfg(text);
  FrontendSettingsResult result;
  FrontendSettings& s = result.settings;

  const std::string& ip = config.Get("Winsock IP");
  boost::system::error_code ec;
  boost::asio::ip::make_address(std::string(Trim(ip)), ec);
  if (ec) {
    result.warnings.push_back("Winsock IP \"" + ip + "\" is not an address");
  } else {
    s.link_ip = std::string(Trim(ip));
  }

  int port = 0;
  const std::string& link_port = config.Get("Winsock Port");
  if (ParsePort(link_port, port)) {
    s.link_port = port;
  } else {
    result.warnings.push_back("Winsock Port \"" + link_port + "\" is not a port");
  }

  const std::string& user_ports = config.Get("Frontend Ports");
  std::vector<int> ports;
  bool ok = true;
  for (std::string_view item : Split(user_ports, ',')) {
    if (!ParsePort(item, port)) {
      ok = false;
      break;
    }
    ports.push_back(port);
  }
  if (!ok || ports.empty()) {
    result.warnings.push_back("Frontend Ports \"" + user_ports + "\" is not a list of ports");
  } else {
    if (ports.size() > static_cast<size_t>(kMaxFrontendPorts)) {
      result.warnings.push_back("Frontend Ports: only the first 9 ports are used");
      ports.resize(kMaxFrontendPorts);
    }
    s.user_ports = std::move(ports);
  }

  const std::string& station = config.Get("Station Text");
  if (!station.empty()) s.station_text = std::string(Trim(station));

  ReadCount(config, "Max Connections", s.max_connections, result.warnings);
  ReadCount(config, "Max Connections Per Address", s.max_per_address, result.warnings);
  ReadCount(config, "Max Connects Per Minute", s.max_connects_per_minute, result.warnings);
  ReadCount(config, "Login Timeout", s.login_timeout_seconds, result.warnings);

  // Off unless set; an unusable port leaves it off rather than guessing one.
  const std::string& web_port = config.Get("WebSocket Port");
  if (!Trim(web_port).empty() && Trim(web_port) != "0") {
    if (ParsePort(web_port, port)) {
      s.websocket_port = port;
    } else {
      result.warnings.push_back("WebSocket Port \"" + web_port + "\" is not a port");
    }
  }
  if (!config.Get("WebSocket Max Per Address").empty()) {
    ReadCount(config, "WebSocket Max Per Address", s.websocket_per_address, result.warnings);
  }
  ReadCount(config, "Frontend Threads", s.threads, result.warnings);
  if (s.threads > kMaxFrontendThreads) {
    result.warnings.push_back("Frontend Threads: at most " + std::to_string(kMaxFrontendThreads) +
                              " are used");
    s.threads = kMaxFrontendThreads;
  }
  if (!config.Get("Link Fanout").empty()) {
    int fanout = 1;
    ReadCount(config, "Link Fanout", fanout, result.warnings);
    s.link_fanout = fanout != 0;
  }
  return result;
}

FrontendSettingsResult ReadFrontendSettings(const std::filesystem::path& path) {
  const std::optional<std::string> text = ReadFileText(path);
  if (!text) {
    FrontendSettingsResult result;
    result.file_found = false;
    return result;
  }
  return ParseFrontendSettings(*text);
}

}  // namespace qx
