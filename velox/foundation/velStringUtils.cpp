#include "velox/foundation/velStringUtils.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "velox/foundation/velStringUtils_tokens.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

uint8_t Code(char C) noexcept { return static_cast<uint8_t>(C); }

char LowerASCII(char C) noexcept { return C >= 'A' && C <= 'Z' ? static_cast<char>(C + 32) : C; }

void RequireSet(int32_t MaxOrd) {
  if (MaxOrd < 0 || MaxOrd > 255) throw Exception(messages::seIncorrectParameters);
}

void RequireNames(std::span<const std::string> Names, int32_t MaxOrd) {
  RequireSet(MaxOrd);
  if (Names.size() <= static_cast<size_t>(MaxOrd)) throw Exception(messages::seIncorrectParameters);
}

/// Calls Action with each member of a set, in order.
template <class TAction>
void ForMembers(const void* ASet, int32_t MaxOrd, TAction Action) {
  const auto* bytes = static_cast<const uint8_t*>(ASet);
  for (int32_t n = 0; n <= MaxOrd; ++n) {
    if ((bytes[n / 8] >> n % 8 & 1) != 0) Action(n);
  }
}

/// The list of what NameOf gives for each member.
template <class TNameOf>
std::string MembersToStr(const void* ASet, int32_t MaxOrd, bool Brackets, TNameOf NameOf) {
  std::string list;
  ForMembers(ASet, MaxOrd, [&](int32_t Member) { list = StrAddTail(list, ", ", NameOf(Member)); });
  return Brackets ? "[" + list + "]" : list;
}

std::string AddressToString(const void* Address) {
  return Format("%8.8" PRIXPTR, reinterpret_cast<uintptr_t>(Address));
}

}  // namespace

int32_t PosEx(const std::string& SubStr, const std::string& S, int32_t Offset) noexcept {
  if (SubStr.empty() || Offset < 1 || static_cast<size_t>(Offset) > S.size()) return 0;
  const std::string_view searched(S.c_str());  // ends at the first zero byte
  const size_t found = searched.find(SubStr, static_cast<size_t>(Offset) - 1);
  return found == std::string_view::npos ? 0 : static_cast<int32_t>(found) + 1;
}

int32_t AnsiPosEx(const std::string& SubStr, const std::string& S, int32_t Offset) noexcept {
  return PosEx(SubStr, S, Offset);
}

std::string StrAddDelimited(const std::string& A, const std::string& Delimiter,
                            const std::string& B) {
  if (A.empty()) return B;
  return StrAddHead(A, Delimiter, B);
}

std::string StrAddHead(const std::string& A, const std::string& Delimiter, const std::string& B) {
  return B.empty() ? A : A + Delimiter + B;
}

std::string StrAddTail(const std::string& A, const std::string& Delimiter, const std::string& B) {
  return A.empty() ? B : A + Delimiter + B;
}

bool StrBeginWith(const std::string& S, const std::string& Prefix) noexcept {
  return S.starts_with(Prefix);
}

bool StrBeginWithText(const std::string& S, const std::string& Prefix) noexcept {
  return S.size() >= Prefix.size() &&
         std::equal(Prefix.begin(), Prefix.end(), S.begin(),
                    [](char A, char B) { return LowerASCII(A) == LowerASCII(B); });
}

std::string StrDeleteChars(const std::string& S, char C) {
  return StrDeleteChars(S, TCharSet().set(Code(C)));
}

std::string StrDeleteChars(const std::string& S, const TCharSet& Chars) {
  std::string rest = S;
  std::erase_if(rest, [&Chars](char C) { return Chars[Code(C)]; });
  return rest;
}

std::string AnsiStrDeleteChars(const std::string& S, char C) { return StrDeleteChars(S, C); }

std::string AnsiStrDeleteChars(const std::string& S, const TCharSet& Chars) {
  return StrDeleteChars(S, Chars);
}

void StrGetToken(std::string& S, const std::string& Delimiter, std::string& Token) {
  tokens::Take(S, Delimiter, Token, &tokens::Find);
}

TStrings StrGetTokens(const std::string& S, const std::string& Delimiter, bool TrimTokens,
                      bool SkipEmpty) {
  return tokens::TakeAll(S, Delimiter, TrimTokens, SkipEmpty, &tokens::Find);
}

std::string Trim(const std::string& S) {
  const auto isText = [](char C) { return Code(C) > 32; };
  const auto first = std::find_if(S.begin(), S.end(), isText);
  const auto last = std::find_if(S.rbegin(), std::make_reverse_iterator(first), isText).base();
  return {first, last};
}

std::string StrPaddingLeft(const std::string& S, int32_t Len, char C) {
  const int64_t missing = Len - static_cast<int64_t>(S.size());
  return missing > 0 ? std::string(static_cast<size_t>(missing), C) + S : S;
}

std::string StrPaddingRight(const std::string& S, int32_t Len, char C) {
  const int64_t missing = Len - static_cast<int64_t>(S.size());
  return missing > 0 ? S + std::string(static_cast<size_t>(missing), C) : S;
}

std::string StrRemoveLeadingDelimiters(const std::string& S, const std::string& Delimiter) {
  return tokens::WithoutLeading(S, Delimiter, std::equal_to<>());
}

std::string StrRemoveTrailingDelimiters(const std::string& S, const std::string& Delimiter) {
  return tokens::WithoutTrailing(S, Delimiter, std::equal_to<>(),
                                 [](const std::string&, size_t) { return true; });
}

std::string StrReplace(const std::string& S, const std::string& OldPattern,
                       const std::string& NewPattern) {
  std::string result;
  size_t done = 0;
  while (const int32_t found = PosEx(OldPattern, S, static_cast<int32_t>(done) + 1)) {
    result.append(S, done, static_cast<size_t>(found) - 1 - done).append(NewPattern);
    done = static_cast<size_t>(found) - 1 + OldPattern.size();
  }
  return result.append(S, done);
}

std::string AnsiStrReplace(const std::string& S, const std::string& OldPattern,
                           const std::string& NewPattern) {
  return StrReplace(S, OldPattern, NewPattern);
}

std::string SetToStr(std::span<const std::string> Names, int32_t MaxOrd, const void* ASet,
                     bool Brackets) {
  RequireNames(Names, MaxOrd);
  return MembersToStr(ASet, MaxOrd, Brackets,
                      [Names](int32_t Member) { return Names[static_cast<size_t>(Member)]; });
}

std::string SetOrdToStr(int32_t MaxOrd, const void* ASet, bool Brackets) {
  RequireSet(MaxOrd);
  return MembersToStr(ASet, MaxOrd, Brackets,
                      [](int32_t Member) { return std::to_string(Member); });
}

void StrToSet(const std::string& S, std::span<const std::string> Names, int32_t MaxOrd,
              void* ASet) {
  RequireNames(Names, MaxOrd);
  auto* const bytes = static_cast<uint8_t*>(ASet);
  std::memset(bytes, 0, static_cast<size_t>(MaxOrd) / 8 + 1);
  if (S.size() < 2 || S.front() != '[' || S.back() != ']') return;
  for (const std::string& token : StrGetTokens(S.substr(1, S.size() - 2), ",", true, false)) {
    for (int32_t n = 0; n <= MaxOrd; ++n) {
      if (Names[static_cast<size_t>(n)] == token)
        bytes[n / 8] = static_cast<uint8_t>(bytes[n / 8] | 1 << n % 8);
    }
  }
}

int32_t PowerOfSet(const void* ASet, int32_t MaxOrd) {
  RequireSet(MaxOrd);
  int32_t count = 0;
  ForMembers(ASet, MaxOrd, [&count](int32_t) { ++count; });
  return count;
}

std::string MethodToString(const void* ACode, const TObject* AObject) {
  if (ACode == nullptr && AObject == nullptr) return "nil";
  return (AObject == nullptr ? std::string() : AObject->ClassName()) + "." + AddressToString(ACode);
}

std::string ProcedureToString(const void* P) { return P == nullptr ? "nil" : AddressToString(P); }

}  // namespace velox
