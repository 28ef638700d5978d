// The addresses the node downloads from: "http://host[:port]/path" and "https://...", and
// where a server's redirect leads.  Pure: text in, result out.
#pragma once

#include <string>
#include <string_view>

namespace qx {

struct Url {
  bool https = false;
  std::string host;
  std::string port;    // "80" / "443" unless given
  std::string target;  // path and query, "/" when empty
};

// "http://host[:port]/path" or "https://..."; false for anything else (other schemes,
// user info, an empty host, a port that is no number, a blank or control byte anywhere).
bool ParseUrl(std::string_view text, Url& out);

// Where a redirect leads: Location taken against the address that answered it (absolute,
// "//host/...", "/path" or relative to the answering path; any "#fragment" left out).  False
// when the result is no address HttpGet can fetch.
bool ResolveRedirect(std::string_view base, std::string_view location, std::string& out);

}  // namespace qx
