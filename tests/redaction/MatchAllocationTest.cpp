// Matching runs per view and per candidate selector: it must not allocate for text and integer
// values. Counted with a replaced global operator new, so this test has a binary of its own.
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "redaction/QRVSelectorParser.h"

namespace {
std::atomic<long> gAllocations{0};
}  // namespace

void* operator new(std::size_t n) {
  ++gAllocations;
  if (void* p = std::malloc(n ? n : 1))
    return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace quorvix {
namespace {

TEST(SelectorMatchTest, MatchingDoesNotAllocate) {
  auto selector =
      *QRVSelectorParser::parse("form#login div[role=group] input[type=password][row=3]");
  QRVViewProperties form(1, "form", {{"id", "login"}});
  QRVViewProperties other(2, "div", {{"role", "banner"}});
  QRVViewProperties group(3, "div", {{"role", "group"}, {"tabindex", 0}});
  QRVViewProperties input(4, "input", {{"type", "password"}, {"row", 3}});
  std::vector<const QRVSelectableViewProperties*> parents{&form, &other, &group};
  long before = gAllocations.load();
  int matched = 0;
  for (int i = 0; i < 1000; ++i)
    matched += selector.matches(input, parents) ? 1 : 0;
  EXPECT_EQ(gAllocations.load() - before, 0);
  EXPECT_EQ(matched, 1000);
}

}  // namespace
}  // namespace quorvix
