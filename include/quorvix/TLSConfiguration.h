// Trust settings for the library's encrypted connections: the REST requests and both socket
// transports. Certificates are verified against the system's trust store, with the host name
// checked, unless the host changes that here.
#pragma once

#include <string>
#include <vector>

namespace quorvix {

struct TLSConfiguration {
  // PEM certificates trusted in addition to the system store, e.g. a company's own root.
  std::vector<std::string> additionalTrustedCertificates;
  // Turning this off accepts any certificate. Meant for development servers only.
  bool verifyCertificates = true;
};

// Applies to connections made after the call.
void setTLSConfiguration(TLSConfiguration configuration);
TLSConfiguration tlsConfiguration();

}  // namespace quorvix
