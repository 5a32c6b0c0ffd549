// Small helpers shared by the tests.
#pragma once

#include <functional>
#include <optional>
#include <tuple>

#include <gtest/gtest.h>

namespace quorvix::test {

// Records the calls of a completion so that a test can insist on exactly one.
template <typename... Args>
class CallRecorder {
 public:
  std::function<void(Args...)> callback() {
    return [this](Args... args) {
      ++calls_;
      last_.emplace(std::move(args)...);
    };
  }
  int calls() const { return calls_; }
  bool called() const { return calls_ > 0; }
  // The arguments of the last call; throws (failing the test) if there was none.
  const std::tuple<std::decay_t<Args>...>& args() const { return last_.value(); }
  template <std::size_t I>
  const auto& arg() const {
    return std::get<I>(args());
  }

 private:
  int calls_ = 0;
  std::optional<std::tuple<std::decay_t<Args>...>> last_;
};

}  // namespace quorvix::test
