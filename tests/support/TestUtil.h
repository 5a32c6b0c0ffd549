// Small helpers shared by the tests.
#pragma once

#include <atomic>
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
  // The same, insisting on exactly one call (see expectCalledOnce).
  std::function<void(Args...)> once(const char* file = __builtin_FILE(),
                                    int line = __builtin_LINE());
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

// A completion that must run exactly once: a second call fails the test at once, and a
// completion let go without a call fails it when its last copy is destroyed.
template <typename R, typename... Args>
std::function<R(Args...)> expectCalledOnce(std::function<R(Args...)> f,
                                           const char* file = __builtin_FILE(),
                                           int line = __builtin_LINE()) {
  struct Guard {
    Guard(const char* f, int l) : file(f), line(l) {}
    const char* file;
    int line;
    std::atomic<int> calls{0};
    ~Guard() {
      if (calls == 0)
        ADD_FAILURE_AT(file, line) << "completion released without being called";
    }
  };
  auto guard = std::make_shared<Guard>(file, line);
  return [guard, f = std::move(f)](Args... args) -> R {
    if (++guard->calls > 1)
      ADD_FAILURE_AT(guard->file, guard->line) << "completion called more than once";
    return f(std::forward<Args>(args)...);
  };
}

// A completion that must never run, for the deliberate never-called cases.
template <typename... Args>
std::function<void(Args...)> expectNeverCalled(const char* file = __builtin_FILE(),
                                               int line = __builtin_LINE()) {
  return [file, line](Args...) { ADD_FAILURE_AT(file, line) << "completion called"; };
}

template <typename... Args>
std::function<void(Args...)> CallRecorder<Args...>::once(const char* file, int line) {
  return expectCalledOnce(callback(), file, line);
}

}  // namespace quorvix::test
