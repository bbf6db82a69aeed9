// What a user may name as they like though all headers are included: all.hpp is written by the
// script beside this.
#include "all.hpp"

#include <algorithm>
#include <string>

#if defined(min) || defined(max)
#error "A header defines min or max"
#endif

struct TUser {
  int GetMessage() const { return std::min(1, 2); }
  int SendMessage(int Value) const { return std::max(Value, GetMessage()); }
  std::string GetClassName() const { return "TUser"; }
  int GetObject() const { return std::clamp(GetMessage(), 0, 1); }
  int SetPort(int Port) { return GetObject() + Port; }
  int CreateEvent() { return SetPort(1); }
  int CreateMutex() { return CreateEvent(); }
  int CreateProcess() { return CreateMutex(); }
  int FindFirstFile() { return CreateProcess(); }
  int FormatMessage() { return FindFirstFile(); }
  int Yield() { return FormatMessage(); }
};

int main() { return TUser().Yield() == 2 && TUser().SendMessage(0) == 1 ? 0 : 1; }
