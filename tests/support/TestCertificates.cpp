#include "TestCertificates.h"

#include <fstream>
#include <sstream>

#include "ChildProcess.h"

namespace quorvix::test {
namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

TestCertificates::TestCertificates() {
  if (!dir_.ok())
    return;
  const std::string d = dir_.path().string();
  const std::string quiet = " >/dev/null 2>&1";
  // Files named `name`, subject CN `cn`; no subjectAltName when `san` is empty.
  auto leaf = [&](const std::string& name, const std::string& cn, const std::string& san) {
    const std::string sanLine = san.empty() ? "" : "subjectAltName=" + san + "\\n";
    return runCommand("cd " + d + " && openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 " +
                      "-nodes -keyout " + name + ".key -out " + name + ".csr -subj /CN=" + cn +
                      quiet + " && printf '" + sanLine +
                      "extendedKeyUsage=serverAuth\\nbasicConstraints=CA:FALSE\\n' > " + name +
                      ".ext && openssl x509 -req -in " + name +
                      ".csr -CA ca.pem -CAkey ca.key -CAcreateserial -out " + name +
                      ".pem -days 30 -extfile " + name + ".ext" + quiet) == 0;
  };
  ok = runCommand("cd " + d +
                  " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                  "-keyout ca.key -out ca.pem -days 30 -subj '/CN=Quorvix Test Root' "
                  "-addext basicConstraints=critical,CA:TRUE "
                  "-addext keyUsage=critical,keyCertSign,cRLSign" +
                  quiet) == 0 &&
       leaf("localhost", "localhost", "DNS:localhost,IP:127.0.0.1") &&
       leaf("not-localhost.example", "not-localhost.example", "DNS:not-localhost.example") &&
       leaf("cn-only", "localhost", "") &&
       runCommand("cd " + d +
                  " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                  "-keyout self.key -out self.pem -days 30 -subj /CN=localhost "
                  "-addext subjectAltName=DNS:localhost" +
                  quiet) == 0;
  if (!ok)
    return;
  caPem = slurp(d + "/ca.pem");
  localhostPem = slurp(d + "/localhost.pem");
  localhostKey = slurp(d + "/localhost.key");
  otherHostPem = slurp(d + "/not-localhost.example.pem");
  otherHostKey = slurp(d + "/not-localhost.example.key");
  commonNameOnlyPem = slurp(d + "/cn-only.pem");
  commonNameOnlyKey = slurp(d + "/cn-only.key");
  selfSignedPem = slurp(d + "/self.pem");
  selfSignedKey = slurp(d + "/self.key");
}

TestCertificates::~TestCertificates() = default;

}  // namespace quorvix::test
