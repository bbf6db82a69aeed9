// The forms that ask the system: its code page and its locale.

#include "velox/foundation/velStringUtils.hpp"
#include "velox/foundation/velStringUtils_tokens.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

bool LocaleEqual(const std::string& A, const std::string& B, DWORD Flags) {
  return CompareStringA(LOCALE_SYSTEM_DEFAULT, LOCALE_USE_CP_ACP | Flags, A.data(),
                        static_cast<int>(A.size()), B.data(),
                        static_cast<int>(B.size())) == CSTR_EQUAL;
}

bool LocaleSame(const std::string& A, const std::string& B) { return LocaleEqual(A, B, 0); }

bool LocaleBeginWith(const std::string& S, const std::string& Prefix, DWORD Flags) {
  return Prefix.empty() ||
         (S.size() >= Prefix.size() && LocaleEqual(S.substr(0, Prefix.size()), Prefix, Flags));
}

/// False within a double-byte character.
bool BeginsCharacter(const std::string& S, size_t At) {
  size_t start = 0;
  while (start < At) start += IsDBCSLeadByte(static_cast<BYTE>(S[start])) != FALSE ? 2 : 1;
  return start == At;
}

/// Finds Delimiter where a character begins, so never in the second half of a double-byte one.
size_t FindCharacters(const std::string& S, const std::string& Delimiter, size_t From) {
  for (size_t at = From; at + Delimiter.size() <= S.size();) {
    if (S.compare(at, Delimiter.size(), Delimiter) == 0) return at;
    at += IsDBCSLeadByte(static_cast<BYTE>(S[at])) != FALSE ? 2 : 1;
  }
  return std::string::npos;
}

}  // namespace

bool AnsiStrBeginWith(const std::string& S, const std::string& Prefix) {
  return LocaleBeginWith(S, Prefix, 0);
}

bool AnsiStrBeginWithText(const std::string& S, const std::string& Prefix) {
  return LocaleBeginWith(S, Prefix, NORM_IGNORECASE);
}

void AnsiStrGetToken(std::string& S, const std::string& Delimiter, std::string& Token) {
  tokens::Take(S, Delimiter, Token, &FindCharacters);
}

TStrings AnsiStrGetTokens(const std::string& S, const std::string& Delimiter, bool TrimTokens,
                          bool SkipEmpty) {
  return tokens::TakeAll(S, Delimiter, TrimTokens, SkipEmpty, &FindCharacters);
}

std::string AnsiStrRemoveLeadingDelimiters(const std::string& S, const std::string& Delimiter) {
  return tokens::WithoutLeading(S, Delimiter, &LocaleSame);
}

std::string AnsiStrRemoveTrailingDelimiters(const std::string& S, const std::string& Delimiter) {
  return tokens::WithoutTrailing(S, Delimiter, &LocaleSame, &BeginsCharacter);
}

}  // namespace velox
