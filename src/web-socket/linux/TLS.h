// The client side of TLS for both socket transports: one context per connection built from the
// process's TLSConfiguration, SNI and host-name verification on every connection.
#pragma once

#include <optional>
#include <string>

#include <boost/asio/ssl/context.hpp>
#include <boost/system/error_code.hpp>

#include "quorvix/QRVError.h"
#include "web-socket/WSFraming.h"

struct ssl_st;

namespace quorvix {

// A client context: TLS 1.2 or later, the system trust store plus the configured extra roots,
// peer verification unless turned off.
std::optional<boost::asio::ssl::context> makeClientTLSContext(QRVError* error);

// Sets SNI (for names, not addresses) and the name or address the certificate must match.
bool prepareClientTLS(ssl_st* ssl, const std::string& host);

// After a failed TLS handshake: "Invalid SSL certificate" when verification is what failed, with
// OpenSSL's verification result as the code.
std::optional<WSError> certificateError(ssl_st* ssl);

// An Asio or OpenSSL error as a library error value.
QRVError systemError(const boost::system::error_code& ec);

}  // namespace quorvix
