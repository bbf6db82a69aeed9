// What a user may name as they like though all headers are included: all.hpp is written by the
// script beside this.
#include "all.hpp"

#include <algorithm>
#include <string_view>

// What a name becomes when the preprocessor has seen it.
#define TEXT_OF(Name) #Name
#define SEEN_AS(Name) TEXT_OF(Name)
#define KEEPS_ITS_NAME(Name) static_assert(std::string_view(SEEN_AS(Name)) == #Name)

KEEPS_ITS_NAME(CreateEvent);
KEEPS_ITS_NAME(CreateProcess);
KEEPS_ITS_NAME(FindFirstFile);
KEEPS_ITS_NAME(FormatMessage);
KEEPS_ITS_NAME(GetClassName);
KEEPS_ITS_NAME(GetMessage);
KEEPS_ITS_NAME(GetObject);
KEEPS_ITS_NAME(SendMessage);
KEEPS_ITS_NAME(SetPort);

static_assert(std::min(1, 2) == 1 && std::max(1, 2) == 2);

struct TUser {
  int Yield() const { return 1; }
  int min() const { return Yield(); }
  int max() const { return min(); }
};

int main() { return TUser().max(); }
