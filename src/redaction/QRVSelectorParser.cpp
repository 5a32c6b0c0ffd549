#define PCRE2_CODE_UNIT_WIDTH 8
#include "redaction/QRVSelectorParser.h"

#include <pcre2.h>

#include "utils/Logging.h"

namespace quorvix {
namespace {

// The grammar's fragments; "%@" marks where another fragment goes, in argument order.
constexpr std::string_view kTag = "(?:[_a-z][_a-z0-9]*)";
constexpr std::string_view kId = "(?:#[a-z0-9_-]+)";
constexpr std::string_view kTagWithId = "(?:%@%@)";
constexpr std::string_view kHead = "(?:%@|%@|%@)";
constexpr std::string_view kAttributeName = R"((?:[a-z][a-z0-9_-]*|"[a-z][a-z0-9_ -]*"))";
constexpr std::string_view kAttributeValue = R"((?:[a-z0-9_-]+|"[a-z0-9_ -]+"))";
constexpr std::string_view kAttributePair = "(?:%@=%@)";
constexpr std::string_view kBracketedPair = R"((?:\[%@\]))";
constexpr std::string_view kAttributeList = "(?:%@*)";
constexpr std::string_view kPart = "(%@)?(%@)";

std::string format(std::string_view fragment, std::initializer_list<std::string_view> args) {
  std::string out;
  auto arg = args.begin();
  for (std::size_t i = 0; i < fragment.size(); ++i) {
    if (fragment.substr(i, 2) == "%@" && arg != args.end()) {
      out += *arg++;
      ++i;
    } else {
      out.push_back(fragment[i]);
    }
  }
  return out;
}

// Spaces and tabs as the platform's white-space set has them: the horizontal tab and the Unicode
// space separators (Zs), not line breaks.
std::size_t spaceAt(std::string_view s, std::size_t i, bool backwards) {
  static constexpr std::string_view kMultiByte[] = {
      "\xc2\xa0",     "\xe1\x9a\x80", "\xe2\x80\x80", "\xe2\x80\x81",
      "\xe2\x80\x82", "\xe2\x80\x83", "\xe2\x80\x84", "\xe2\x80\x85",
      "\xe2\x80\x86", "\xe2\x80\x87", "\xe2\x80\x88", "\xe2\x80\x89",
      "\xe2\x80\x8a", "\xe2\x80\xaf", "\xe2\x81\x9f", "\xe3\x80\x80"};
  if (backwards) {
    if (i == 0)
      return 0;
    char c = s[i - 1];
    if (c == ' ' || c == '\t')
      return 1;
    for (auto m : kMultiByte)
      if (i >= m.size() && s.substr(i - m.size(), m.size()) == m)
        return m.size();
    return 0;
  }
  if (i >= s.size())
    return 0;
  if (s[i] == ' ' || s[i] == '\t')
    return 1;
  for (auto m : kMultiByte)
    if (s.substr(i, m.size()) == m)
      return m.size();
  return 0;
}

std::string_view trimSpaces(std::string_view s) {
  std::size_t begin = 0, end = s.size();
  while (std::size_t n = spaceAt(s, begin, false))
    begin += n;
  while (end > begin) {
    std::size_t n = spaceAt(s, end, true);
    if (!n)
      break;
    end -= n;
  }
  return s.substr(begin, end - begin);
}

std::string_view trimQuotes(std::string_view s) {
  while (!s.empty() && s.front() == '"')
    s.remove_prefix(1);
  while (!s.empty() && s.back() == '"')
    s.remove_suffix(1);
  return s;
}

std::vector<std::string_view> split(std::string_view s, char separator) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (true) {
    auto at = s.find(separator, start);
    pieces.push_back(
        s.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start));
    if (at == std::string_view::npos)
      return pieces;
    start = at + 1;
  }
}

std::optional<QRVSelectorPart> partFrom(const QRVSelectorParser::Matchers& m,
                                        std::string_view text) {
  auto match = m.part.firstMatch(text);
  if (!match)
    return std::nullopt;
  auto group = [&](std::size_t i) -> std::optional<std::string_view> {
    return i < match->groups.size() ? match->groups[i] : std::nullopt;
  };
  std::optional<std::string> tag, id;
  if (auto head = group(1)) {
    auto pieces = split(*head, '#');
    if (!pieces[0].empty())
      tag = std::string(pieces[0]);
    if (pieces.size() > 1 && !pieces[1].empty())
      id = std::string(pieces[1]);
  }
  Value::Map attributes;
  if (auto list = group(2); list && !list->empty()) {
    for (const auto& pair : m.attribute.matchAll(*list)) {
      auto text = list->substr(pair.start, pair.end - pair.start);
      auto pieces = split(text, '=');
      if (pieces.size() == 2)
        attributes[std::string(trimQuotes(pieces[0]))] = Value(std::string(trimQuotes(pieces[1])));
    }
  }
  // After the attribute tests, so that #a[id=b] requires the id a.
  if (id)
    attributes["id"] = Value(std::move(*id));
  return QRVSelectorPart(std::move(tag),
                         attributes.empty() ? std::nullopt : std::optional(std::move(attributes)));
}

}  // namespace

struct QRVRegex::Code {
  pcre2_code* code = nullptr;
  ~Code() { pcre2_code_free(code); }
};

QRVRegex::QRVRegex(std::string pattern)
    : pattern_(std::move(pattern)), code_(std::make_unique<Code>()) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  code_->code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern_.data()), pattern_.size(),
                              PCRE2_CASELESS, &error, &offset, nullptr);
  if (!code_->code)
    QRV_FATAL("QRVSelectorParser", "a built-in selector pattern does not compile");
}

QRVRegex::~QRVRegex() = default;
QRVRegex::QRVRegex(QRVRegex&&) noexcept = default;
QRVRegex& QRVRegex::operator=(QRVRegex&&) noexcept = default;

std::optional<QRVRegex::Match> QRVRegex::matchAt(std::string_view subject,
                                                 std::size_t offset) const {
  pcre2_match_data* data = pcre2_match_data_create_from_pattern(code_->code, nullptr);
  int rc = pcre2_match(code_->code, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(),
                       offset, 0, data, nullptr);
  std::optional<Match> result;
  if (rc > 0) {
    PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data);
    std::uint32_t count = pcre2_get_ovector_count(data);
    Match m;
    m.start = ovector[0];
    m.end = ovector[1];
    for (std::uint32_t i = 0; i < count; ++i) {
      if (i < static_cast<std::uint32_t>(rc) && ovector[2 * i] != PCRE2_UNSET)
        m.groups.emplace_back(subject.substr(ovector[2 * i], ovector[2 * i + 1] - ovector[2 * i]));
      else
        m.groups.emplace_back(std::nullopt);
    }
    result = std::move(m);
  }
  pcre2_match_data_free(data);
  return result;
}

std::optional<QRVRegex::Match> QRVRegex::firstMatch(std::string_view subject) const {
  return matchAt(subject, 0);
}

std::vector<QRVRegex::Match> QRVRegex::matchAll(std::string_view subject) const {
  std::vector<Match> matches;
  std::size_t offset = 0;
  while (offset <= subject.size()) {
    auto m = matchAt(subject, offset);
    if (!m)
      break;
    offset = m->end;
    if (m->end == m->start) {
      // Step over one whole UTF-8 character.
      if (offset >= subject.size()) {
        matches.push_back(std::move(*m));
        break;
      }
      do
        ++offset;
      while (offset < subject.size() &&
             (static_cast<unsigned char>(subject[offset]) & 0xc0) == 0x80);
    }
    matches.push_back(std::move(*m));
  }
  return matches;
}

QRVSelectorParser::Matchers QRVSelectorParser::matchers() {
  std::string tagWithId = format(kTagWithId, {kTag, kId});
  std::string head = format(kHead, {tagWithId, kId, kTag});
  std::string pair = format(kAttributePair, {kAttributeName, kAttributeValue});
  std::string bracketed = format(kBracketedPair, {pair});
  std::string list = format(kAttributeList, {bracketed});
  return {QRVRegex(format(kPart, {head, list})), QRVRegex(pair)};
}

std::optional<QRVSelectorPart> QRVSelectorParser::parsePart(std::string_view part) {
  return partFrom(matchers(), part);
}

std::optional<QRVSelector> QRVSelectorParser::parse(std::string_view selector) {
  Matchers m = matchers();
  auto matches = m.part.matchAll(selector);
  // Whatever no part takes must be spaces and tabs only.
  std::string rest;
  std::size_t at = 0;
  for (const auto& match : matches) {
    rest.append(selector.substr(at, match.start - at));
    at = match.end;
  }
  rest.append(selector.substr(std::min(at, selector.size())));
  if (!trimSpaces(rest).empty())
    return std::nullopt;

  std::vector<QRVSelectorPart> parts;
  for (const auto& match : matches) {
    auto text = trimSpaces(selector.substr(match.start, match.end - match.start));
    if (text.empty())
      continue;
    auto part = partFrom(m, text);
    if (!part)
      return std::nullopt;
    parts.push_back(std::move(*part));
  }
  if (parts.empty())
    return std::nullopt;
  return QRVSelector(std::move(parts));
}

QRVSelectorSet QRVSelectorParser::parseAll(const std::vector<std::string>& selectors) {
  QRVSelectorSet set;
  for (const auto& s : selectors) {
    if (auto selector = parse(s))
      set.insert(std::move(*selector));
  }
  return set;
}

}  // namespace quorvix
