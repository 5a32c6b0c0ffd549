// The redaction selector language: tags, "#id" and "[name=value]" tests in descendant chains
// separated by spaces or tabs. Letters match whatever their case, and the kept text keeps it.
// Invalid text never raises: it parses to nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "redaction/QRVSelector.h"

namespace quorvix {

// A compiled, case-insensitive PCRE2 pattern.
class QRVRegex {
 public:
  struct Match {
    std::size_t start = 0, end = 0;
    // Capture groups by number (0 is the whole match); nothing for a group that did not take
    // part in the match.
    std::vector<std::optional<std::string_view>> groups;
  };

  explicit QRVRegex(std::string pattern);
  ~QRVRegex();
  QRVRegex(QRVRegex&&) noexcept;
  QRVRegex& operator=(QRVRegex&&) noexcept;

  const std::string& pattern() const { return pattern_; }
  // Every match in order, empty ones included between the others, as ICU reports them: after an
  // empty match the search resumes one character further on.
  std::vector<Match> matchAll(std::string_view subject) const;
  std::optional<Match> firstMatch(std::string_view subject) const;

 private:
  std::optional<Match> matchAt(std::string_view subject, std::size_t offset) const;
  struct Code;
  std::string pattern_;
  std::unique_ptr<Code> code_;
};

class QRVSelectorParser {
 public:
  struct Matchers {
    QRVRegex part;       // group 1: tag and id; group 2: the attribute list
    QRVRegex attribute;  // one name=value pair
  };

  static std::optional<QRVSelector> parse(std::string_view selector);
  static std::optional<QRVSelectorPart> parsePart(std::string_view part);
  // Strings that do not parse are left out; equal selectors collapse.
  static QRVSelectorSet parseAll(const std::vector<std::string>& selectors);
  // Built anew on each call.
  static Matchers matchers();
};

}  // namespace quorvix
