#include "utils/QRVURL.h"

#include "utils/Strings.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace quorvix {
namespace {

bool isAllowedChar(unsigned char c) {
  if (c <= 0x20 || c >= 0x7f)
    return false;
  switch (c) {
    case '"':
    case '<':
    case '>':
    case '\\':
    case '^':
    case '`':
    case '{':
    case '|':
    case '}':
      return false;
    default:
      return true;
  }
}

bool isValidScheme(std::string_view s) {
  if (s.empty() || !std::isalpha(static_cast<unsigned char>(s[0])))
    return false;
  return std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '+' || c == '-' || c == '.';
  });
}

// RFC 3986 section 5.2.4.
std::string removeDotSegments(std::string_view in) {
  std::string out;
  while (!in.empty()) {
    if (in.starts_with("../")) {
      in.remove_prefix(3);
    } else if (in.starts_with("./")) {
      in.remove_prefix(2);
    } else if (in.starts_with("/./")) {
      in.remove_prefix(2);
    } else if (in == "/.") {
      in = "/";
    } else if (in.starts_with("/../") || in == "/..") {
      in = in.size() == 3 ? std::string_view("/") : in.substr(3);
      auto slash = out.rfind('/');
      out.erase(slash == std::string::npos ? 0 : slash);
    } else if (in == "." || in == "..") {
      in = {};
    } else {
      auto next = in.find('/', in[0] == '/' ? 1 : 0);
      auto segment = in.substr(0, next);
      out.append(segment);
      in.remove_prefix(segment.size());
    }
  }
  return out;
}

}  // namespace

std::optional<QRVURL> QRVURL::parse(std::string_view text) {
  if (!std::all_of(text.begin(), text.end(),
                   [](char c) { return isAllowedChar(static_cast<unsigned char>(c)); }))
    return std::nullopt;
  QRVURL url;
  std::string_view rest = text;
  if (auto hash = rest.find('#'); hash != std::string_view::npos) {
    url.fragment_ = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  if (auto q = rest.find('?'); q != std::string_view::npos) {
    url.query_ = std::string(rest.substr(q + 1));
    rest = rest.substr(0, q);
  }
  if (auto colon = rest.find(':'); colon != std::string_view::npos) {
    auto candidate = rest.substr(0, colon);
    if (candidate.find('/') == std::string_view::npos) {
      if (!isValidScheme(candidate))
        return std::nullopt;
      url.scheme_ = std::string(candidate);
      rest.remove_prefix(colon + 1);
    }
  }
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    auto end = rest.find('/');
    std::string_view authority = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    url.hasAuthority_ = true;
    if (auto at = authority.rfind('@'); at != std::string_view::npos) {
      url.userinfo_ = std::string(authority.substr(0, at + 1));
      authority.remove_prefix(at + 1);
    }
    std::string_view hostPart = authority;
    std::string_view portPart;
    bool hasPort = false;
    if (authority.starts_with("[")) {
      auto close = authority.find(']');
      if (close == std::string_view::npos)
        return std::nullopt;
      hostPart = authority.substr(0, close + 1);
      auto after = authority.substr(close + 1);
      if (!after.empty()) {
        if (after[0] != ':')
          return std::nullopt;
        hasPort = true;
        portPart = after.substr(1);
      }
    } else if (auto colon = authority.rfind(':'); colon != std::string_view::npos) {
      hostPart = authority.substr(0, colon);
      hasPort = true;
      portPart = authority.substr(colon + 1);
    }
    // Outside IPv6 brackets a host has no ":", "[" or "]".
    if (!hostPart.starts_with("[") && hostPart.find_first_of(":[]") != std::string_view::npos)
      return std::nullopt;
    url.hostText_ = std::string(hostPart);
    // An empty port ("host:") is allowed and means the default one.
    if (hasPort && !portPart.empty()) {
      unsigned port = 0;
      auto [p, ec] = std::from_chars(portPart.data(), portPart.data() + portPart.size(), port);
      if (ec != std::errc() || p != portPart.data() + portPart.size() || port > 65535)
        return std::nullopt;
      url.port_ = port;
    }
  }
  url.path_ = std::string(rest);
  return url;
}

QRVURL QRVURL::resolvedAgainst(const QRVURL& base) const {
  QRVURL t;
  if (scheme_) {
    t = *this;
    t.path_ = removeDotSegments(path_);
    return t;
  }
  if (hasAuthority_) {
    t = *this;
    t.path_ = removeDotSegments(path_);
  } else {
    t.hasAuthority_ = base.hasAuthority_;
    t.userinfo_ = base.userinfo_;
    t.hostText_ = base.hostText_;
    t.port_ = base.port_;
    if (path_.empty()) {
      t.path_ = base.path_;
      t.query_ = query_ ? query_ : base.query_;
    } else {
      if (path_.starts_with("/")) {
        t.path_ = removeDotSegments(path_);
      } else {
        // Merge (5.2.3): the base path up to its last "/" keeps its segments; a last segment
        // without a trailing "/" is replaced.
        std::string merged;
        if (base.hasAuthority_ && base.path_.empty()) {
          merged = "/" + path_;
        } else {
          auto slash = base.path_.rfind('/');
          merged = (slash == std::string::npos ? std::string() : base.path_.substr(0, slash + 1)) +
                   path_;
        }
        t.path_ = removeDotSegments(merged);
      }
      t.query_ = query_;
    }
  }
  t.scheme_ = base.scheme_;
  t.fragment_ = fragment_;
  return t;
}

std::optional<QRVURL> QRVURL::resolve(std::string_view reference) const {
  auto ref = parse(reference);
  if (!ref)
    return std::nullopt;
  return ref->resolvedAgainst(*this);
}

std::string QRVURL::toString() const {
  std::string s;
  if (scheme_)
    s += *scheme_ + ":";
  if (hasAuthority_) {
    s += "//" + userinfo_ + hostText_;
    if (port_)
      s += ":" + std::to_string(*port_);
  }
  s += path_;
  if (query_)
    s += "?" + *query_;
  if (fragment_)
    s += "#" + *fragment_;
  return s;
}

std::string QRVURL::host() const {
  if (hostText_.size() >= 2 && hostText_.front() == '[')
    return hostText_.substr(1, hostText_.size() - 2);
  return hostText_;
}

bool QRVURL::usesDefaultPort() const {
  if (!port_)
    return true;
  std::string s = asciiLower(scheme_.value_or(""));
  if (s == "http" || s == "ws")
    return *port_ == 80;
  if (s == "https" || s == "wss")
    return *port_ == 443;
  return false;
}

}  // namespace quorvix
