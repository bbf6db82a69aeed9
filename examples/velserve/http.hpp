#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// HTTP/1.1 as far as a server of files needs it (RFC 9110, RFC 9112). Text in, values out: no
/// socket and no file is touched here.
namespace velserve {

/// Longest request line with all header fields, in bytes.
constexpr size_t LongestHead = 8192;

struct TRequest {
  std::string Method;
  std::string Target;
  bool KeepAlive = true;
};

/// What stands at the front of the bytes received.
struct TParsed {
  /// 0: a request that is not complete yet. 200: a request. Else the status to answer with: 400,
  /// 405, 431 or 505; what follows on the connection can't be understood then.
  int Status = 0;
  size_t Size = 0;  // bytes of the request, with empty lines before it
  TRequest Request;
};
TParsed ParseRequest(std::string_view Text);

/// The path of a target, decoded and checked: relative, with backslashes, in UTF-8. It ends with a
/// backslash, or is empty, for a folder. Nothing for what can't be a file below a folder: "..",
/// drives, streams, devices, names that Windows would change. BadTarget tells 400 from 404.
struct TPath {
  bool BadTarget = false;
  std::optional<std::string> Name = std::nullopt;
};
TPath PathOf(std::string_view Target);

std::string_view ContentTypeOf(std::string_view FileName);
std::string_view ReasonOf(int Status);

}  // namespace velserve
