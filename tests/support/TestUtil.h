// Small helpers shared by the tests.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace quorvix::test {

// Bytes 0, 1, ... 250, 0, 1, ...: a payload whose every position is checked, as the interop peer
// makes it too.
inline std::vector<std::uint8_t> pattern(std::size_t n) {
  std::vector<std::uint8_t> out(n);
  for (std::size_t i = 0; i < n; ++i)
    out[i] = static_cast<std::uint8_t>(i % 251);
  return out;
}

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
