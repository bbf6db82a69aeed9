#include <algorithm>

#include "http.hpp"
#include "text.hpp"

namespace velserve {
namespace {

constexpr std::string_view Blanks = " \t";
constexpr std::string_view OldVersion = "HTTP/1.0";  // without Host, and closed unless asked

bool IsBlankOrControl(char C) { return static_cast<unsigned char>(C) <= ' ' || C == 127; }

// A token of RFC 9110, 5.6.2: methods and the names of fields.
bool IsToken(std::string_view Text) {
  constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return !Text.empty() && std::all_of(Text.begin(), Text.end(), [&](char c) {
    const char l = Lower(c);
    return (l >= 'a' && l <= 'z') || (c >= '0' && c <= '9') || marks.find(c) != marks.npos;
  });
}

std::string_view Trim(std::string_view Text) {
  const size_t first = Text.find_first_not_of(Blanks);
  if (first == Text.npos) return {};
  return Text.substr(first, Text.find_last_not_of(Blanks) - first + 1);
}

// Takes a line and its end, LF or CR LF, from the front.
std::optional<std::string_view> TakeLine(std::string_view& Text) {
  const size_t end = Text.find('\n');
  if (end == Text.npos) return std::nullopt;
  std::string_view line = Text.substr(0, end);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  Text.remove_prefix(end + 1);
  return line;
}

struct TFields {
  int Hosts = 0;
  bool Body = false;
  bool Close = false, KeepAlive = false;
};

bool ReadRequestLine(std::string_view Line, TRequest& Request, std::string_view& Version) {
  const size_t first = Line.find(' '), last = Line.rfind(' ');
  if (first == Line.npos || first == last) return false;
  const std::string_view target = Line.substr(first + 1, last - first - 1);
  Request.Method = Line.substr(0, first);
  Request.Target = target;
  Version = Line.substr(last + 1);
  return IsToken(Request.Method) && !target.empty() &&
         std::none_of(target.begin(), target.end(), IsBlankOrControl);
}

// What no name of a host, with or without a port, holds.
bool IsHost(std::string_view Text) {
  return std::none_of(Text.begin(), Text.end(), IsBlankOrControl) &&
         Text.find_first_of("/?#@\\<>\"{}|^`,") == Text.npos;
}

// "HTTP/" and two digits with a dot between them.
bool IsVersion(std::string_view Text) {
  const auto isDigit = [](char C) { return C >= '0' && C <= '9'; };
  return Text.size() == 8 && Text.substr(0, 5) == "HTTP/" && isDigit(Text[5]) && Text[6] == '.' &&
         isDigit(Text[7]);
}

bool ReadField(std::string_view Line, TFields& Fields) {
  const size_t colon = Line.find(':');
  if (colon == Line.npos || !IsToken(Line.substr(0, colon))) return false;
  const std::string_view name = Line.substr(0, colon);
  std::string_view value = Trim(Line.substr(colon + 1));
  if (std::any_of(value.begin(), value.end(), [](char c) { return c == '\0' || c == '\r'; }))
    return false;
  if (EqualIgnoringCase(name, "Host")) {
    if (!IsHost(value)) return false;
    ++Fields.Hosts;
  }
  if (EqualIgnoringCase(name, "Transfer-Encoding")) Fields.Body = true;
  if (EqualIgnoringCase(name, "Content-Length")) {
    if (value.empty() || value.find_first_not_of("0123456789") != value.npos) return false;
    if (value.find_first_not_of('0') != value.npos) Fields.Body = true;
  }
  if (!EqualIgnoringCase(name, "Connection")) return true;
  while (!value.empty()) {
    const size_t comma = std::min(value.find(','), value.size());
    const std::string_view option = Trim(value.substr(0, comma));
    Fields.Close |= EqualIgnoringCase(option, "close");
    Fields.KeepAlive |= EqualIgnoringCase(option, "keep-alive");
    value.remove_prefix(std::min(comma + 1, value.size()));
  }
  return true;
}

// The status that the complete head of a request leads to.
int Judge(const TRequest& Request, std::string_view Version, const TFields& Fields) {
  if (!IsVersion(Version)) return 400;
  if (Version[5] != '1') return 505;
  if (Fields.Hosts > 1 || (Fields.Hosts == 0 && Version != OldVersion)) return 400;
  if (Request.Method != "GET" && Request.Method != "HEAD") return 405;
  return Fields.Body ? 400 : 200;  // neither method has a use for a body
}

}  // namespace

TParsed ParseRequest(std::string_view Text) {
  TParsed parsed;
  std::string_view rest = Text, version;
  TFields fields;
  bool first = true;
  for (;;) {
    const std::optional<std::string_view> line = TakeLine(rest);
    parsed.Size = Text.size() - rest.size();
    if (parsed.Size > LongestHead || (!line && Text.size() > LongestHead)) {
      parsed.Status = 431;
      return parsed;
    }
    if (!line) return parsed;
    if (first && line->empty()) continue;
    if (line->empty()) break;
    if (first ? !ReadRequestLine(*line, parsed.Request, version) : !ReadField(*line, fields)) {
      parsed.Status = 400;
      return parsed;
    }
    first = false;
  }
  parsed.Status = Judge(parsed.Request, version, fields);
  parsed.Request.KeepAlive = !fields.Close && (version != OldVersion || fields.KeepAlive);
  return parsed;
}

}  // namespace velserve
