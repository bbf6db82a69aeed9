// Reads and changes Windows Installer databases (.msi, .msm, .msp).
//
//     velmsi setup.msi query "SELECT `Value` FROM `Property` WHERE `Property` = 'ProductName'"

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "examples/support/standard_output.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"
#include "velox/system/velMSInstaller.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: velmsi FILE tables              the names of the tables, one a line\n"
    "       velmsi FILE export TABLE        the names of its columns, then its rows\n"
    "       velmsi FILE query SQL [TEXT...] the rows that a SELECT finds; FILE is not changed\n"
    "       velmsi FILE run SQL [TEXT...]   any other statement; FILE is changed\n"
    "       velmsi FILE create              a new database without tables; FILE must not exist\n"
    "Each ? in the SQL stands for one of the TEXTs, which may hold quotes, as literals can't.\n"
    "A row is a line, its values are separated by tabs. Within a value, \\t stands for a tab, \\n\n"
    "for a line feed, \\r for a carriage return and \\\\ for a backslash. An empty value is no "
    "value;\n"
    "binary data is shown as its size: [123 bytes].\n";

MSIHANDLE OpenDatabase(const std::string& FileName, const char* Mode) {
  MSIHANDLE handle = 0;
  UINT code = ::MsiOpenDatabaseA(FileName.c_str(), Mode, &handle);
  if (code == 0) return handle;
  // The Installer does not always tell that there is no such file to open.
  if (Mode != MSIDBOPEN_CREATE && ::GetFileAttributesA(FileName.c_str()) == INVALID_FILE_ATTRIBUTES)
    code = ::GetLastError();
  throw Exception("cannot open " + FileName + ": " + SystemErrorMessage(code));
}

std::string Escaped(const std::string& Value) {
  std::string text;
  for (const char c : Value) {
    switch (c) {
      case '\t':
        text += "\\t";
        break;
      case '\n':
        text += "\\n";
        break;
      case '\r':
        text += "\\r";
        break;
      case '\\':
        text += "\\\\";
        break;
      default:
        text += c;
    }
  }
  return text;
}

void Print(const TStrings& Values) {
  std::string line;
  for (size_t i = 0; i < Values.size(); ++i) line += (i == 0 ? "" : "\t") + Escaped(Values[i]);
  line += '\n';
  if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size())
    throw Exception("cannot write to the standard output");
}

/// The names of a view's columns, or their types: "V" and "v" begin those of binary data.
TStrings ColumnsOf(const TMSIView& View, MSICOLINFO What) {
  TMSIHandle handle;
  CheckOSResult(::MsiViewGetColumnInfo(View.GetHandle(), What, handle.Receive()));
  TMSIRecord record(std::move(handle));
  TStrings columns;
  for (int32_t i = 1; i <= record.GetFieldCount(); ++i)
    columns.push_back(record.GetField(i).GetAsString());
  return columns;
}

std::string ValueOf(const TMSIField& Field, const std::string& Type) {
  const bool binary = Type[0] == 'V' || Type[0] == 'v';
  if (!binary) return Field.GetAsString();
  return Field.GetIsNull() ? "" : Format("[%d bytes]", Field.GetDataSize());
}

void PrintRows(TMSIView& View, const TMSIRecord* Parameters) {
  const TStrings types = ColumnsOf(View, MSICOLINFO_TYPES);
  for (View.Open(Parameters); !View.GetEof(); View.Next()) {
    TStrings values;
    for (size_t i = 0; i < types.size(); ++i)
      values.push_back(ValueOf(View.GetRecord()->GetField(static_cast<int32_t>(i) + 1), types[i]));
    Print(values);
  }
}

/// A statement with the texts for its "?".
struct TStatement {
  explicit TStatement(const TStrings& Words)
      : Sql(Words.at(0)), Parameters(static_cast<int32_t>(Words.size()) - 1) {
    Parameters.SetFieldValues(1, TStrings(Words.begin() + 1, Words.end()));
  }

  std::string Sql;
  TMSIRecord Parameters;
};

void Query(const std::string& FileName, const TStatement& Statement) {
  TMSIDatabase database(OpenDatabase(FileName, MSIDBOPEN_READONLY));
  TMSIView view(database, Statement.Sql);
  if (!view.GetHasRows()) throw Exception("query takes a SELECT; other statements are for run");
  PrintRows(view, &Statement.Parameters);
}

void Export(const std::string& FileName, const std::string& Table) {
  TMSIDatabase database(OpenDatabase(FileName, MSIDBOPEN_READONLY));
  const bool isOfSystem = Table[0] == '_';  // such as _Columns, which no database lists
  if (Table.find('`') != std::string::npos ||
      (!isOfSystem && database.GetTableExistence(Table) == TMSITableExistence::msiTableAbsent)) {
    throw Exception("there is no table " + Table);
  }
  TMSIView view(database, "SELECT * FROM `" + Table + "`");
  Print(ColumnsOf(view, MSICOLINFO_NAMES));
  PrintRows(view, nullptr);
}

void Create(const std::string& FileName) {
  if (::GetFileAttributesA(FileName.c_str()) != INVALID_FILE_ATTRIBUTES)
    throw Exception(FileName + " exists already");
  TMSIDatabase(OpenDatabase(FileName, MSIDBOPEN_CREATE)).Commit();
}

void RunStatement(const std::string& FileName, const TStatement& Statement) {
  TMSIDatabase database(OpenDatabase(FileName, MSIDBOPEN_TRANSACT));
  TMSIView(database, Statement.Sql).Open(&Statement.Parameters);
  database.Commit();
}

/// Arguments: what follows the command.
void Perform(const std::string& File, const std::string& Command, const TStrings& Arguments) {
  const size_t count = Arguments.size();
  if (Command == "tables" && count == 0)
    return Query(File, TStatement({"SELECT `Name` FROM `_Tables`"}));
  if (Command == "export" && count == 1) return Export(File, Arguments[0]);
  if (Command == "query" && count > 0) return Query(File, TStatement(Arguments));
  if (Command == "run" && count > 0) return RunStatement(File, TStatement(Arguments));
  if (Command == "create" && count == 0) return Create(File);
  throw Exception("wrong arguments; see velmsi --help");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) return std::fputs(Usage, stdout) < 0;
  const TStrings words(argv + 1, argv + argc);
  if (words.size() < 2) throw Exception("a file and a command are needed; see velmsi --help");
  Perform(words[0], words[1], TStrings(words.begin() + 2, words.end()));
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velmsi: %s\n", e.what());
  return 1;
}
