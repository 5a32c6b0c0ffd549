// Certificates made with the openssl tool when a test starts: a test root, a leaf for
// "localhost" and 127.0.0.1 signed by it, a leaf for another host signed by it, a leaf signed by
// it that names "localhost" only in its common name (no subjectAltName), and a self-signed leaf
// for "localhost".
#pragma once

#include <string>

#include "TempDir.h"

namespace quorvix::test {

struct TestCertificates {
  TestCertificates();
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  bool ok = false;
  std::string caPem;
  std::string localhostPem, localhostKey;
  std::string otherHostPem, otherHostKey;
  std::string commonNameOnlyPem, commonNameOnlyKey;
  std::string selfSignedPem, selfSignedKey;

 private:
  TempDir dir_{"quorvix-certs"};
};

}  // namespace quorvix::test
