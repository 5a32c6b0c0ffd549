// The host-facing weak collections: order, identity, and objects that go away.
#include <gtest/gtest.h>

#include "quorvix/QRVMultiDelegate.h"
#include "quorvix/QRVOrderedWeakSet.h"

namespace quorvix {
namespace {

struct Listener {
  explicit Listener(std::string n, std::vector<std::string>& log) : name(std::move(n)), log(log) {}
  virtual ~Listener() = default;
  virtual void told(int value) { log.push_back(name + std::to_string(value)); }
  std::string name;
  std::vector<std::string>& log;
};

TEST(WeakCollectionsTest, MultiDelegateTellsLiveDelegatesInOrderOnce) {
  std::vector<std::string> log;
  auto a = std::make_shared<Listener>("a", log);
  auto b = std::make_shared<Listener>("b", log);
  auto c = std::make_shared<Listener>("c", log);
  QRVMultiDelegate<Listener> fan{a, nullptr, b};
  fan.addDelegate(a);
  fan.addDelegate(nullptr);
  fan.addDelegate(c);
  fan.forward(&Listener::told, 1);
  EXPECT_EQ(log, (std::vector<std::string>{"a1", "b1", "c1"}));

  b.reset();
  log.clear();
  fan.forward(&Listener::told, 2);
  EXPECT_EQ(log, (std::vector<std::string>{"a2", "c2"}));
  EXPECT_EQ(fan.delegates().size(), 2u);
}

TEST(WeakCollectionsTest, OrderedWeakSetMovesReaddedObjectsAndSortsStably) {
  std::vector<std::string> log;
  auto a = std::make_shared<Listener>("a", log);
  auto b = std::make_shared<Listener>("b", log);
  auto c = std::make_shared<Listener>("c", log);
  auto d = std::make_shared<Listener>("a", log);
  QRVOrderedWeakSet<Listener> set;
  for (const auto& o : {a, b, c, d})
    set.addObject(o);
  set.addObject(a);
  auto names = [&] {
    std::string s;
    for (const auto& o : set.allObjects())
      s += o.get() == d.get() ? "d" : o->name;
    return s;
  };
  EXPECT_EQ(names(), "bcda");
  set.sort([](const auto& x, const auto& y) { return x->name < y->name; });
  EXPECT_EQ(names(), "dabc") << "equal names keep their order";
  c.reset();
  set.removeObject(b.get());
  EXPECT_EQ(names(), "da");
}

}  // namespace
}  // namespace quorvix
