// What the upper layers need from the front-end link to talk to a stream.  The link
// implements it; tests record what was sent.
#pragma once

#include <string_view>

namespace qx {

class StreamOutput {
 public:
  virtual ~StreamOutput() = default;
  // Text (with its own CR LF line ends) to one stream; nothing for empty text or stream 0.
  virtual void SendToStream(int stream, std::string_view text) = 0;
  // Closes the stream once what was queued for it has been written.
  virtual void CloseStream(int stream) = 0;
  // Tells the front-end who is on the stream, so a restarted node can recover it.
  virtual void SetStreamIdentity(int stream, std::string_view call, int state) = 0;
  // A short text the front-end keeps with the stream and reports back after a node restart
  // (StreamEntry::frontend_attributes).
  virtual void SetStreamAttributes(int stream, std::string_view text) = 0;
};

}  // namespace qx
