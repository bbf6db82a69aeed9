// A user's source that needs both Windows' header and one of Velox's that does without: the script
// beside this has them included in each order that the manual allows.

#ifdef GetClassName
#error "velox::GetClassName has another name here than in velox.dll"
#endif

int main() {
  return velox::GetClassName(velox::TClass(), "none") == "none" && ::GetCurrentProcessId() != 0;
}
