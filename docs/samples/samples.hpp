#pragma once

#include <cstdio>
#include <cstdlib>

/// The pages of the documentation show pieces of these sources, and so do the headers
/// (header_*.cpp). The program made of them runs each sample, and ends with exit code 1 when one
/// does not do what its page says.
namespace samples {

void RunThreads();
void RunCalls();
void RunTasks();
void RunReactions();
void RunChannels();
void RunServer();
void RunContainers();
void RunCodecs();
void RunErrors();
void RunSecurity();
void RunInstaller();
void RunThreadsOfHeaders();
void RunDataOfHeaders();
void RunSystemOfHeaders();

/// Ends the program when a sample went wrong.
inline void Expect(bool Condition, const char* What) {
  if (Condition) return;
  std::fprintf(stderr, "samples: %s\n", What);
  std::exit(1);
}

}  // namespace samples
