#pragma once

#include <string>

#include "velox/foundation/velStringUtils.hpp"

/// What the byte-exact and the locale-aware string helpers share: splitting and stripping, by a
/// search or a comparison of theirs. Internal to velStringUtils.
namespace velox::tokens {

/// Gives the offset of the first Delimiter (not empty) in S at or after From, where a character
/// begins; npos when there is none.
using TFind = size_t (*)(const std::string& S, const std::string& Delimiter, size_t From);

inline size_t Find(const std::string& S, const std::string& Delimiter, size_t From) {
  return S.find(Delimiter, From);
}

/// The token of S that begins at At, which becomes where the next one begins: behind the delimiter,
/// or at the end. Ended tells whether there was a delimiter.
inline std::string Next(const std::string& S, const std::string& Delimiter, size_t& At, bool& Ended,
                        TFind Search) {
  const size_t begin = At;
  const size_t found = Delimiter.empty() ? std::string::npos : Search(S, Delimiter, begin);
  Ended = found != std::string::npos;
  At = Ended ? found + Delimiter.size() : S.size();
  return S.substr(begin, found - begin);
}

inline void Take(std::string& S, const std::string& Delimiter, std::string& Token, TFind Search) {
  size_t at = 0;
  bool ended = false;
  std::string token = Next(S, Delimiter, at, ended, Search);
  S.erase(0, at);
  Token = std::move(token);  // at last, since it may be Delimiter
}

inline TStrings TakeAll(const std::string& S, const std::string& Delimiter, bool TrimTokens,
                        bool SkipEmpty, TFind Search) {
  TStrings result;
  size_t at = 0;
  for (bool more = !S.empty(); more;) {
    std::string token = Next(S, Delimiter, at, more, Search);
    if (TrimTokens) token = Trim(token);
    if (!SkipEmpty || !token.empty()) result.push_back(std::move(token));
  }
  return result;
}

template <class TEqual>
std::string WithoutLeading(const std::string& S, const std::string& Delimiter, TEqual Equal) {
  size_t start = 0;
  const size_t step = Delimiter.size();
  while (step > 0 && S.size() - start >= step && Equal(S.substr(start, step), Delimiter))
    start += step;
  return S.substr(start);
}

template <class TEqual, class TBegins>
std::string WithoutTrailing(const std::string& S, const std::string& Delimiter, TEqual Equal,
                            TBegins BeginsCharacter) {
  size_t end = S.size();
  const size_t step = Delimiter.size();
  while (step > 0 && end >= step && BeginsCharacter(S, end - step) &&
         Equal(S.substr(end - step, step), Delimiter))
    end -= step;
  return S.substr(0, end);
}

}  // namespace velox::tokens
