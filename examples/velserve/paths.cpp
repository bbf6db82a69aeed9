#include <algorithm>
#include <array>
#include <utility>

#include "http.hpp"
#include "text.hpp"

namespace velserve {
namespace {

int DigitOf(char C) {
  if (C >= '0' && C <= '9') return C - '0';
  const char l = Lower(C);
  return l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
}

std::optional<std::string> Decode(std::string_view Text) {
  std::string decoded;
  for (size_t i = 0; i < Text.size(); ++i) {
    if (Text[i] != '%') {
      decoded += Text[i];
      continue;
    }
    if (i + 2 >= Text.size()) return std::nullopt;
    const int high = DigitOf(Text[i + 1]), low = DigitOf(Text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

// Names that open a device, in any folder and with any extension.
bool IsDevice(std::string_view Segment) {
  std::string_view base = Segment.substr(0, Segment.find('.'));
  while (!base.empty() && base.back() == ' ') base.remove_suffix(1);
  for (const std::string_view name : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$", "CLOCK$"})
    if (EqualIgnoringCase(base, name)) return true;
  const std::string_view kind = base.substr(0, 3),
                         number = base.substr(std::min<size_t>(3, base.size()));
  if (!EqualIgnoringCase(kind, "COM") && !EqualIgnoringCase(kind, "LPT")) return false;
  // The superscripts one, two and three count as digits, too.
  return (number.size() == 1 && number[0] >= '0' && number[0] <= '9') || number == "\xC2\xB9" ||
         number == "\xC2\xB2" || number == "\xC2\xB3";
}

// Whether Windows takes the name of a file or folder as it stands.
bool IsPlainName(std::string_view Segment) {
  return !Segment.empty() && Segment.back() != '.' && Segment.back() != ' ' &&
         Segment.find_first_of("\\:*?\"<>|") == Segment.npos && !IsDevice(Segment);
}

}  // namespace

TPath PathOf(std::string_view Target) {
  // A proxy's form names the host as well.
  if (EqualIgnoringCase(Target.substr(0, 7), "http://")) {
    Target.remove_prefix(7);
    Target.remove_prefix(std::min(Target.find('/'), Target.size()));
    if (Target.empty()) Target = "/";
  }
  if (Target.empty() || Target[0] != '/') return {.BadTarget = true};
  const std::optional<std::string> decoded =
      Decode(Target.substr(1, Target.find_first_of("?#") - 1));
  if (!decoded) return {.BadTarget = true};
  if (std::any_of(decoded->begin(), decoded->end(), [](char c) { return c >= 0 && c < 32; }))
    return {.BadTarget = true};
  std::string name;
  for (std::string_view rest = *decoded; !rest.empty();) {
    const size_t slash = rest.find('/');
    const std::string_view segment = rest.substr(0, slash);
    if (!IsPlainName(segment)) return {};
    name += segment;
    if (slash == rest.npos) break;
    name += '\\';
    rest.remove_prefix(slash + 1);
  }
  return {.Name = std::move(name)};
}

std::string_view ContentTypeOf(std::string_view FileName) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 18> types{{
      {"html", "text/html; charset=utf-8"},
      {"htm", "text/html; charset=utf-8"},
      {"txt", "text/plain; charset=utf-8"},
      {"css", "text/css; charset=utf-8"},
      {"js", "text/javascript"},
      {"json", "application/json"},
      {"xml", "application/xml"},
      {"csv", "text/csv; charset=utf-8"},
      {"png", "image/png"},
      {"jpg", "image/jpeg"},
      {"jpeg", "image/jpeg"},
      {"gif", "image/gif"},
      {"svg", "image/svg+xml"},
      {"ico", "image/vnd.microsoft.icon"},
      {"pdf", "application/pdf"},
      {"zip", "application/zip"},
      {"wasm", "application/wasm"},
      {"md", "text/markdown; charset=utf-8"},
  }};
  const size_t dot = FileName.rfind('.');
  if (dot != FileName.npos)
    for (const auto& [extension, type] : types)
      if (EqualIgnoringCase(FileName.substr(dot + 1), extension)) return type;
  return "application/octet-stream";
}

std::string_view ReasonOf(int Status) {
  switch (Status) {
    case 200:
      return "OK";
    case 301:
      return "Moved Permanently";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 431:
      return "Request Header Fields Too Large";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Internal Server Error";
  }
}

}  // namespace velserve
