#include "velox/runtime/velObject.hpp"

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {

TObject::~TObject() = default;

std::string TObject::ClassName() const { return TypeName(typeid(*this)); }

std::string TClass::GetName() const {
  return Info_ == nullptr ? std::string() : TypeName(*Info_->Type);
}

bool TClass::Includes(const TObject& Object) const {
  return Info_ != nullptr && Info_->Includes(Object);
}

std::unique_ptr<TObject> TClass::Create() const {
  if (Info_ == nullptr || Info_->Construct == nullptr)
    throw Exception(messages::seClassCannotBeCreated);
  return std::unique_ptr<TObject>(Info_->Construct());
}

}  // namespace velox
