#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "velox/runtime/velCompiler.hpp"

namespace velox {

class TObject;

/// A reference to a class derived from TObject: a value that names it, compares, and makes objects
/// of it.
///
///     TClass operation = TClass::Of<TTransferOperation>();
///     std::unique_ptr<TObject> made = operation.Create();
class VELOX_API TClass {
 public:
  /// No class.
  constexpr TClass() noexcept = default;

  template <class T>
  static TClass Of() noexcept {
    static_assert(std::is_base_of_v<TObject, T>, "a TClass names classes derived from TObject");
    static const TInfo info = MakeInfo<T>();
    return TClass(&info);
  }

  explicit operator bool() const noexcept { return Info_ != nullptr; }

  /// The class's name without the library's namespace, empty for no class.
  std::string GetName() const;

  /// A new object made by the class's default constructor. Raises Exception when the class is none,
  /// is abstract or has no default constructor.
  std::unique_ptr<TObject> Create() const;

  /// Whether the object is of this class or of one derived from it; false for no class.
  bool Includes(const TObject& Object) const;

  /// Two references are equal when they name the same class, whichever module they were made in.
  friend bool operator==(const TClass& A, const TClass& B) noexcept {
    if (A.Info_ == nullptr || B.Info_ == nullptr) return A.Info_ == B.Info_;
    return *A.Info_->Type == *B.Info_->Type;
  }

 private:
  struct TInfo {
    const std::type_info* Type;
    TObject* (*Construct)();  // null when the class can't be made without arguments
    bool (*Includes)(const TObject&);
  };

  explicit TClass(const TInfo* Info) noexcept : Info_(Info) {}

  template <class T>
  static TInfo MakeInfo() noexcept;

  const TInfo* Info_ = nullptr;
};

/// The root of the library's classes. An object has an identity: it is neither copied nor moved.
class VELOX_API TObject {
 public:
  TObject() noexcept = default;
  TObject(const TObject&) = delete;
  TObject& operator=(const TObject&) = delete;
  virtual ~TObject();

  /// The name of the object's own class, without the library's namespace.
  std::string ClassName() const;
};

template <class T>
TClass::TInfo TClass::MakeInfo() noexcept {
  const auto includes = [](const TObject& Object) {
    return dynamic_cast<const T*>(&Object) != nullptr;
  };
  if constexpr (std::is_default_constructible_v<T> && !std::is_abstract_v<T>) {
    return {&typeid(T), []() -> TObject* { return new T; }, includes};
  } else {
    return {&typeid(T), nullptr, includes};
  }
}

}  // namespace velox
