// The transports this platform has: the library's own client, and the one on Boost.Beast.
#include "web-socket/SocketTransport.h"

#include "quorvix/QRVBundle.h"
#include "web-socket/StarscreamSocket.h"
#include "web-socket/linux/BeastSocket.h"

namespace quorvix {

WebsocketMethod currentWebsocketMethod() {
  auto value = QRVBundle::main().setting("QRVWebSocketMethod");
  if (!value || !value->isInteger())
    return WebsocketMethod::urlSession;
  return value->toInt64() == 2 ? WebsocketMethod::starscream : WebsocketMethod::urlSession;
}

std::shared_ptr<SocketTransport> makeSocket(WebsocketMethod method,
                                            const QRVSocketRequest& request,
                                            std::shared_ptr<QRVURLSession> session) {
  if (method == WebsocketMethod::starscream)
    return std::make_shared<StarscreamSocket>(request);
  return std::make_shared<BeastSocket>(request, std::move(session));
}

}  // namespace quorvix
