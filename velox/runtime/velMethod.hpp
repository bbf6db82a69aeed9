#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {

/// Bound methods by their signatures; see TMethod<R(Args...)>.
template <class Signature>
class TMethod;

/// A bound method: code paired with the object it runs on. It is a value of two pointers: copying
/// is free, two methods are equal when both pointers are, and nothing is owned (the object must
/// outlive the method).
///
///     TReactionEvent event = TReactionEvent::Bind<&TReader::OnReady>(this);
///     if (event) event(sender);
template <class R, class... Args>
class TMethod<R(Args...)> {
 public:
  /// The code part: called with the object in front of the arguments.
  using TCode = R (*)(void*, Args...);

  /// Not assigned.
  constexpr TMethod() noexcept = default;
  constexpr TMethod(std::nullptr_t) noexcept {}
  /// From its two parts; the method is assigned when ACode is not null.
  constexpr TMethod(TCode ACode, void* AObject) noexcept : Code_(ACode), Object_(AObject) {}

  /// A member function on an object.
  template <auto Member, class T>
  requires std::is_member_function_pointer_v<decltype(Member)>
  static constexpr TMethod Bind(T* AObject) noexcept {
    return TMethod(
        [](void* Object, Args... Arguments) -> R {
          return (static_cast<T*>(Object)->*Member)(std::forward<Args>(Arguments)...);
        },
        const_cast<std::remove_const_t<T>*>(AObject));
  }

  /// A free function or a class operation.
  template <auto Function>
  static constexpr TMethod Bind() noexcept {
    return TMethod(
        [](void*, Args... Arguments) -> R { return Function(std::forward<Args>(Arguments)...); },
        nullptr);
  }

  /// A callable object, borrowed: a named lambda, say, that lives as long as the method is used.
  template <class F>
  static constexpr TMethod To(F& Callable) noexcept {
    return TMethod(
        [](void* Object, Args... Arguments) -> R {
          return (*static_cast<F*>(Object))(std::forward<Args>(Arguments)...);
        },
        &Callable);
  }

  /// Whether the method is assigned.
  explicit constexpr operator bool() const noexcept { return Code_ != nullptr; }

  /// Raises EAssertionFailed when the method is not assigned.
  R operator()(Args... Arguments) const {
    if (Code_ == nullptr) throw EAssertionFailed(messages::seMethodIsNotAssigned);
    return Code_(Object_, std::forward<Args>(Arguments)...);
  }

  /// The two parts.
  constexpr TCode Code() const noexcept { return Code_; }
  constexpr void* Object() const noexcept { return Object_; }

  /// Equal when both parts are.
  friend constexpr bool operator==(const TMethod&, const TMethod&) noexcept = default;

 private:
  TCode Code_ = nullptr;
  void* Object_ = nullptr;
};

}  // namespace velox
