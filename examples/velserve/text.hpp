#pragma once

#include <algorithm>
#include <string_view>

namespace velserve {

inline char Lower(char C) { return C >= 'A' && C <= 'Z' ? static_cast<char>(C - 'A' + 'a') : C; }

inline bool EqualIgnoringCase(std::string_view A, std::string_view B) {
  return std::equal(A.begin(), A.end(), B.begin(), B.end(),
                    [](char X, char Y) { return Lower(X) == Lower(Y); });
}

}  // namespace velserve
