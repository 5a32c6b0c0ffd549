// The message socket: one self-healing connection to a socket endpoint of the service, over
// which named events travel as CBOR maps {"event", "data", "id"}. It numbers what it sends,
// reads the service's acknowledgements, pings every minute with a ten-second pong deadline,
// reconnects with a growing, jittered delay, and hands incoming events to listeners by name.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quorvix/Executor.h"
#include "quorvix/QRVError.h"
#include "quorvix/QRVURLSession.h"
#include "quorvix/Value.h"
#include "utils/QRVSocketRequest.h"
#include "utils/RepeatingTimer.h"
#include "web-socket/SocketTransport.h"

namespace quorvix {

class CBOR;

// Latency of the socket's round trips, one timed message at a time. Shared with the frame
// pipeline's thread: every access is serialised.
class CBORSocketMetrics {
 public:
  explicit CBORSocketMetrics(const Clock& clock) : clock_(clock) {}

  void onSent(std::uint64_t messageId);
  void onReceived(std::uint64_t ackId);
  // Seconds. Climbs while the timed message stays unacknowledged.
  double latency() const;
  // Seconds since the oldest message still unacknowledged was sent; 0 with none out. Reacts at
  // once where the smoothed latency takes several round trips.
  double oldestUnacknowledgedAge() const;
  void reset();

 private:
  double now() const;

  const Clock& clock_;
  mutable std::mutex queue_;
  std::uint64_t lastMessage_ = 0;
  double lastMessageTimestamp_ = 0;
  std::uint64_t lastAck_ = 0;
  double lastAckTimestamp_ = 0;
  double filteredLatency_ = 0;
  // Send times of the messages not acknowledged yet, oldest first; bounded, the oldest kept.
  static constexpr std::size_t kMaxOutstanding = 4096;
  std::deque<std::pair<std::uint64_t, double>> outstanding_;
};

// A decoded incoming item as listeners see it: negative integers as their raw argument, maps
// with text keys as dictionaries (other maps, tags, null and undefined stay CBOR items). Nothing
// when two keys of a map convert to the same value.
std::optional<Value> convertIncoming(const CBOR& item);

class CBORSocket : public std::enable_shared_from_this<CBORSocket> {
 public:
  using RequestProvider = std::function<QRVSocketRequest()>;
  using Listener = std::function<void(const Value::Map& data)>;
  using DisconnectObserver = std::function<void(const std::optional<QRVError>& error)>;
  using TransportFactory =
      std::function<std::shared_ptr<SocketTransport>(const QRVSocketRequest& request,
                                                     std::shared_ptr<QRVURLSession> session)>;

  // What the socket runs on. Left empty: the main queue, a secure random source, and the
  // transport the host's "QRVWebSocketMethod" setting selects.
  struct Environment {
    std::shared_ptr<Executor> executor;
    std::function<std::uint32_t()> random;
    TransportFactory transportFactory;
  };

  static constexpr double kPingInterval = 60.0;
  static constexpr double kPongTimeout = 10.0;

  // Creates the socket and connects its first transport. Call on the main queue. Owners end it
  // with disconnect(): a pending reconnect or pong deadline keeps it alive until then.
  static std::shared_ptr<CBORSocket> create(std::shared_ptr<QRVURLSession> session,
                                            RequestProvider request,
                                            Environment environment = {});
  // Lets the transport go without telling the observers.
  ~CBORSocket();
  CBORSocket(const CBORSocket&) = delete;
  CBORSocket& operator=(const CBORSocket&) = delete;

  void onMessage(const std::string& event, Listener listener);
  void onConnect(std::function<void()> observer);
  void onDisconnect(DisconnectObserver observer);

  // The completion runs once the transport has sent the message; never when it was dropped
  // (closed socket, unencodable data). The id is used up either way.
  void send(const std::string& event, Value::Map data, std::function<void()> completion = {});
  // As send(); `acknowledged` runs once the service acknowledged the message on this connection,
  // and never when the connection ends first.
  void send(const std::string& event,
            Value::Map data,
            std::function<void()> completion,
            std::function<void()> acknowledged);
  void sendPing();
  // Closes for good: observers hear it once with no error, then everything is let go.
  void disconnect();

  bool isConneced() const;
  // Whether a new attempt is waiting for its delay, as after a lost or refused connection.
  bool isReconnectScheduled() const;
  // Numbered messages not acknowledged yet; 0 until the first acknowledgement arrives.
  std::uint64_t messageLag() const;
  // The same, counted from the first message even before any acknowledgement.
  std::uint64_t unacknowledged() const;
  const CBORSocketMetrics& metrics() const { return metrics_; }

  double maxReconnectDelay() const;
  void setMaxReconnectDelay(double seconds);
  double minReconnectDelay() const;
  void setMinReconnectDelay(double seconds);

  // The delay before reconnect attempt `attempts`, for a random draw `random`.
  static double reconnectDelay(std::int64_t attempts,
                               std::uint32_t random,
                               double minDelay,
                               double maxDelay);

  // Transport events, through the transport's SocketDelegate. They are handled on the executor:
  // the platform transport reports from its network thread, and observers registered right after
  // create() must hear even the first event. Events of a transport that has ended or been
  // replaced are dropped; each transport's end is handled once.
  void onExecutor(std::function<void(CBORSocket&)> event);
  void transportDidConnect(std::uint64_t generation);
  void transportDidDisconnect(std::uint64_t generation, const std::optional<TransportError>& error);
  void transportDidReceive(std::uint64_t generation, const std::vector<std::uint8_t>& data);
  void transportDidReceivePong(std::uint64_t generation);

  CBORSocket(std::shared_ptr<QRVURLSession> session,
             RequestProvider request,
             Environment environment);

 private:
  // A delayed work item: it holds the socket until it runs or is cancelled.
  struct WorkItem;
  std::shared_ptr<WorkItem> schedule(double delay, void (CBORSocket::*run)());

  void start();
  void pongDeadlinePassed();
  // Makes a new transport the current one and connects it; a later one only while still wanted.
  void connectTransport(const QRVSocketRequest& request, bool initial);
  void reconnect();
  void runReconnect();
  void handleAck(std::uint64_t ack);
  // Whether events of that transport still count: it is the current one and has not ended.
  // Called with mutex_ held.
  bool isLiveLocked(std::uint64_t generation) const;

  const std::shared_ptr<Executor> executor_;
  const std::function<std::uint32_t()> random_;
  const TransportFactory transportFactory_;

  mutable std::mutex mutex_;
  std::shared_ptr<SocketTransport> socket_;
  std::shared_ptr<QRVURLSession> urlSession_;
  RequestProvider request_;
  std::int64_t attempts_ = 0;
  RepeatingTimer pingTimer_;
  std::shared_ptr<WorkItem> pongTimeout_;
  std::shared_ptr<WorkItem> reconnectTimer_;
  std::uint64_t messageId_ = 0;
  std::uint64_t lastMessageAck_ = 0;
  CBORSocketMetrics metrics_;
  double maxReconnectDelay_ = 30.0;
  double minReconnectDelay_;
  std::map<std::string, std::vector<Listener>> onMessageObservers_;
  std::vector<std::function<void()>> onConnectObservers_;
  std::vector<DisconnectObserver> onDisconnectObservers_;
  // The current transport's number, and whether its end has been handled.
  std::uint64_t generation_ = 0;
  bool transportEnded_ = false;
  bool loggedAckAboveSent_ = false;
  std::map<std::uint64_t, std::function<void()>> onAcknowledged_;
};

}  // namespace quorvix
