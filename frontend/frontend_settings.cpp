#include "frontend/frontend_settings.h"

#include <boost/asio/ip/address.hpp>
#include <optional>
#include <string>

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

}  // namespace

FrontendSettingsResult ParseFrontendSettings(std::string_view text) {
  FrontendSettingsResult result;
  FrontendSettings& s = result.settings;
  for (std::string_view line : SplitLines(text)) {
    const size_t caret = line.find('^');
    if (caret == std::string_view::npos) continue;
    const std::string_view key = Trim(line.substr(0, caret));
    const std::string_view value = Trim(line.substr(caret + 1));
    if (EqualsIgnoreCase(key, "Winsock IP")) {
      boost::system::error_code ec;
      boost::asio::ip::make_address(std::string(value), ec);
      if (ec) {
        result.warnings.push_back("Winsock IP \"" + std::string(value) + "\" is not an address");
      } else {
        s.link_ip = std::string(value);
      }
    } else if (EqualsIgnoreCase(key, "Winsock Port")) {
      int port = 0;
      if (ParsePort(value, port)) {
        s.link_port = port;
      } else {
        result.warnings.push_back("Winsock Port \"" + std::string(value) + "\" is not a port");
      }
    } else if (EqualsIgnoreCase(key, "Frontend Ports")) {
      std::vector<int> ports;
      bool ok = true;
      for (std::string_view item : Split(value, ',')) {
        int port = 0;
        if (!ParsePort(item, port)) {
          ok = false;
          break;
        }
        ports.push_back(port);
      }
      if (!ok || ports.empty()) {
        result.warnings.push_back("Frontend Ports \"" + std::string(value) +
                                  "\" is not a list of ports");
        continue;
      }
      if (ports.size() > static_cast<size_t>(kMaxFrontendPorts)) {
        result.warnings.push_back("Frontend Ports: only the first 9 ports are used");
        ports.resize(kMaxFrontendPorts);
      }
      s.user_ports = std::move(ports);
    } else if (EqualsIgnoreCase(key, "Station Text")) {
      s.station_text = std::string(value);
    }
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
