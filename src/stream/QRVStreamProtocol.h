// A session's realtime protocol: the control socket over which the service pushes session
// updates, and the stream socket that carries frames out and the agent's events in. Owns the
// frame encoder, chosen from the codecs the session allows, and holds frames back while the
// service has not acknowledged as many as the encoder allows in flight.
//
// Threads: main queue (asserted), except the encoder's completion, which sends the frame from
// whichever thread the encoder completes on. Made through create(): it observes the session.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/QRVSessionResource.h"
#include "encoders/QRVStreamEncoder.h"
#include "frameloop/QRVFrame.h"
#include "quorvix/Executor.h"
#include "stream/QRVAgentEvent.h"
#include "web-socket/CBORSocket.h"

namespace quorvix {

class QRVStreamProtocolObserver {
 public:
  virtual ~QRVStreamProtocolObserver() = default;
  // An input or annotation event arrived: what its parser made of it, or nothing.
  virtual void onAgentEvent(const std::shared_ptr<QRVSession>& /*session*/,
                            const QRVAgentEvent& /*event*/) {}
  // The next frame must be a complete picture.
  virtual void onSyncRequest(const std::shared_ptr<QRVSession>& /*session*/) {}
  // The stream connection ended; the agent's input and ink stop with it.
  virtual void onStreamDisconnected(const std::shared_ptr<QRVSession>& /*session*/) {}
};

// A view tree a platform with views can report; nothing on this desktop builds one.
class QRVViewTree {
 public:
  struct Node {
    std::uint64_t viewId = 0;
    std::optional<std::string> tag;
    std::optional<Value::Map> attributes;
    double x = 0, y = 0, width = 0, height = 0;
  };
  virtual ~QRVViewTree() = default;
  virtual const Node& root() const = 0;
  // Every node from `node` on, depth first.
  virtual void depthFirstVisit(const Node& node,
                               const std::function<void(const Node&)>& visit) const = 0;
  virtual std::vector<std::uint64_t> childIDsForView(const Node& node) const = 0;
};

class QRVStreamProtocol : public QRVSessionObserver,
                          public std::enable_shared_from_this<QRVStreamProtocol> {
 public:
  enum class EncoderKind { jpeg, h264 };
  static constexpr const char* kJPEGMimeType = "image/jpeg";
  static constexpr const char* kH264MimeType = "video/avc";

  struct Environment {
    std::shared_ptr<Executor> executor;  // default: the main queue
    CBORSocket::Environment sockets;
    // Makes the encoders; required.
    std::function<std::shared_ptr<QRVStreamEncoder>(EncoderKind)> makeEncoder;
    // The main screen's corner radius in pixels; 0 for square corners (default).
    std::function<double()> displayCornerRadius;
  };

  static std::shared_ptr<QRVStreamProtocol> create(std::shared_ptr<QRVSessionResource> session,
                                                   Environment environment);
  ~QRVStreamProtocol() override;
  QRVStreamProtocol(const QRVStreamProtocol&) = delete;
  QRVStreamProtocol& operator=(const QRVStreamProtocol&) = delete;

  void registerStreamProtocolObserver(std::shared_ptr<QRVStreamProtocolObserver> observer);
  void removeStreamProtocolObserver(const std::shared_ptr<QRVStreamProtocolObserver>& observer);

  void sessionDidUpdate(const std::shared_ptr<QRVSession>& session) override;
  void sessionDidEnd(const std::shared_ptr<QRVSession>& session) override;

  // Opens whichever socket is missing and has its address, unless the session has ended.
  void open();
  // Disconnects both sockets, destroys the encoder and forgets the observers. Idempotent.
  void close();
  // H.264 unless the list names JPEG only.
  void selectEncoder(const Value* videoCodecs);
  // Keeps an encoder of that kind; otherwise replaces it.
  void setEncoder(EncoderKind kind);
  // The next frame becomes a complete picture, and the observers are asked to send the full
  // screen state again.
  void forceSync();
  // Opt-in: above 0, frames are also held back while the stream socket's measured latency
  // exceeds this many seconds and a frame is still unacknowledged, so that on a slow link the
  // agent sees a younger picture less often rather than an old one ten times a second.
  // Any thread.
  void setLatencyBound(double seconds) { latencyBound_.store(seconds); }
  double latencyBound() const { return latencyBound_.load(); }
  // `ready` runs once, right after the frame went to the encoder (or was dropped for
  // congestion), and once more when the encoder yields nothing or was closed meanwhile.
  void sendFrame(std::shared_ptr<QRVFrame> frame, std::function<void()> ready);
  // `sent` gets true once the transport wrote the message, false at once without a connected
  // stream socket.
  void sendStreamEvent(const std::string& event,
                       Value::Map data,
                       std::function<void(bool sent)> sent);
  void sendScreenDetails(const std::optional<std::string>& className,
                         const std::optional<std::string>& title,
                         bool active,
                         int screenCaptureState);
  void sendViewHierarchy(const QRVViewTree& tree);

  const std::shared_ptr<QRVSessionResource>& session() const { return session_; }
  std::shared_ptr<CBORSocket> control() const;
  std::shared_ptr<CBORSocket> stream() const;
  std::shared_ptr<QRVStreamEncoder> encoder() const;
  std::optional<EncoderKind> encoderKind() const;

  // "2024-05-01T14:03:07+02:00" in the local time zone, "Z" at zero offset.
  static std::string ISODateString(WallTime time);
  // The next value of the process-wide frame counter.
  static std::int32_t nextFrameId();

 private:
  QRVStreamProtocol(std::shared_ptr<QRVSessionResource> session, Environment environment);
  std::shared_ptr<CBORSocket> socket(const std::string& urlField, const std::string& tokenField);
  void openControlSocket();
  void openStreamSocket();
  void frameEncoded(std::optional<QRVStreamEncoder::Bytes> bytes,
                    double borderRadius,
                    const std::function<void()>& ready);
  void ready(const std::function<void()>& callback);
  template <class Record>
  void listen(const std::shared_ptr<CBORSocket>& socket, const char* event);
  void tellObservers(const QRVAgentEvent& event);
  std::string timestamp() const;

  const std::shared_ptr<QRVSessionResource> session_;
  Environment environment_;
  const std::shared_ptr<Executor> executor_;
  std::set<std::shared_ptr<QRVStreamProtocolObserver>> observers_;
  // The sockets and the encoder are read from the encoder's thread too.
  mutable std::mutex mutex_;
  std::atomic<double> latencyBound_{0};
  std::shared_ptr<CBORSocket> control_;
  std::shared_ptr<CBORSocket> stream_;
  std::shared_ptr<QRVStreamEncoder> encoder_;
  std::optional<EncoderKind> encoderKind_;
};

}  // namespace quorvix
