#include "substitution_tables.hpp"

#include <algorithm>
#include <cctype>
#include <vector>

#include "examples/support/whole_file.hpp"
#include "parameter_sets.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velStrings.hpp"

namespace substitution_tables {

using namespace velox;

namespace {

std::string LowerCase(std::string Text) {
  for (char& c : Text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return Text;
}

// The lines of a text, which end in LF or CR LF; the last one may lack its end.
TStrings SplitLines(const std::vector<uint8_t>& Text) {
  TStrings lines;
  for (auto next = Text.begin(); next != Text.end();) {
    const auto end = std::find(next, Text.end(), '\n');
    std::string& line = lines.emplace_back(next, end);
    if (line.ends_with('\r')) line.pop_back();
    next = end == Text.end() ? end : end + 1;
  }
  return lines;
}

bool ReadTableFile(const std::string& FileName, TGostSubstitutionTable& Table) {
  std::vector<uint8_t> text = example::ReadWholeFile(FileName);
  const TWiper textWiper(text.data(), text.size());
  TStrings lines = SplitLines(text);
  bool valid = lines.size() == Table.size();
  for (const std::string& line : lines) valid = valid && line.size() == Table[0].size();
  valid = valid && parameter_sets::ReadTable(lines, Table);
  for (std::string& line : lines) Wipe(line.data(), line.size());
  return valid;
}

}  // namespace

void Read(const std::string& NameOrFile, TGostSubstitutionTable& Table) {
  const std::string name = LowerCase(NameOrFile);
  const auto* set = std::find_if(std::begin(parameter_sets::All), std::end(parameter_sets::All),
                                 [&](const auto& each) { return name == each.Name; });
  const bool valid = set != std::end(parameter_sets::All)
                         ? parameter_sets::ReadTable(set->Lines, Table)
                         : ReadTableFile(NameOrFile, Table);
  if (!valid) {
    throw Exception(NameOrFile +
                    ": a table is 8 lines, each with the 16 hexadecimal digits in some order");
  }
}

}  // namespace substitution_tables
