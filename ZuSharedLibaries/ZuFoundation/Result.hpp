#pragma once

#include <type_traits>
#include <utility>
#include <variant>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/FatalError.hpp"

namespace zu {

/**
 * The outcome of an operation that can fail synchronously: a value, or the `zu::Error` that says why not.
 * `Result<void>` carries no value. Asking for the side that is not there is a programming error and stops
 * the program.
 *
 * @code
 * zu::Result<zu::AnyCodable> object = zu::JSONSerialization::jsonObject(bytes);
 * if (!object) return object.error();
 * use(*object);
 * @endcode
 */
template <class T>
class [[nodiscard]] Result {
  using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

 public:
  /// A successful `Result<void>`.
  Result() requires std::is_void_v<T>
  = default;
  // The constraint leaves copies and moves to the implicit constructors; clang-tidy 14 reads no constraints.
  template <class U = Stored>
  requires(!std::is_void_v<T> && !std::is_same_v<std::remove_cvref_t<U>, Result> &&
           std::is_constructible_v<Stored, U&&>)
      // NOLINTNEXTLINE(bugprone-forwarding-reference-overload)
      Result(U&& value)
      : storage_(std::in_place_index<0>, std::forward<U>(value)) {}
  Result(Error error) : storage_(std::in_place_index<1>, std::move(error)) {}

  bool has_value() const noexcept { return storage_.index() == 0; }
  explicit operator bool() const noexcept { return has_value(); }

  template <class Self = Stored>
  requires(!std::is_void_v<T>) Self& value() & { return std::get<0>(checkedValue()); }
  template <class Self = Stored>
  requires(!std::is_void_v<T>) const Self& value() const& { return std::get<0>(checkedValue()); }
  template <class Self = Stored>
  requires(!std::is_void_v<T>) Self && value() && {
    return std::get<0>(std::move(checkedValue()));
  }
  template <class Self = Stored>
  requires(!std::is_void_v<T>) Self& operator*() & { return value(); }
  template <class Self = Stored>
  requires(!std::is_void_v<T>) const Self& operator*() const& { return value(); }
  template <class Self = Stored>
  requires(!std::is_void_v<T>) Self* operator->() { return &value(); }
  template <class Self = Stored>
  requires(!std::is_void_v<T>) const Self* operator->() const { return &value(); }

  const Error& error() const {
    if (has_value()) fatalError("Result::error() called on a successful result");
    return std::get<1>(storage_);
  }

 private:
  auto& checkedValue() {
    if (!has_value()) fatalError("Result::value() called on a failed result");
    return storage_;
  }
  const auto& checkedValue() const {
    if (!has_value()) fatalError("Result::value() called on a failed result");
    return storage_;
  }

  std::variant<Stored, Error> storage_;
};

}  // namespace zu
