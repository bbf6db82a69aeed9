#pragma once

#include "velox/runtime/velMessages.hpp"

/// The texts of velZLib that are meant to be translated.
namespace velox {

using messages::sInvalidStreamOp;
using messages::sTargetBufferTooSmall;

}  // namespace velox
