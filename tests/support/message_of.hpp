#pragma once

#include <exception>
#include <functional>
#include <string>

namespace velox::test {

/// What an action raises, in its words; "nothing raised" when it doesn't. (Apart from the rest of
/// the support, since it is built for the development machine, too.)
inline std::string MessageOf(const std::function<void()>& Action) {
  try {
    Action();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "nothing raised";
}

}  // namespace velox::test
