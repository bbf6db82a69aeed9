#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStrings.hpp"
#include "velox/runtime/velWindowsServices.hpp"

/// The Windows Installer's databases, and the installation that a custom action takes part in.
///
/// A database tool opens a database with MsiOpenDatabaseA and hands the handle over:
///
///     TMSIDatabase database(handle);
///     TMSIView view(database, "SELECT `Property`, `Value` FROM `Property`");
///     for (view.Open(); !view.GetEof(); view.Next())
///       Print(view.GetRecord()->GetField(1).GetAsString());
///
/// A custom action is a function of a DLL. No exception may leave it, so it ends in
/// HandleException:
///
///     extern "C" __declspec(dllexport) UINT __stdcall CheckPort(MSIHANDLE Session) {
///       TMSIInstaller installer(Session);
///       try {
///         const std::string port = installer.GetPropertyValue("PORT");
///         const bool valid =
///             !port.empty() && port.find_first_not_of("0123456789") == std::string::npos;
///         installer.SetPropertyValue("PORTVALID", valid ? "1" : "");  // empty removes it
///         return ERROR_SUCCESS;
///       } catch (const std::exception& e) {
///         return installer.HandleException(e, 25001, MB_OK | MB_ICONERROR, {e.what()});
///       }
///     }
///
/// The package calls the function by the name that the DLL exports. In 32 bits GCC decorates it, to
/// CheckPort@4: link the DLL with -Wl,--kill-at, or give it a .def file that lists the plain names
/// under EXPORTS.
///
/// Each object owns its handle and closes it once, but for the session's, which is the Installer's.
/// The objects may be destroyed in any order. A call of the Installer that fails raises EOSError
/// with the Installer's code, and so does every call where msi.dll is missing; what else is raised
/// stands at the function. Indexes of fields count from 1; field 0 holds the template by which a
/// record is formatted.
///
/// Strings are in the ANSI code page and have any length; they end at their first zero character.
///
/// Threads: the Installer closes a handle only in the thread that made it. So an object is
/// destroyed in the thread in which it was made, or in which the handle was that it took over;
/// until then any thread may use it, one at a time. The session's handle is good in the thread that
/// the custom action was called in.
namespace velox {

class TMSIInstaller;
class TMSIRecord;

/// The user has cancelled the installation; the custom action returns 1602
/// (ERROR_INSTALL_USEREXIT). The message is the name of the call that told so.
VELOX_EXCEPTION(EMSICaUserExit, Exception);
/// The installation is suspended; the custom action returns 1604 (ERROR_INSTALL_SUSPEND). The
/// message is the name of the call that told so.
VELOX_EXCEPTION(EMSICaInstallSuspended, Exception);

/// What a database knows of a table's name. A temporary table stands in memory only.
enum class TMSITableExistence : uint8_t { msiTableAbsent, msiTablePersistent, msiTableTemporary };

/// What the installation does to a component.
enum class TMSIComponentProcessingState : uint8_t {
  msiComponentUnknown,
  msiComponentInstalling,
  msiComponentReinstalling,
  msiComponentUninstalling
};

/// Owns one of the Installer's handles and closes it.
class VELOX_API TMSIHandle {
 public:
  /// None.
  TMSIHandle() noexcept = default;
  /// Takes a handle over; 0 for none.
  explicit TMSIHandle(MSIHANDLE Handle) noexcept : Handle_(Handle) {}
  /// Takes over what the other one owns; that one gets what this one owned.
  TMSIHandle(TMSIHandle&& Other) noexcept : Handle_(std::exchange(Other.Handle_, 0)) {}
  TMSIHandle& operator=(TMSIHandle&& Other) noexcept {
    std::swap(Handle_, Other.Handle_);
    return *this;
  }
  ~TMSIHandle();

  /// 0 for none.
  MSIHANDLE Get() const noexcept { return Handle_; }
  /// Gives the handle to the caller.
  MSIHANDLE Release() noexcept { return std::exchange(Handle_, 0); }
  /// Where a call that makes a handle puts it, when there is none yet.
  MSIHANDLE* Receive() noexcept { return &Handle_; }

 private:
  MSIHANDLE Handle_ = 0;
};

// ------------------------------------------------------------------------------ records and fields

/// A view on one field of a record, which owns this object. A field that the record does not have
/// reads as null; setting it raises EOSError.
class VELOX_API TMSIField : public TObject {
 public:
  /// For TMSIRecord, which makes the fields.
  TMSIField(TMSIRecord& Record, int32_t Index) noexcept : Record_(Record), Index_(Index) {}
  ~TMSIField() override;

  /// The record, and the field's number in it.
  TMSIRecord& GetRecord() const noexcept { return Record_; }
  int32_t GetIndex() const noexcept { return Index_; }

  /// MSI_NULL_INTEGER for null, and for text that is no number.
  int32_t GetAsInteger() const;
  /// Empty for null; a number is given as its digits. Raises EOSError for a stream.
  std::string GetAsString() const;
  /// Of a string, the characters; of a number, 4; of a stream, its bytes; 0 for null.
  int32_t GetDataSize() const;
  bool GetIsNull() const;

  /// Reads the next bytes of a stream into a buffer of Size bytes, and returns how many it read: 0
  /// at the end of the stream. Raises Exception "Incorrect parameters" for a negative size and for
  /// bytes without a buffer, EOSError for a field that is no stream.
  int32_t ReadStream(void* Buffer, int32_t Size);

  /// Stores a number, or text. Raise EOSError.
  void SetAsInteger(int32_t Value);
  void SetAsString(const std::string& Value);
  /// Makes the content of a file the field's stream. The file is read now.
  void SetStream(const std::string& FileName);

 private:
  TMSIRecord& Record_;
  const int32_t Index_;
};

/// A record of the Installer: numbered fields that hold a number, text, a stream or nothing.
class VELOX_API TMSIRecord : public TObject {
 public:
  /// A new record, all of whose fields are null. Raises EOSError for a count that the Installer
  /// does not take (negative, above 65535).
  explicit TMSIRecord(int32_t FieldCount);
  /// Takes over a record's handle.
  explicit TMSIRecord(TMSIHandle&& Handle) noexcept;
  /// A bare handle is a number as a count is: put it into a TMSIHandle.
  explicit TMSIRecord(MSIHANDLE) = delete;
  ~TMSIRecord() override;

  /// The handle, which belongs to this object.
  MSIHANDLE GetHandle() const noexcept { return Handle_.Get(); }

  /// Makes all fields null.
  void Clear();
  /// The number of fields, without field 0.
  int32_t GetFieldCount() const;
  /// The field's object, which is made when first asked for and lives as long as the record.
  TMSIField& GetField(int32_t Index);

  /// Sets as many fields as there are strings, from field First on.
  void SetFieldValues(int32_t First, const TStrings& Strings);

  /// The text that the template in field 0 makes of the other fields, in the session: "[1]" stands
  /// for a field, "[NAME]" for a property.
  std::string Format(const TMSIInstaller& Installer) const;

 private:
  TMSIHandle Handle_;
  std::map<int32_t, std::unique_ptr<TMSIField>> Fields_;
};

// ------------------------------------------------------------------------------------------ tables

/// A database of the Installer.
class VELOX_API TMSIDatabase : public TObject {
 public:
  /// Takes over a database's handle.
  explicit TMSIDatabase(MSIHANDLE Handle) noexcept;
  ~TMSIDatabase() override;

  /// The handle, which belongs to this object.
  MSIHANDLE GetHandle() const noexcept { return Handle_.Get(); }

  /// Writes what was changed to the file. What is not committed is dropped with the database.
  void Commit();
  TMSITableExistence GetTableExistence(const std::string& TableName) const;

 private:
  TMSIHandle Handle_;
};

/// A query in the Installer's SQL, and its rows.
class VELOX_API TMSIView : public TObject {
 public:
  /// Raises EOSError for a query with a fault. Values are passed as parameters best: each "?" in
  /// the query stands for one, and no quote in them does harm.
  TMSIView(TMSIDatabase& Database, const std::string& Query);
  ~TMSIView() override;

  /// The handle, which belongs to this object.
  MSIHANDLE GetHandle() const noexcept { return Handle_.Get(); }
  /// The current row, which belongs to the view and lives until the next call of Next. Null when
  /// there is none.
  TMSIRecord* GetRecord() const noexcept { return Record_.get(); }
  /// Whether the query is a SELECT: other statements make no rows.
  bool GetHasRows() const noexcept { return HasRows_; }
  bool GetOpened() const noexcept { return Opened_; }
  /// Whether the rows are at their end.
  bool GetEof() const noexcept { return Eof_; }

  /// Runs the query, with the record's fields in place of its "?", and fetches the first row. A
  /// statement other than SELECT makes no rows and is at its end then. Raises Exception "Cannot
  /// open MSI View, because it is opened already.", and the current row stays.
  void Open(const TMSIRecord* Parameters = nullptr);
  /// Fetches the next row; behind the last one there is none, then and later, and GetEof() tells
  /// so. Raises Exception "MSI View is not opened".
  void Next();
  /// Ends the query, at whichever row; it can be opened again. Nothing when it is not opened. The
  /// current row stays.
  void Close();

 private:
  TMSIHandle Handle_;
  std::unique_ptr<TMSIRecord> Record_;
  const bool HasRows_;
  bool Opened_ = false;
  bool Eof_ = false;
};

// ----------------------------------------------------------------------------------------- session

/// The running installation, for a custom action. A deferred action (one that runs after the script
/// was made) may ask for the properties "CustomActionData", "ProductCode" and "UserSID", for the
/// three last run modes (GetActionScheduled, GetActionRollback, GetActionCommit) and the language,
/// and send messages; the rest is not there for it.
class VELOX_API TMSIInstaller : public TObject {
 public:
  /// The handle that the custom action was called with; it is borrowed.
  explicit TMSIInstaller(MSIHANDLE Handle) noexcept;
  ~TMSIInstaller() override;

  /// As given to the constructor.
  MSIHANDLE GetHandle() const noexcept { return Handle_; }
  /// The database of the package, as the installation sees it. It is opened at the first call and
  /// belongs to this object. Raises EOSError where there is none.
  TMSIDatabase& GetActiveDatabase();

  // Run modes.

  bool GetAdministrative() const;      ///< administrative installation
  bool GetAdvertise() const;           ///< advertisement
  bool GetMaintenance() const;         ///< maintenance: the product is there already
  bool GetRollbackEnabled() const;     ///< a failure can be rolled back
  bool GetLogEnabled() const;          ///< a log is written
  bool GetOperationsSpooling() const;  ///< operations are put into the script
  bool GetRebootAtEnd() const;         ///< a restart is needed at the end
  bool GetRebootNow() const;           ///< a restart is needed to go on
  bool GetCabinetInstalling() const;   ///< files come from cabinets
  bool GetSourceShortNames() const;    ///< the source has short file names
  bool GetTargetShortNames() const;    ///< the target has short file names
  bool GetWindows9X() const;           ///< Windows 95, 98 or ME
  bool GetOnDemandSupported() const;   ///< the system can install on demand
  bool GetActionScheduled() const;     ///< called from the script (deferred)
  bool GetActionRollback() const;      ///< called from the script of the rollback
  bool GetActionCommit() const;        ///< called from the script of the commit
  /// Asks for a restart at the end, or takes that back.
  void SetRebootAtEnd(bool Value);
  /// Asks for a restart before the installation goes on, or takes that back.
  void SetRebootNow(bool Value);

  // Properties, conditions and actions.

  /// Empty for a property that is not set.
  std::string GetPropertyValue(const std::string& Name) const;
  /// An empty value removes the property.
  void SetPropertyValue(const std::string& Name, const std::string& Value);

  /// Runs an action. Raises EMSICaUserExit when the user cancelled it, EMSICaInstallSuspended when
  /// it suspended the installation.
  void DoAction(const std::string& Name);
  /// Runs an action with data: while it runs, the property of its name holds Data. A deferred
  /// action finds it in "CustomActionData" later. Raises what DoAction raises.
  void ScheduleCustomAction(const std::string& Action, const std::string& Data);

  /// False for an empty condition, too. Raises EOSError with 1627 (ERROR_FUNCTION_FAILED) for one
  /// with a fault.
  bool EvaluateCondition(const std::string& Text) const;
  /// The text with its properties ("[NAME]") replaced.
  std::string Eval(const std::string& Text) const;
  LANGID GetLanguage() const;
  /// Whether the product is being installed or changed, rather than removed.
  bool GetInstalling() const;

  // Components, by their names in the table Component.

  /// The state it is in.
  INSTALLSTATE GetComponentInstalledState(const std::string& Name) const;
  /// The state it shall have.
  INSTALLSTATE GetComponentState(const std::string& Name) const;
  void SetComponentState(const std::string& Name, INSTALLSTATE State);

  /// Whether it is being brought in, brought in again over itself, or removed.
  bool IsComponentInstalling(const std::string& Name) const;
  bool IsComponentReinstalling(const std::string& Name) const;
  bool IsComponentUninstalling(const std::string& Name) const;
  /// The first of these three that holds: a component that is both installing and reinstalling is
  /// told to be installing.
  TMSIComponentProcessingState GetComponentProcessingState(const std::string& Name) const;

  // The same, decided from the two states.

  /// As the functions of these names above.
  static bool IsComponentInstalling(INSTALLSTATE Installed, INSTALLSTATE Requested) noexcept;
  static bool IsComponentReinstalling(INSTALLSTATE Installed, INSTALLSTATE Requested) noexcept;
  static bool IsComponentUninstalling(INSTALLSTATE Installed, INSTALLSTATE Requested) noexcept;
  static TMSIComponentProcessingState GetComponentProcessingState(INSTALLSTATE Installed,
                                                                  INSTALLSTATE Requested) noexcept;

  // Messages. Replies are those of message boxes (IDOK, IDCANCEL, …); 0 when nobody took the
  // message, -1 when it could not be sent.

  /// Tells what the current action is doing; the action's text in the table ActionText is the
  /// template. Raises EMSICaUserExit when the user cancels or aborts.
  void ActionDataMessage(const TStrings& Strings);
  /// Writes to the log. "[1]" in the template stands for the first of the strings.
  int32_t LogMessage(const std::string& Template, const TStrings& Strings);
  /// Shows an error of the table Error, with the strings in place of its "[2]", "[3]" and so on.
  /// MessageType: buttons and icon (MB_…).
  int32_t ShowErrorMessage(int32_t ErrorNumber, uint32_t MessageType, const TStrings& Strings);

  /// What a custom action returns when it ends with an exception: 1602 for EMSICaUserExit, 1604 for
  /// EMSICaInstallSuspended. For any other one it shows the error message and returns 1603
  /// (ERROR_INSTALL_FAILURE), also when the message can't be shown.
  uint32_t HandleException(const std::exception& AException, int32_t ErrorNumber,
                           uint32_t MessageType, const TStrings& Strings) noexcept;

 private:
  struct TComponentStates {
    INSTALLSTATE Installed, Requested;
  };

  bool GetMode(MSIRUNMODE Mode) const;
  void SetMode(MSIRUNMODE Mode, bool Value);
  TComponentStates GetComponentStates(const std::string& Name) const;
  int32_t ProcessMessage(uint32_t MessageType, const TMSIRecord& Record);

  const MSIHANDLE Handle_;
  std::unique_ptr<TMSIDatabase> ActiveDatabase_;
};

}  // namespace velox
