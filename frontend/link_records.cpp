#include "frontend/link_records.h"

#include <charconv>

namespace qx {
namespace {

void AppendNumber(std::string& out, uint64_t value) {
  char buf[24];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, res.ptr);
}

void AppendSigned(std::string& out, long long value) {
  char buf[24];
  const auto res = std::to_chars(buf, buf + sizeof buf, value);
  out.append(buf, res.ptr);
}

// A text field without the characters that would split the record.
void AppendClean(std::string& out, std::string_view text) {
  for (char c : text) {
    if (c != '^' && c != kRecordEnd && c != kMessageEnd) out.push_back(c);
  }
}

}  // namespace

void AppendConnectRequest(std::string& out, int stream, std::string_view peer, uint64_t tag,
                          std::string_view kind, int port_index) {
  out.append("AA03^Connect Request^");
  AppendSigned(out, stream);
  out.push_back('^');
  AppendClean(out, peer);
  out.push_back('^');
  AppendNumber(out, tag);
  out.push_back('^');
  AppendClean(out, kind);
  out.push_back('^');
  AppendSigned(out, port_index);
  out.push_back(kRecordEnd);
}

void AppendStreamData(std::string& out, int stream, std::string_view data) {
  out.append("AA00^");
  AppendSigned(out, stream);
  out.push_back('^');
  out.append(data);
  out.push_back(kRecordEnd);
}

void AppendStreamClosed(std::string& out, uint64_t tag, int stream, std::string_view reason) {
  out.append("AA17^");
  AppendNumber(out, tag);
  out.push_back('^');
  AppendSigned(out, stream);
  out.push_back('^');
  AppendClean(out, reason);
  out.push_back(kRecordEnd);
}

void AppendKeepAlive(std::string& out) {
  out.append("AA18");
  out.push_back(kRecordEnd);
}

void AppendAnnounce(std::string& out, std::string_view station_text, std::string_view version,
                    std::string_view proof) {
  out.append("QRV ");
  AppendClean(out, station_text);
  out.push_back('^');
  AppendClean(out, version);
  out.push_back('^');
  AppendClean(out, proof);
  out.push_back(kRecordEnd);
}

void AppendChallenge(std::string& out, std::string_view nonce) {
  out.append("AA39^");
  AppendClean(out, nonce);
  out.push_back(kRecordEnd);
}

void AppendStreamList(std::string& out, std::span<const int> streams) {
  out.append("AA01^");
  AppendNumber(out, streams.size());
  out.push_back('^');
  for (size_t i = 0; i < streams.size(); ++i) {
    if (i > 0) out.push_back(',');
    AppendSigned(out, streams[i]);
  }
  out.push_back(kRecordEnd);
}

void AppendStreamReport(std::string& out, const StreamReport& r) {
  out.append("AA38^");
  AppendNumber(out, r.tag);
  out.push_back('^');
  AppendSigned(out, r.stream);
  out.push_back('^');
  AppendClean(out, r.peer);
  out.push_back('^');
  AppendSigned(out, r.port_index);
  out.push_back('^');
  AppendClean(out, r.call);
  out.push_back('^');
  AppendSigned(out, r.state);
  out.push_back('^');
  AppendClean(out, r.kind);
  out.push_back('^');
  AppendClean(out, r.attributes);
  out.push_back(kRecordEnd);
}

void AppendOpenFailed(std::string& out, std::string_view label, std::string_view reason) {
  out.append("AA19^");
  AppendClean(out, label);
  out.push_back('^');
  AppendClean(out, reason);
  out.push_back(kRecordEnd);
}

void AppendCounters(std::string& out,
                    std::span<const std::pair<std::string_view, uint64_t>> values) {
  out.append("AA20");
  for (const auto& [name, value] : values) {
    out.push_back('^');
    AppendClean(out, name);
    out.push_back('=');
    AppendNumber(out, value);
  }
  out.push_back(kRecordEnd);
}

}  // namespace qx
