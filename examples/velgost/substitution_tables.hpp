#pragma once

#include <string>

#include "velox/codecs/velGostCryptor.hpp"
#include "velox/runtime/velWipe.hpp"

namespace substitution_tables {

/// Wipes borrowed memory, such as a key's, when it goes.
class TWiper {
 public:
  TWiper(void* Data, size_t Size) : Data_(Data), Size_(Size) {}
  ~TWiper() { velox::Wipe(Data_, Size_); }
  TWiper(const TWiper&) = delete;
  TWiper& operator=(const TWiper&) = delete;

 private:
  void* Data_;
  size_t Size_;
};

/// Reads a published table, by its name in any case, or that in a file of eight lines. Raises
/// Exception when the file is no table. No copy of the file's text is left in memory.
void Read(const std::string& NameOrFile, velox::TGostSubstitutionTable& Table);

}  // namespace substitution_tables
