// Parsed redaction selectors: a descendant chain of parts, each a tag, an id and attribute
// equality tests. Equal and hashed by their text form, so sets of selectors deduplicate.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "quorvix/QRVPoint.h"
#include "quorvix/Value.h"

namespace quorvix {

// What a selector part can be tested against: a view description, or another part.
class QRVSelectableViewProperties {
 public:
  virtual ~QRVSelectableViewProperties() = default;
  virtual const std::optional<std::string>& tag() const = 0;
  virtual void setTag(std::optional<std::string> tag) = 0;
  // The id, when there is one, is the entry "id".
  virtual const Value::Map& attributes() const = 0;
  virtual void setAttributes(Value::Map attributes) = 0;
};

struct QRVSize {
  double width = 0, height = 0;
};

// A view of the host application as the selectors see it.
class QRVViewProperties final : public QRVSelectableViewProperties {
 public:
  QRVViewProperties(std::uint64_t viewId,
                    std::optional<std::string> tag,
                    Value::Map attributes,
                    QRVPoint origin = {},
                    QRVSize size = {})
      : viewId_(viewId),
        tag_(std::move(tag)),
        attributes_(std::move(attributes)),
        origin_(origin),
        size_(size) {}

  std::uint64_t viewId() const { return viewId_; }
  QRVPoint origin() const { return origin_; }
  QRVSize size() const { return size_; }
  const std::optional<std::string>& tag() const override { return tag_; }
  void setTag(std::optional<std::string> tag) override { tag_ = std::move(tag); }
  const Value::Map& attributes() const override { return attributes_; }
  void setAttributes(Value::Map attributes) override { attributes_ = std::move(attributes); }

 private:
  std::uint64_t viewId_;
  std::optional<std::string> tag_;
  Value::Map attributes_;
  QRVPoint origin_;
  QRVSize size_;
};

class QRVSelectorPart final : public QRVSelectableViewProperties {
 public:
  QRVSelectorPart(std::optional<std::string> tag, std::optional<Value::Map> attributes)
      : tag_(std::move(tag)), attributes_(attributes ? std::move(*attributes) : Value::Map{}) {}

  // The pre-split wire form: "tag" (rendered as text), "attrs" (a map, else nothing) and "id"
  // (kept as it is, replacing any "id" among the attributes).
  static QRVSelectorPart fromDictionary(const Value::Map& dictionary);

  const std::optional<std::string>& tag() const override { return tag_; }
  void setTag(std::optional<std::string> tag) override { tag_ = std::move(tag); }
  const Value::Map& attributes() const override { return attributes_; }
  void setAttributes(Value::Map attributes) override { attributes_ = std::move(attributes); }

  // True when the tags are equal (if this part has one) and every attribute of this part is on
  // the view with the same text. Allocates nothing for text and integer values.
  bool matches(const QRVSelectableViewProperties& view) const;

  // tag, then "#id", then "[name=value]" for the other attributes in ascending name order.
  std::string description() const;

  friend bool operator==(const QRVSelectorPart& a, const QRVSelectorPart& b) {
    return a.description() == b.description();
  }

 private:
  std::optional<std::string> tag_;
  Value::Map attributes_;
};

class QRVSelector {
 public:
  explicit QRVSelector(std::vector<QRVSelectorPart> parts) : parts_(std::move(parts)) {}

  // The pre-split wire form: a list of part dictionaries. Nothing for anything else, or when no
  // part results.
  static std::optional<QRVSelector> from(const Value& list);

  // Outermost ancestor first; the last part must match the view itself.
  const std::vector<QRVSelectorPart>& parts() const { return parts_; }

  // `parents` runs from the root down to the view's direct parent.
  bool matches(const QRVSelectableViewProperties& view,
               const std::vector<const QRVSelectableViewProperties*>& parents) const;
  // Greedy from the nearest ancestor outward: enough, as descendant-of is the only combinator.
  static bool matchesDescendantChain(
      const std::vector<const QRVSelectableViewProperties*>& ancestors,
      const std::vector<QRVSelectorPart>& parts,
      std::size_t partCount);

  // The parts' descriptions joined by single spaces.
  std::string debugDescription() const;

  friend bool operator==(const QRVSelector& a, const QRVSelector& b) {
    return a.debugDescription() == b.debugDescription();
  }

 private:
  std::vector<QRVSelectorPart> parts_;
};

// Renders a value as "%@" formatting does, for comparing attribute values as text.
std::string renderText(const Value& value);

}  // namespace quorvix

template <>
struct std::hash<quorvix::QRVSelectorPart> {
  std::size_t operator()(const quorvix::QRVSelectorPart& p) const {
    return std::hash<std::string>{}(p.description());
  }
};

template <>
struct std::hash<quorvix::QRVSelector> {
  std::size_t operator()(const quorvix::QRVSelector& s) const {
    return std::hash<std::string>{}(s.debugDescription());
  }
};

namespace quorvix {
using QRVSelectorSet = std::unordered_set<QRVSelector>;
}  // namespace quorvix
