#include "frontend/link_records.h"

#include <charconv>
#include <type_traits>

namespace qx {
namespace {

// A text field without the characters that would split the record.
void AppendClean(std::string& out, std::string_view text) {
  for (char c : text) {
    if (c != '^' && c != kRecordEnd && c != kMessageEnd) out.push_back(c);
  }
}

// A field that goes in as it stands: only the data of "AA00".
struct Raw {
  std::string_view text;
};

template <typename T>
void AppendField(std::string& out, const T& value) {
  if constexpr (std::is_integral_v<T>) {
    char buf[24];
    const auto res = std::to_chars(buf, buf + sizeof buf, value);
    out.append(buf, res.ptr);
  } else if constexpr (std::is_same_v<T, Raw>) {
    out.append(value.text);
  } else {
    AppendClean(out, value);
  }
}

// Each field with the "^" that comes before it.
template <typename... Fields>
void AppendFields(std::string& out, const Fields&... fields) {
  ((out.push_back('^'), AppendField(out, fields)), ...);
}

// "<head>^<field>^<field>...", ended.
template <typename... Fields>
void AppendRecord(std::string& out, std::string_view head, const Fields&... fields) {
  out.append(head);
  AppendFields(out, fields...);
  out.push_back(kRecordEnd);
}

}  // namespace

void AppendConnectRequest(std::string& out, int stream, std::string_view peer, uint64_t tag,
                          std::string_view kind, int port_index) {
  AppendRecord(out, "AA03^Connect Request", stream, peer, tag, kind, port_index);
}

void AppendStreamData(std::string& out, int stream, std::string_view data) {
  AppendRecord(out, "AA00", stream, Raw{data});
}

void AppendStreamClosed(std::string& out, uint64_t tag, int stream, std::string_view reason) {
  AppendRecord(out, "AA17", tag, stream, reason);
}

void AppendKeepAlive(std::string& out) { AppendRecord(out, "AA18"); }

void AppendInputHeld(std::string& out) { AppendRecord(out, "AA21"); }

void AppendAnnounce(std::string& out, std::string_view station_text, std::string_view version,
                    std::string_view proof) {
  out.append("QRV ");
  AppendClean(out, station_text);
  AppendFields(out, version, proof);
  out.push_back(kRecordEnd);
}

void AppendChallenge(std::string& out, std::string_view nonce) { AppendRecord(out, "AA39", nonce); }

void AppendCapabilities(std::string& out, std::string_view features) {
  AppendRecord(out, "AA40", features);
}

void AppendStreamList(std::string& out, std::span<const int> streams) {
  out.append("AA01");
  AppendFields(out, streams.size());
  out.push_back('^');
  for (size_t i = 0; i < streams.size(); ++i) {
    if (i > 0) out.push_back(',');
    AppendField(out, streams[i]);
  }
  out.push_back(kRecordEnd);
}

void AppendStreamReport(std::string& out, const StreamReport& r) {
  AppendRecord(out, "AA38", r.tag, r.stream, r.peer, r.port_index, r.call, r.state, r.kind,
               r.attributes);
}

void AppendOpenFailed(std::string& out, std::string_view label, std::string_view reason) {
  AppendRecord(out, "AA19", label, reason);
}

void AppendCounters(std::string& out,
                    std::span<const std::pair<std::string_view, uint64_t>> values) {
  out.append("AA20");
  for (const auto& [name, value] : values) {
    AppendFields(out, name);
    out.push_back('=');
    AppendField(out, value);
  }
  out.push_back(kRecordEnd);
}

}  // namespace qx
