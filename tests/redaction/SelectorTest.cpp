#include <gtest/gtest.h>

#include "redaction/QRVSelectorIndex.h"
#include "redaction/QRVSelectorParser.h"

namespace quorvix {
namespace {

QRVViewProperties view(std::optional<std::string> tag, Value::Map attributes = {}) {
  static std::uint64_t next = 1;
  return QRVViewProperties(next++, std::move(tag), std::move(attributes));
}

std::string parsed(std::string_view text) {
  auto s = QRVSelectorParser::parse(text);
  return s ? s->debugDescription() : "<invalid>";
}

TEST(SelectorParserTest, PatternsAreComposedFromTheFragments) {
  auto m = QRVSelectorParser::matchers();
  EXPECT_EQ(
      m.part.pattern(),
      R"(((?:(?:(?:[_a-z][_a-z0-9]*)(?:#[a-z0-9_-]+))|(?:#[a-z0-9_-]+)|(?:[_a-z][_a-z0-9]*)))?((?:(?:\[(?:(?:[a-z][a-z0-9_-]*|"[a-z][a-z0-9_ -]*")=(?:[a-z0-9_-]+|"[a-z0-9_ -]+"))\])*)))");
  EXPECT_EQ(m.attribute.pattern(),
            R"((?:(?:[a-z][a-z0-9_-]*|"[a-z][a-z0-9_ -]*")=(?:[a-z0-9_-]+|"[a-z0-9_ -]+")))");
}

TEST(SelectorParserTest, ParsesAndPrints) {
  const std::pair<const char*, const char*> cases[] = {
      {"div#main[role=button] span", "div#main[role=button] span"},
      {"#pw", "#pw"},
      {"NSButton", "NSButton"},
      {"input[\"aria label\"=\"Sign in\"]", "input[aria label=Sign in]"},
      {"  div \t  span  ", "div span"},
      {"div  span", "div span"},
      // The id goes in after the attribute tests, so #a[id=b] requires the id a.
      {"#a[id=b]", "#a"},
      {"a[z=1][b=2][b=3]", "a[b=3][z=1]"},
      {"_x9 #y-1 [k=v]", "_x9 #y-1 [k=v]"},
      {"div\xc2\xa0span", "div span"},  // Unicode space separators separate too
      {"\xe2\x80\x83"
       "div\t",
       "div"},
      {"div > span", "<invalid>"},
      {"a.b", "<invalid>"},
      {"[role=a.b]", "<invalid>"},
      {"div\nspan", "<invalid>"},
      {"div:hover", "<invalid>"},
      {"*", "<invalid>"},
      {"div[role~=x]", "<invalid>"},
      {"9div", "<invalid>"},
      {"div-x", "<invalid>"},
      {"", "<invalid>"},
      {"   \t ", "<invalid>"},
  };
  for (auto [text, expected] : cases)
    EXPECT_EQ(parsed(text), expected) << text;

  auto s = QRVSelectorParser::parse("div#main[role=button] span");
  ASSERT_TRUE(s);
  ASSERT_EQ(s->parts().size(), 2u);
  EXPECT_EQ(s->parts()[0].tag(), "div");
  EXPECT_EQ(s->parts()[0].attributes(), (Value::Map{{"role", "button"}, {"id", "main"}}));
  EXPECT_EQ(s->parts()[1].tag(), "span");
  EXPECT_TRUE(s->parts()[1].attributes().empty());
  auto quoted = QRVSelectorParser::parse("x[label=\"two  spaces\"]");
  EXPECT_EQ(quoted->parts()[0].attributes().at("label"), Value("two  spaces"));
  EXPECT_FALSE(QRVSelectorParser::parse("#pw")->parts()[0].tag());
}

TEST(SelectorParserTest, EqualSelectorsCollapse) {
  auto set = QRVSelectorParser::parseAll({"div  span", "div span", "bad > x", "#pw", "#pw"});
  EXPECT_EQ(set.size(), 2u);
  EXPECT_TRUE(set.contains(*QRVSelectorParser::parse("div span")));
  EXPECT_EQ(*QRVSelectorParser::parse("a[x=1][y=2]"), *QRVSelectorParser::parse("a[y=2][x=1]"));
}

TEST(SelectorTest, MatchesViewsAndAncestorChains) {
  auto pw = *QRVSelectorParser::parse("#pw");
  EXPECT_TRUE(pw.matches(view("NSSecureTextField", {{"id", "pw"}}), {}));
  EXPECT_FALSE(pw.matches(view("NSSecureTextField", {{"id", "PW"}}), {}));
  EXPECT_FALSE(pw.matches(view("NSSecureTextField"), {}));

  auto button = *QRVSelectorParser::parse("NSButton");
  EXPECT_TRUE(button.matches(view("NSButton"), {}));
  EXPECT_FALSE(button.matches(view("nsbutton"), {}));
  EXPECT_FALSE(button.matches(view(std::nullopt), {}));

  // Values compare as text: the number 1 equals the string "1".
  auto numbered = *QRVSelectorParser::parse("[row=1]");
  EXPECT_TRUE(numbered.matches(view("cell", {{"row", 1}}), {}));
  EXPECT_TRUE(numbered.matches(view("cell", {{"row", 1.0}}), {}));
  EXPECT_FALSE(numbered.matches(view("cell", {{"row", 1.5}}), {}));

  auto a = view("a"), b1 = view("b"), b2 = view("b"), form = view("form"), other = view("p");
  auto c = view("c");
  auto abc = *QRVSelectorParser::parse("a b c");
  EXPECT_TRUE(abc.matches(c, {&a, &b1, &b2}));
  EXPECT_FALSE(abc.matches(c, {&b1, &a}));
  EXPECT_FALSE(abc.matches(c, {&a}));
  auto div = view("div");
  EXPECT_TRUE(QRVSelectorParser::parse("div")->matches(div, {&other, &form}));
  EXPECT_TRUE(QRVSelectorParser::parse("form div")->matches(div, {&form, &other}));
  EXPECT_FALSE(QRVSelectorParser::parse("form div")->matches(div, {&other}));
  // A part with nothing in it matches every view.
  EXPECT_TRUE(QRVSelectorPart(std::nullopt, std::nullopt).matches(c));
}

TEST(SelectorTest, PreSplitWireForm) {
  Value wire = Value::Array{
      Value::Map{{"tag", "form"}},
      Value::Map{{"tag", 7}, {"attrs", Value::Map{{"role", "x"}, {"id", "lost"}}}, {"id", 12}}};
  auto s = QRVSelector::from(wire);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->debugDescription(), "form 7#12[role=x]");
  EXPECT_EQ(s->parts()[1].attributes().at("id"), Value(12)) << "the id is kept as it is";
  EXPECT_TRUE(s->matches(view("7", {{"id", "12"}, {"role", "x"}}), {}) == false);
  auto f = view("form");
  EXPECT_TRUE(s->matches(view("7", {{"id", "12"}, {"role", "x"}}), {&f}));
  EXPECT_EQ(QRVSelector::from(Value::Array{Value::Map{{"attrs", "nope"}}})->debugDescription(), "");
  EXPECT_FALSE(QRVSelector::from(Value::Array{}));
  EXPECT_FALSE(QRVSelector::from(Value("div")));
  EXPECT_FALSE(QRVSelector::from(Value::Array{Value("div")}));
}

TEST(SelectorIndexTest, FindsCandidatesByTheLastPart) {
  QRVSelectorIndex index;
  EXPECT_TRUE(index.isEmpty());
  std::uint64_t seen = 0;
  int id = SelectorObserver::subscribe([&](std::uint64_t counter) { seen = counter; });
  auto set =
      QRVSelectorParser::parseAll({"form input[type=password]", "#card", "NSButton", "div span"});
  std::uint64_t before = SelectorObserver::counter();
  index.setSelectors(set);
  EXPECT_EQ(SelectorObserver::counter(), before + 1);
  EXPECT_EQ(seen, before + 1);
  index.setSelectors(set);  // unchanged: nothing to tell
  EXPECT_EQ(SelectorObserver::counter(), before + 1);
  SelectorObserver::unsubscribe(id);

  EXPECT_EQ(index.knownAttributes(), (std::set<std::string>{"id", "type"}));
  EXPECT_TRUE(index.possibleMatchesForTag("form", nullptr).empty()) << "only last parts count";
  auto candidates = index.possibleMatchesForTag("input", nullptr);
  EXPECT_EQ(candidates.size(), 1u);
  Value::Map attrs{{"type", "password"}, {"id", "card"}};
  candidates = index.possibleMatchesForTag("span", &attrs);
  EXPECT_EQ(candidates.size(), 3u);
  EXPECT_TRUE(candidates.contains(*QRVSelectorParser::parse("div span")));
  EXPECT_TRUE(index.possibleMatchesForView(view("NSButton"))
                  .contains(*QRVSelectorParser::parse("NSButton")));
  EXPECT_TRUE(index.possibleMatchesForView(view("NSView")).empty());

  // A selector whose last part tests nothing is never a candidate.
  QRVSelectorIndex bare;
  bare.setSelectors({QRVSelector({QRVSelectorPart(std::nullopt, std::nullopt)})});
  EXPECT_FALSE(bare.isEmpty());
  EXPECT_TRUE(bare.possibleMatchesForView(view("any")).empty());
}

}  // namespace
}  // namespace quorvix
