// What each setting may hold, checked before anything is saved.  A value that the node could
// not use (a console address of "foo", a port of 70000, a web page without "http://") is
// refused with a sentence that says what is wanted, so a save can never leave the node unable
// to start its console or its link.  Pure: no file, clock or network.
#pragma once

#include <string>
#include <string_view>

namespace qx {

enum class SettingKind {
  kText,        // any one line
  kSwitch,      // True or False
  kNumber,      // a whole number, 0 or more
  kPort,        // 1..65535
  kPortOrOff,   // 1..65535, or 0 (or empty) for a listener that is turned off
  kPortList,    // up to nine ports, comma-separated
  kIpAddress,   // an IPv4 or IPv6 address to listen on or connect to; no names
  kUrl,         // http:// or https:// and a host; empty allowed (the feature is off)
  kPublicSite,  // where browsers reach the console: https://name[:port] or http://...; empty
};

// The name the settings page uses to choose its input ("switch", "number", "url", ...).
std::string_view SettingKindName(SettingKind kind);

// Empty when the value suits the kind, else what is wanted ("a port number from 1 to 65535").
// Leading and trailing blanks are ignored, as the save trims them.
std::string CheckSettingValue(SettingKind kind, std::string_view value);

// The origin ("https://cluster.example.org") a public site setting stands for: scheme and
// host in lower case, the port only when it is not the scheme's default.  Empty when the text
// is empty or not a site.
std::string OriginOfSite(std::string_view site);

// Whether a browser page from origin may open the live view.  The page must come from the
// console itself (the request's Host over plain http) or from the public site a reverse proxy
// serves it under.  A request without an Origin header (not a browser page) is let through.
bool LiveViewOriginAllowed(std::string_view origin, std::string_view host,
                           std::string_view public_site);

}  // namespace qx
