#include "redaction/QRVSelector.h"

#include <charconv>
#include <cmath>

namespace quorvix {
namespace {

// Room for any number's text; strings are viewed in place.
struct TextBuffer {
  char data[40];
};

// The value as "%@" renders it, viewed in `buffer` or in the value itself when it is text.
// Containers and other kinds take the allocating path through renderText.
std::optional<std::string_view> renderScalar(const Value& v, TextBuffer& buffer) {
  return std::visit(
      [&](const auto& x) -> std::optional<std::string_view> {
        using T = std::decay_t<decltype(x)>;
        char* end = buffer.data;
        if constexpr (std::is_same_v<T, std::string>) {
          return std::string_view(x);
        } else if constexpr (std::is_same_v<T, bool>) {
          return std::string_view(x ? "1" : "0");
        } else if constexpr (std::is_same_v<T, Value::Null>) {
          return std::string_view("<null>");
        } else if constexpr (std::is_integral_v<T>) {
          end = std::to_chars(buffer.data, buffer.data + sizeof buffer.data, x).ptr;
          return std::string_view(buffer.data, end - buffer.data);
        } else if constexpr (std::is_floating_point_v<T>) {
          if (std::isnan(x))
            return std::string_view("nan");
          if (std::isinf(x))
            return std::string_view(x > 0 ? "inf" : "-inf");
          end = std::to_chars(buffer.data, buffer.data + sizeof buffer.data, x).ptr;
          return std::string_view(buffer.data, end - buffer.data);
        } else {
          return std::nullopt;
        }
      },
      v.storage());
}

}  // namespace

std::string renderText(const Value& value) {
  TextBuffer buffer;
  if (auto text = renderScalar(value, buffer))
    return std::string(*text);
  if (auto json = value.toJson())
    return *json;
  if (value.isBytes())
    return "<" + std::to_string(value.asBytes()->size()) + " bytes>";
  if (const Date* d = value.asDate())
    return std::to_string(d->secondsSince1970);
  return "<value>";
}

QRVSelectorPart QRVSelectorPart::fromDictionary(const Value::Map& dictionary) {
  std::optional<std::string> tag;
  if (auto it = dictionary.find("tag"); it != dictionary.end())
    tag = renderText(it->second);
  Value::Map attributes;
  if (auto it = dictionary.find("attrs"); it != dictionary.end() && it->second.isMap())
    attributes = *it->second.asMap();
  if (auto it = dictionary.find("id"); it != dictionary.end())
    attributes["id"] = it->second;
  return QRVSelectorPart(std::move(tag), std::move(attributes));
}

bool QRVSelectorPart::matches(const QRVSelectableViewProperties& view) const {
  if (tag_ && (!view.tag() || *view.tag() != *tag_))
    return false;
  const Value::Map& viewAttributes = view.attributes();
  for (const auto& [name, expected] : attributes_) {
    auto it = viewAttributes.find(name);
    if (it == viewAttributes.end())
      return false;
    TextBuffer a, b;
    auto left = renderScalar(expected, a);
    auto right = renderScalar(it->second, b);
    if (left && right) {
      if (*left != *right)
        return false;
    } else if (renderText(expected) != renderText(it->second)) {
      return false;
    }
  }
  return true;
}

std::string QRVSelectorPart::description() const {
  std::string out = tag_.value_or("");
  if (auto it = attributes_.find("id"); it != attributes_.end())
    out += "#" + renderText(it->second);
  for (const auto& [name, value] : attributes_) {
    if (name != "id")
      out += "[" + name + "=" + renderText(value) + "]";
  }
  return out;
}

std::optional<QRVSelector> QRVSelector::from(const Value& list) {
  const Value::Array* items = list.asArray();
  if (!items)
    return std::nullopt;
  std::vector<QRVSelectorPart> parts;
  for (const auto& item : *items) {
    const Value::Map* dictionary = item.asMap();
    if (!dictionary)
      return std::nullopt;
    parts.push_back(QRVSelectorPart::fromDictionary(*dictionary));
  }
  if (parts.empty())
    return std::nullopt;
  return QRVSelector(std::move(parts));
}

bool QRVSelector::matches(const QRVSelectableViewProperties& view,
                          const std::vector<const QRVSelectableViewProperties*>& parents) const {
  if (parts_.empty() || !parts_.back().matches(view))
    return false;
  return matchesDescendantChain(parents, parts_, parts_.size() - 1);
}

bool QRVSelector::matchesDescendantChain(
    const std::vector<const QRVSelectableViewProperties*>& ancestors,
    const std::vector<QRVSelectorPart>& parts,
    std::size_t partCount) {
  std::size_t remainingAncestors = ancestors.size();
  std::size_t remainingParts = std::min(partCount, parts.size());
  while (remainingParts > 0) {
    if (remainingAncestors == 0)
      return false;
    if (parts[remainingParts - 1].matches(*ancestors[remainingAncestors - 1]))
      --remainingParts;
    --remainingAncestors;
  }
  return true;
}

std::string QRVSelector::debugDescription() const {
  std::string out;
  for (std::size_t i = 0; i < parts_.size(); ++i) {
    if (i > 0)
      out.push_back(' ');
    out += parts_[i].description();
  }
  return out;
}

}  // namespace quorvix
