#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvix {

// A URI reference split into its RFC 3986 components, with reference resolution. Parsing is
// strict about characters (no spaces, controls or non-ASCII) and lenient about structure, as
// the host's base addresses are stored exactly as given.
class QRVURL {
 public:
  // Nothing when the text is not a URI reference.
  static std::optional<QRVURL> parse(std::string_view text);

  // RFC 3986 section 5.2: this reference resolved against an absolute base.
  QRVURL resolvedAgainst(const QRVURL& base) const;
  // Parses `reference` and resolves it against this URL.
  std::optional<QRVURL> resolve(std::string_view reference) const;

  std::string toString() const;

  bool isAbsolute() const { return scheme_.has_value(); }
  const std::optional<std::string>& scheme() const { return scheme_; }
  void setScheme(std::string scheme) { scheme_ = std::move(scheme); }
  // The host without IPv6 brackets; empty when there is no authority.
  std::string host() const;
  // The explicit port, if any.
  std::optional<unsigned> port() const { return port_; }
  const std::string& path() const { return path_; }
  const std::optional<std::string>& query() const { return query_; }

  // True when the port is absent, or equals the default of an http, https, ws or wss scheme.
  bool usesDefaultPort() const;

  friend bool operator==(const QRVURL&, const QRVURL&) = default;

 private:
  std::optional<std::string> scheme_;
  bool hasAuthority_ = false;
  std::string userinfo_;  // with its "@" when present
  std::string hostText_;  // as written, brackets included
  std::optional<unsigned> port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

}  // namespace quorvix
