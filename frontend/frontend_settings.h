// The few configuration keys the connection front-end needs from cluster.cfg: where the
// node's link is accepted, which ports users and nodes connect to, the station text the
// front-end announces, and the limits that keep floods of connections cheap.  The parse is
// pure so that every rule can be tried without files.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// Port indexes 0..8 are the configured listening ports; 9 marks an outgoing connection.
inline constexpr int kMaxFrontendPorts = 9;
inline constexpr int kOutgoingPortIndex = 9;
// The WebSocket and HTTP-poll listener's streams (one listener, so one index).
inline constexpr int kWebPortIndex = 10;
// More I/O threads than this only add switching: one thread fills a core with socket sends.
inline constexpr int kMaxFrontendThreads = 64;

struct FrontendSettings {
  std::string link_ip = "127.0.0.1";  // "Winsock IP"
  int link_port = 7399;               // "Winsock Port"
  std::vector<int> user_ports{7300};  // "Frontend Ports", index = port index
  std::string station_text;           // "Station Text"
  // Limits on inbound connections; 0 turns a limit off.  Loopback addresses count like any.
  int max_connections = 10000;       // "Max Connections": held in all
  int max_per_address = 20;          // "Max Connections Per Address": held from one address
  int max_connects_per_minute = 10;  // "Max Connects Per Minute": new ones from one address
  int login_timeout_seconds = 180;   // "Login Timeout": until the node names the caller
  // The listener for programs (WebSocket stream and HTTP poll); 0: none.
  int websocket_port = 0;         // "WebSocket Port"
  int websocket_per_address = 4;  // "WebSocket Max Per Address": streams from one address
  // "Frontend Threads": threads that own the connections' sockets; 0: one per core.
  int threads = 0;
  // "Link Fanout": offer the node the message that carries one text for many streams (1,
  // the default) or not (0), so that the two ways can be compared.
  bool link_fanout = true;
};

struct FrontendSettingsResult {
  FrontendSettings settings;
  // One line per value that could not be used; the default was kept for it.
  std::vector<std::string> warnings;
  bool file_found = true;
};

// Parses "key^value" lines (CR LF or LF); unknown keys are ignored, keys compare without
// regard to case and surrounding blanks.
FrontendSettingsResult ParseFrontendSettings(std::string_view text);

// Reads and parses the file; a missing file gives the defaults with file_found false.
FrontendSettingsResult ReadFrontendSettings(const std::filesystem::path& path);

}  // namespace qx
