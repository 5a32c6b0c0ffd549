#pragma once

#include <utility>
#include <variant>

namespace quorvix {

// A value or the error that prevented it: how fallible operations report failure without
// exceptions.
template <typename T, typename E>
class Expected {
 public:
  Expected(T value) : v_(std::in_place_index<0>, std::move(value)) {}
  Expected(E error) : v_(std::in_place_index<1>, std::move(error)) {}

  bool hasValue() const { return v_.index() == 0; }
  explicit operator bool() const { return hasValue(); }
  T& value() & { return std::get<0>(v_); }
  const T& value() const& { return std::get<0>(v_); }
  T&& value() && { return std::get<0>(std::move(v_)); }
  const E& error() const { return std::get<1>(v_); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

 private:
  std::variant<T, E> v_;
};

}  // namespace quorvix
