#include <exception>

#include "docs/samples/samples.hpp"

int main() {
  try {
    samples::RunThreads();
    samples::RunCalls();
    samples::RunTasks();
    samples::RunReactions();
    samples::RunChannels();
    samples::RunServer();
    samples::RunContainers();
    samples::RunCodecs();
    samples::RunErrors();
    samples::RunSecurity();
    samples::RunInstaller();
    samples::RunThreadsOfHeaders();
    samples::RunDataOfHeaders();
    samples::RunSystemOfHeaders();
    std::puts("all samples went well");
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "samples: %s\n", e.what());
    return 1;
  }
}
