#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStrings.hpp"

/// Helpers on strings of 8-bit characters: searching, joining, prefixes, deleting, tokens, padding,
/// delimiters, replacing, and sets as text.
///
/// Most come in pairs. The plain form compares bytes. The form with "Ansi" in its name follows the
/// system's locale and its code page: searches don't match the second half of a double-byte
/// character, and comparisons take characters as equal which the locale does. Where nothing can
/// differ, the Ansi form is the plain one by another name, for the sake of callers that write all
/// their text handling in one style.
///
/// Positions are 1-based, and 0 means not found. All functions may be called by any thread.
namespace velox {

// ------------------------------------------------------------------------- searching and joining

/// The position of SubStr in S at or after Offset. 0 also when either is empty, and when Offset
/// lies outside S. Nothing behind the first zero byte of S is found.
VELOX_API int32_t PosEx(const std::string& SubStr, const std::string& S, int32_t Offset) noexcept;
VELOX_API int32_t AnsiPosEx(const std::string& SubStr, const std::string& S,
                            int32_t Offset) noexcept;

/// A + Delimiter + B when both are non-empty, else the one that is.
VELOX_API std::string StrAddDelimited(const std::string& A, const std::string& Delimiter,
                                      const std::string& B);

/// A + Delimiter + B when B is non-empty, even if A is empty; else A.
VELOX_API std::string StrAddHead(const std::string& A, const std::string& Delimiter,
                                 const std::string& B);

/// A + Delimiter + B when A is non-empty, even if B is empty; else B. Builds lists whose items may
/// be empty.
VELOX_API std::string StrAddTail(const std::string& A, const std::string& Delimiter,
                                 const std::string& B);

// -------------------------------------------------------------------------------------- prefixes
// As many characters of S as Prefix has are compared with Prefix. An empty one always matches.

/// Byte by byte.
VELOX_API bool StrBeginWith(const std::string& S, const std::string& Prefix) noexcept;
/// By the locale's rule, which tells capitals from small letters.
VELOX_API bool AnsiStrBeginWith(const std::string& S, const std::string& Prefix);
/// The letters A to Z match their small ones; all other bytes only themselves.
VELOX_API bool StrBeginWithText(const std::string& S, const std::string& Prefix) noexcept;
/// By the locale's rule, with capitals and small letters equal.
VELOX_API bool AnsiStrBeginWithText(const std::string& S, const std::string& Prefix);
/// Whether A and B are the same but for the case of the letters A to Z.
inline bool StrEqualText(const std::string& A, const std::string& B) noexcept {
  return A.size() == B.size() && StrBeginWithText(A, B);
}

// --------------------------------------------------------------------------- deleting characters

/// S without C, or without the characters of a set.
VELOX_API std::string StrDeleteChars(const std::string& S, char C);
VELOX_API std::string StrDeleteChars(const std::string& S, const TCharSet& Chars);
VELOX_API std::string AnsiStrDeleteChars(const std::string& S, char C);
VELOX_API std::string AnsiStrDeleteChars(const std::string& S, const TCharSet& Chars);

// ---------------------------------------------------------------------------------------- tokens

/// Takes the text before the first Delimiter from S, the delimiter too, and gives it as Token.
/// Without a delimiter in S the token is all of S. An empty Delimiter is never found.
VELOX_API void StrGetToken(std::string& S, const std::string& Delimiter, std::string& Token);
VELOX_API void AnsiStrGetToken(std::string& S, const std::string& Delimiter, std::string& Token);

/// All tokens of S. A delimiter at the end is followed by an empty token; an empty S has none.
/// TrimTokens strips blanks and control characters from both ends of each; SkipEmpty then drops
/// the empty ones.
VELOX_API TStrings StrGetTokens(const std::string& S, const std::string& Delimiter, bool TrimTokens,
                                bool SkipEmpty);
VELOX_API TStrings AnsiStrGetTokens(const std::string& S, const std::string& Delimiter,
                                    bool TrimTokens, bool SkipEmpty);

/// S without the blanks and control characters (codes up to 32) at its ends.
VELOX_API std::string Trim(const std::string& S);

// -------------------------------------------------------------------------------------- padding

/// S with as many C in front, or behind, as it takes to be Len characters long. A longer S stays
/// as it is.
VELOX_API std::string StrPaddingLeft(const std::string& S, int32_t Len, char C);
VELOX_API std::string StrPaddingRight(const std::string& S, int32_t Len, char C);

// -------------------------------------------------------------------------------------- delimiters

/// S without the whole delimiters that it begins, or ends, with. An empty Delimiter changes
/// nothing.
VELOX_API std::string StrRemoveLeadingDelimiters(const std::string& S,
                                                 const std::string& Delimiter);
VELOX_API std::string StrRemoveTrailingDelimiters(const std::string& S,
                                                  const std::string& Delimiter);
/// The same, where what the locale takes as equal to Delimiter (and is as long) is one.
VELOX_API std::string AnsiStrRemoveLeadingDelimiters(const std::string& S,
                                                     const std::string& Delimiter);
VELOX_API std::string AnsiStrRemoveTrailingDelimiters(const std::string& S,
                                                      const std::string& Delimiter);

// ------------------------------------------------------------------------------------- replacing

/// S with NewPattern in place of each OldPattern, found from left to right by PosEx; what has been
/// put in is not searched again. An empty OldPattern changes nothing.
VELOX_API std::string StrReplace(const std::string& S, const std::string& OldPattern,
                                 const std::string& NewPattern);
VELOX_API std::string AnsiStrReplace(const std::string& S, const std::string& OldPattern,
                                     const std::string& NewPattern);

// ------------------------------------------------------------------------------------------ sets
// A set is given as its bits: member n is bit n % 8 of byte n / 8, and MaxOrd (0 to 255) is the
// highest member there can be, so that it has MaxOrd / 8 + 1 bytes. Names has a name for each
// ordinal up to MaxOrd. All raise Exception "Incorrect parameters" for another MaxOrd or for fewer
// names.

/// The members' names in the order of their ordinals, such as "[Red, Blue]" or, without Brackets,
/// "Red, Blue".
VELOX_API std::string SetToStr(std::span<const std::string> Names, int32_t MaxOrd, const void* ASet,
                               bool Brackets);

/// The members' ordinals in decimal, such as "[0, 3, 5]".
VELOX_API std::string SetOrdToStr(int32_t MaxOrd, const void* ASet, bool Brackets);

/// Sets ASet to the members that S names, separated by commas, between brackets. Names are compared
/// byte by byte once blanks around them are gone; a name that several ordinals share sets them all;
/// unknown ones are ignored. Text without the brackets gives the empty set.
VELOX_API void StrToSet(const std::string& S, std::span<const std::string> Names, int32_t MaxOrd,
                        void* ASet);

/// How many members a set has.
VELOX_API int32_t PowerOfSet(const void* ASet, int32_t MaxOrd);

// ----------------------------------------------------------------------------------- diagnostics

/// "nil" when both are null, else the name of AObject's class (nothing for null), a point and the
/// address of the code in hexadecimal, at least 8 digits.
VELOX_API std::string MethodToString(const void* ACode, const TObject* AObject);

/// The same of a bound method. It must be bound to an object of a class that has TObject as its
/// first base, or to none.
template <class Signature>
std::string MethodToString(const TMethod<Signature>& Method) {
  return MethodToString(reinterpret_cast<const void*>(Method.Code()),
                        static_cast<const TObject*>(Method.Object()));
}

/// "nil" for null, else the address in hexadecimal, at least 8 digits.
VELOX_API std::string ProcedureToString(const void* P);

}  // namespace velox
