#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/channels/velCommonChannel.hpp"
#include "velox/runtime/velException.hpp"

namespace velox::test {

/// An operation without a time limit, and its data.
template <class TOperation = TTransferOperation>
struct TTransfer : TOperation {
  TTransfer(TChannel& Channel, TOperationKind Kind, std::string AData) : Data(std::move(AData)) {
    this->SetChannel(&Channel);
    this->SetKind(Kind);
    this->SetBuffer(Data.data());
    this->SetSize(static_cast<int32_t>(Data.size()));
    this->SetAutoTimeout(false);
    this->SetOnTransferred(TOperationTransferEvent::Bind<&TTransfer::Moved>(this));
  }
  ~TTransfer() override { this->Close(); }
  bool Wait(uint32_t Limit = 30'000) {
    return WaitUntil([this] { return !this->GetActive(); }, Limit) && this->GetSucceeded();
  }
  bool Run() {
    this->SetActive(true);
    return Wait();
  }
  void Moved(TObject*, bool&) { Marks.push_back(this->GetTransferred()); }

  std::string Data;
  std::vector<int32_t> Marks;  // what was carried after each chunk
};

/// Eight threads make operations, of which some are cancelled, while a channel is switched off and
/// on.
template <class TMake>
void StressWhileSwitching(TChannel& Switched, int PerThread, const TMake& Make) {
  std::atomic<int> done = 0;
  std::vector<std::jthread> threads;
  for (uint32_t t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int i = 0; i < PerThread; ++i, ++done) {
        const auto transfer = Make(random);
        try {
          transfer->SetActive(true);
          if (random() % 4 == 0) WaitUntil([&] { return !transfer->GetActive(); }, 20);
          if (random() % 2 == 0) transfer->SetActive(false);
        } catch (const Exception& e) {
          EXPECT_STREQ(e.what(), "Channel is not active. Cannot perform operation.");
        }
      }
    });
  }
  while (done < 8 * PerThread) {
    Switched.SetActive(false);
    Switched.SetActive(true);
    ::Sleep(20);
  }
}

}  // namespace velox::test
