#pragma once

#include <cstdint>

#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"

struct IUnknown;

/// The vocabulary that the containers share.
namespace velox {

/// The base of reference-counted interfaces.
using IInterface = ::IUnknown;

/// What happens, or has happened, to an item of a container.
enum TContainerModifyAction : int32_t {
  maAdd = 0,    ///< it is put in
  maDelete = 1  ///< it is taken out
};

/// Asked before a container takes or drops AObject. Accept comes in true; setting it to false
/// refuses.
using TContainerModifyingEvent =
    TMethod<void(TObject* Sender, TObject* AObject, TContainerModifyAction Action, bool& Accept)>;

/// Told after a container took or dropped AObject.
using TContainerModifyEvent =
    TMethod<void(TObject* Sender, TObject* AObject, TContainerModifyAction Action)>;

/// Orders two objects: negative, zero or positive as the first belongs before, equals or belongs
/// after the second.
using TObjectCompareRoutine = TMethod<int32_t(TObject* AObject1, TObject* AObject2)>;

/// An enumerator of objects; velIntfArray.hpp defines it, so that the others need no COM header.
struct IObjectEnumerator;

using messages::seCannotMoveElementInSortedArray;
using messages::seInvalidIndex;
using messages::seObjectIsNull;

}  // namespace velox
