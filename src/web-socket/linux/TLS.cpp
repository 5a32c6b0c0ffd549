#include "web-socket/linux/TLS.h"

#include <mutex>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/error.hpp>

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "quorvix/TLSConfiguration.h"

namespace quorvix {
namespace {

std::mutex gMutex;
TLSConfiguration gConfiguration;

}  // namespace

void setTLSConfiguration(TLSConfiguration configuration) {
  std::lock_guard lock(gMutex);
  gConfiguration = std::move(configuration);
}

TLSConfiguration tlsConfiguration() {
  std::lock_guard lock(gMutex);
  return gConfiguration;
}

std::optional<boost::asio::ssl::context> makeClientTLSContext(QRVError* error) {
  namespace ssl = boost::asio::ssl;
  const TLSConfiguration config = tlsConfiguration();
  ssl::context context(ssl::context::tls_client);
  boost::system::error_code ec;
  context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                          ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                          ssl::context::no_tlsv1_1,
                      ec);
  if (!ec)
    context.set_default_verify_paths(ec);
  for (const auto& pem : config.additionalTrustedCertificates) {
    if (ec)
      break;
    context.add_certificate_authority(boost::asio::buffer(pem), ec);
  }
  if (!ec)
    context.set_verify_mode(config.verifyCertificates ? ssl::verify_peer : ssl::verify_none, ec);
  if (ec) {
    *error = systemError(ec);
    return std::nullopt;
  }
  return context;
}

bool prepareClientTLS(ssl_st* ssl, const std::string& host) {
  boost::system::error_code ec;
  boost::asio::ip::make_address(host, ec);
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  if (!ec)
    return X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1;
  // A name only in the common name, without subjectAltName, no longer counts.
  X509_VERIFY_PARAM_set_hostflags(
      param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  return SSL_set_tlsext_host_name(ssl, host.c_str()) == 1 && SSL_set1_host(ssl, host.c_str()) == 1;
}

std::optional<WSError> certificateError(ssl_st* ssl) {
  const long result = SSL_get_verify_result(ssl);
  if (result == X509_V_OK)
    return std::nullopt;
  return WSError{WSError::ErrorType::invalidSSLError, "Invalid SSL certificate",
                 static_cast<int>(result)};
}

QRVError systemError(const boost::system::error_code& ec) {
  return QRVError(ec.category().name(), ec.value(), ec.message());
}

}  // namespace quorvix
