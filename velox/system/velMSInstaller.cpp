#include "velox/system/velMSInstaller.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSystemLibrary.hpp"

namespace velox {
namespace {

/// A function of msi.dll, which is loaded when one is first called.
template <class F>
class TFunction {
 public:
  constexpr explicit TFunction(const char* Name) noexcept : Function_("msi.dll", Name) {}

  /// Whether the system has it.
  explicit operator bool() const noexcept { return static_cast<bool>(Function_); }

  template <class... Args>
  auto operator()(Args... Arguments) const {
    if (!Function_) RaiseLastOSError();
    return Function_(Arguments...);
  }

 private:
  TSystemFunction<F> Function_;
};

#define VELOX_MSI(Name) const TFunction<decltype(&::Msi##Name)> Name("Msi" #Name)

/// The Installer's functions, without the "Msi" before their names.
namespace msi {

VELOX_MSI(CloseHandle);
VELOX_MSI(CreateRecord);
VELOX_MSI(DatabaseCommit);
VELOX_MSI(DatabaseIsTablePersistentA);
VELOX_MSI(DatabaseOpenViewA);
VELOX_MSI(DoActionA);
VELOX_MSI(EvaluateConditionA);
VELOX_MSI(FormatRecordA);
VELOX_MSI(GetActiveDatabase);
VELOX_MSI(GetComponentStateA);
VELOX_MSI(GetLanguage);
VELOX_MSI(GetMode);
VELOX_MSI(GetPropertyA);
VELOX_MSI(ProcessMessage);
VELOX_MSI(RecordClearData);
VELOX_MSI(RecordDataSize);
VELOX_MSI(RecordGetFieldCount);
VELOX_MSI(RecordGetInteger);
VELOX_MSI(RecordGetStringA);
VELOX_MSI(RecordIsNull);
VELOX_MSI(RecordReadStream);
VELOX_MSI(RecordSetInteger);
VELOX_MSI(RecordSetStreamA);
VELOX_MSI(RecordSetStringA);
VELOX_MSI(SetComponentStateA);
VELOX_MSI(SetMode);
VELOX_MSI(SetPropertyA);
VELOX_MSI(ViewClose);
VELOX_MSI(ViewExecute);
VELOX_MSI(ViewFetch);

}  // namespace msi

#undef VELOX_MSI

/// A text of unknown length. Read is called with a buffer and its size in characters, which it
/// replaces by the text's length without the zero at its end.
template <class F>
std::string ReadText(const F& Read) {
  char none[1] = "";
  DWORD length = 0;
  UINT code = Read(none, &length);
  if (code != ERROR_MORE_DATA) {
    CheckOSResult(code);
    return {};  // no room, and yet nothing was left out
  }
  std::string text(size_t{length} + 1, '\0');
  length = static_cast<DWORD>(text.size());
  code = Read(text.data(), &length);
  CheckOSResult(code);
  text.resize(std::min<size_t>(length, text.size()));
  return text;
}

/// Conditions and the existence of tables are told alike.
MSICONDITION CheckCondition(MSICONDITION Result) {
  if (Result == MSICONDITION_ERROR) CheckOSResult(ERROR_FUNCTION_FAILED);
  return Result;
}

/// The size of the record for a message with these strings from field 1 on.
int32_t MessageFieldCount(const TStrings& Strings) {
  return std::max(1, static_cast<int32_t>(Strings.size()));
}

}  // namespace

EMSICaUserExit::~EMSICaUserExit() = default;
EMSICaInstallSuspended::~EMSICaInstallSuspended() = default;

TMSIHandle::~TMSIHandle() {
  if (Handle_ != 0 && msi::CloseHandle) msi::CloseHandle(Handle_);
}

// ------------------------------------------------------------------------------ records and fields

TMSIField::~TMSIField() = default;

int32_t TMSIField::GetAsInteger() const {
  return msi::RecordGetInteger(Record_.GetHandle(), static_cast<UINT>(Index_));
}

std::string TMSIField::GetAsString() const {
  return ReadText([this](char* Buffer, DWORD* Size) {
    return msi::RecordGetStringA(Record_.GetHandle(), static_cast<UINT>(Index_), Buffer, Size);
  });
}

int32_t TMSIField::GetDataSize() const {
  return static_cast<int32_t>(msi::RecordDataSize(Record_.GetHandle(), static_cast<UINT>(Index_)));
}

bool TMSIField::GetIsNull() const {
  return msi::RecordIsNull(Record_.GetHandle(), static_cast<UINT>(Index_)) != FALSE;
}

int32_t TMSIField::ReadStream(void* Buffer, int32_t Size) {
  // Without a buffer, the Installer would tell how much is left.
  char none = 0;
  if (Size < 0 || (Buffer == nullptr && Size > 0)) throw Exception(messages::seIncorrectParameters);
  if (Buffer == nullptr) Buffer = &none;
  auto size = static_cast<DWORD>(Size);
  CheckOSResult(msi::RecordReadStream(Record_.GetHandle(), static_cast<UINT>(Index_),
                                      static_cast<char*>(Buffer), &size));
  return static_cast<int32_t>(size);
}

void TMSIField::SetAsInteger(int32_t Value) {
  CheckOSResult(msi::RecordSetInteger(Record_.GetHandle(), static_cast<UINT>(Index_), Value));
}

void TMSIField::SetAsString(const std::string& Value) {
  CheckOSResult(
      msi::RecordSetStringA(Record_.GetHandle(), static_cast<UINT>(Index_), Value.c_str()));
}

void TMSIField::SetStream(const std::string& FileName) {
  CheckOSResult(
      msi::RecordSetStreamA(Record_.GetHandle(), static_cast<UINT>(Index_), FileName.c_str()));
}

TMSIRecord::TMSIRecord(int32_t FieldCount)
    : Handle_(msi::CreateRecord(static_cast<UINT>(FieldCount))) {
  if (Handle_.Get() == 0) RaiseLastOSErrorEx(ERROR_FUNCTION_FAILED);  // it tells no code
}
TMSIRecord::TMSIRecord(TMSIHandle&& Handle) noexcept : Handle_(std::move(Handle)) {}
TMSIRecord::~TMSIRecord() = default;

void TMSIRecord::Clear() { CheckOSResult(msi::RecordClearData(GetHandle())); }

int32_t TMSIRecord::GetFieldCount() const {
  return static_cast<int32_t>(msi::RecordGetFieldCount(GetHandle()));
}

TMSIField& TMSIRecord::GetField(int32_t Index) {
  std::unique_ptr<TMSIField>& field = Fields_[Index];
  if (field == nullptr) field = std::make_unique<TMSIField>(*this, Index);
  return *field;
}

void TMSIRecord::SetFieldValues(int32_t First, const TStrings& Strings) {
  for (const std::string& value : Strings) GetField(First++).SetAsString(value);
}

std::string TMSIRecord::Format(const TMSIInstaller& Installer) const {
  return ReadText([&](char* Buffer, DWORD* Size) {
    return msi::FormatRecordA(Installer.GetHandle(), GetHandle(), Buffer, Size);
  });
}

// ------------------------------------------------------------------------------------------ tables

TMSIDatabase::TMSIDatabase(MSIHANDLE Handle) noexcept : Handle_(Handle) {}
TMSIDatabase::~TMSIDatabase() = default;

void TMSIDatabase::Commit() { CheckOSResult(msi::DatabaseCommit(GetHandle())); }

TMSITableExistence TMSIDatabase::GetTableExistence(const std::string& TableName) const {
  switch (CheckCondition(msi::DatabaseIsTablePersistentA(GetHandle(), TableName.c_str()))) {
    case MSICONDITION_TRUE:
      return TMSITableExistence::msiTablePersistent;
    case MSICONDITION_FALSE:
      return TMSITableExistence::msiTableTemporary;
    default:
      return TMSITableExistence::msiTableAbsent;
  }
}

namespace {

/// Whether a statement of the Installer's SQL makes rows.
bool IsSelect(const std::string& Query) {
  constexpr std::string_view word = "SELECT";
  const size_t start = std::min(Query.find_first_not_of(" \t\r\n"), Query.size());
  return ::_strnicmp(Query.c_str() + start, word.data(), word.size()) == 0;
}

}  // namespace

TMSIView::TMSIView(TMSIDatabase& Database, const std::string& Query) : HasRows_(IsSelect(Query)) {
  CheckOSResult(msi::DatabaseOpenViewA(Database.GetHandle(), Query.c_str(), Handle_.Receive()));
}
TMSIView::~TMSIView() = default;

void TMSIView::Open(const TMSIRecord* Parameters) {
  if (Opened_) throw Exception(messages::seViewIsOpenedAlready);
  CheckOSResult(msi::ViewExecute(GetHandle(), Parameters == nullptr ? 0 : Parameters->GetHandle()));
  Opened_ = true;
  Eof_ = false;
  Next();
}

void TMSIView::Next() {
  if (!Opened_) throw Exception(messages::seViewIsNotOpened);
  Record_.reset();
  if (Eof_) return;  // some Installers would begin again
  TMSIHandle row;
  // What the Installer does when asked for a row of another statement differs by its version: it
  // tells the end or a failure, gives some row of the table, or crashes.
  const UINT code =
      HasRows_ ? msi::ViewFetch(GetHandle(), row.Receive()) : UINT{ERROR_NO_MORE_ITEMS};
  Eof_ = code == ERROR_NO_MORE_ITEMS;
  if (Eof_) return;
  CheckOSResult(code);
  Record_ = std::make_unique<TMSIRecord>(std::move(row));
}

void TMSIView::Close() {
  if (!Opened_) return;
  CheckOSResult(msi::ViewClose(GetHandle()));
  Opened_ = false;
}

// ----------------------------------------------------------------------------------------- session

TMSIInstaller::TMSIInstaller(MSIHANDLE Handle) noexcept : Handle_(Handle) {}
TMSIInstaller::~TMSIInstaller() = default;

TMSIDatabase& TMSIInstaller::GetActiveDatabase() {
  if (ActiveDatabase_ == nullptr) {
    TMSIHandle handle(msi::GetActiveDatabase(Handle_));
    if (handle.Get() == 0) RaiseLastOSErrorEx(ERROR_INVALID_HANDLE);  // it tells no code
    ActiveDatabase_ = std::make_unique<TMSIDatabase>(handle.Get());
    handle.Release();
  }
  return *ActiveDatabase_;
}

bool TMSIInstaller::GetMode(MSIRUNMODE Mode) const { return msi::GetMode(Handle_, Mode) != FALSE; }
void TMSIInstaller::SetMode(MSIRUNMODE Mode, bool Value) {
  CheckOSResult(msi::SetMode(Handle_, Mode, BOOL{Value}));
}

bool TMSIInstaller::GetAdministrative() const { return GetMode(MSIRUNMODE_ADMIN); }
bool TMSIInstaller::GetAdvertise() const { return GetMode(MSIRUNMODE_ADVERTISE); }
bool TMSIInstaller::GetMaintenance() const { return GetMode(MSIRUNMODE_MAINTENANCE); }
bool TMSIInstaller::GetRollbackEnabled() const { return GetMode(MSIRUNMODE_ROLLBACKENABLED); }
bool TMSIInstaller::GetLogEnabled() const { return GetMode(MSIRUNMODE_LOGENABLED); }
bool TMSIInstaller::GetOperationsSpooling() const { return GetMode(MSIRUNMODE_OPERATIONS); }
bool TMSIInstaller::GetRebootAtEnd() const { return GetMode(MSIRUNMODE_REBOOTATEND); }
bool TMSIInstaller::GetRebootNow() const { return GetMode(MSIRUNMODE_REBOOTNOW); }
bool TMSIInstaller::GetCabinetInstalling() const { return GetMode(MSIRUNMODE_CABINET); }
bool TMSIInstaller::GetSourceShortNames() const { return GetMode(MSIRUNMODE_SOURCESHORTNAMES); }
bool TMSIInstaller::GetTargetShortNames() const { return GetMode(MSIRUNMODE_TARGETSHORTNAMES); }
bool TMSIInstaller::GetWindows9X() const { return GetMode(MSIRUNMODE_WINDOWS9X); }
bool TMSIInstaller::GetOnDemandSupported() const { return GetMode(MSIRUNMODE_ZAWENABLED); }
bool TMSIInstaller::GetActionScheduled() const { return GetMode(MSIRUNMODE_SCHEDULED); }
bool TMSIInstaller::GetActionRollback() const { return GetMode(MSIRUNMODE_ROLLBACK); }
bool TMSIInstaller::GetActionCommit() const { return GetMode(MSIRUNMODE_COMMIT); }
void TMSIInstaller::SetRebootAtEnd(bool Value) { SetMode(MSIRUNMODE_REBOOTATEND, Value); }
void TMSIInstaller::SetRebootNow(bool Value) { SetMode(MSIRUNMODE_REBOOTNOW, Value); }

std::string TMSIInstaller::GetPropertyValue(const std::string& Name) const {
  return ReadText([&](char* Buffer, DWORD* Size) {
    return msi::GetPropertyA(Handle_, Name.c_str(), Buffer, Size);
  });
}

void TMSIInstaller::SetPropertyValue(const std::string& Name, const std::string& Value) {
  CheckOSResult(msi::SetPropertyA(Handle_, Name.c_str(), Value.c_str()));
}

void TMSIInstaller::DoAction(const std::string& Name) {
  const UINT code = msi::DoActionA(Handle_, Name.c_str());
  if (code == ERROR_INSTALL_USEREXIT) throw EMSICaUserExit("MsiDoAction");
  if (code == ERROR_INSTALL_SUSPEND) throw EMSICaInstallSuspended("MsiDoAction");
  CheckOSResult(code);
}

void TMSIInstaller::ScheduleCustomAction(const std::string& Action, const std::string& Data) {
  SetPropertyValue(Action, Data);
  DoAction(Action);
  SetPropertyValue(Action, "");
}

bool TMSIInstaller::EvaluateCondition(const std::string& Text) const {
  return CheckCondition(msi::EvaluateConditionA(Handle_, Text.c_str())) == MSICONDITION_TRUE;
}

std::string TMSIInstaller::Eval(const std::string& Text) const {
  if (Text.empty()) return Text;
  TMSIRecord record(1);
  record.GetField(0).SetAsString(Text);
  return record.Format(*this);
}

LANGID TMSIInstaller::GetLanguage() const {
  const LANGID language = msi::GetLanguage(Handle_);
  if (language == ERROR_INVALID_HANDLE) CheckOSResult(ERROR_INVALID_HANDLE);
  return language;
}

bool TMSIInstaller::GetInstalling() const {
  return EvaluateCondition("(Not Installed) Or (Installed And (Not (REMOVE ~= \"ALL\")))");
}

// Components.

TMSIInstaller::TComponentStates TMSIInstaller::GetComponentStates(const std::string& Name) const {
  TComponentStates states{};
  CheckOSResult(
      msi::GetComponentStateA(Handle_, Name.c_str(), &states.Installed, &states.Requested));
  return states;
}

INSTALLSTATE TMSIInstaller::GetComponentInstalledState(const std::string& Name) const {
  return GetComponentStates(Name).Installed;
}

INSTALLSTATE TMSIInstaller::GetComponentState(const std::string& Name) const {
  return GetComponentStates(Name).Requested;
}

void TMSIInstaller::SetComponentState(const std::string& Name, INSTALLSTATE State) {
  CheckOSResult(msi::SetComponentStateA(Handle_, Name.c_str(), State));
}

namespace {

bool IsPresent(INSTALLSTATE State) noexcept {
  return State == INSTALLSTATE_LOCAL || State == INSTALLSTATE_SOURCE;
}

}  // namespace

bool TMSIInstaller::IsComponentInstalling(INSTALLSTATE Installed, INSTALLSTATE Requested) noexcept {
  return IsPresent(Requested) || (Requested == INSTALLSTATE_DEFAULT && IsPresent(Installed));
}

bool TMSIInstaller::IsComponentReinstalling(INSTALLSTATE Installed,
                                            INSTALLSTATE Requested) noexcept {
  return (IsPresent(Requested) || Requested == INSTALLSTATE_DEFAULT) && IsPresent(Installed);
}

bool TMSIInstaller::IsComponentUninstalling(INSTALLSTATE Installed,
                                            INSTALLSTATE Requested) noexcept {
  return (Requested == INSTALLSTATE_ADVERTISED || Requested == INSTALLSTATE_ABSENT) &&
         IsPresent(Installed);
}

TMSIComponentProcessingState TMSIInstaller::GetComponentProcessingState(
    INSTALLSTATE Installed, INSTALLSTATE Requested) noexcept {
  using enum TMSIComponentProcessingState;
  if (IsComponentInstalling(Installed, Requested)) return msiComponentInstalling;
  if (IsComponentReinstalling(Installed, Requested)) return msiComponentReinstalling;
  if (IsComponentUninstalling(Installed, Requested)) return msiComponentUninstalling;
  return msiComponentUnknown;
}

bool TMSIInstaller::IsComponentInstalling(const std::string& Name) const {
  const TComponentStates states = GetComponentStates(Name);
  return IsComponentInstalling(states.Installed, states.Requested);
}

bool TMSIInstaller::IsComponentReinstalling(const std::string& Name) const {
  const TComponentStates states = GetComponentStates(Name);
  return IsComponentReinstalling(states.Installed, states.Requested);
}

bool TMSIInstaller::IsComponentUninstalling(const std::string& Name) const {
  const TComponentStates states = GetComponentStates(Name);
  return IsComponentUninstalling(states.Installed, states.Requested);
}

TMSIComponentProcessingState TMSIInstaller::GetComponentProcessingState(
    const std::string& Name) const {
  const TComponentStates states = GetComponentStates(Name);
  return GetComponentProcessingState(states.Installed, states.Requested);
}

// Messages.

int32_t TMSIInstaller::ProcessMessage(uint32_t MessageType, const TMSIRecord& Record) {
  return msi::ProcessMessage(Handle_, static_cast<INSTALLMESSAGE>(MessageType), Record.GetHandle());
}

void TMSIInstaller::ActionDataMessage(const TStrings& Strings) {
  TMSIRecord record(MessageFieldCount(Strings));
  record.SetFieldValues(1, Strings);
  const int32_t reply = ProcessMessage(INSTALLMESSAGE_ACTIONDATA, record);
  if (reply == IDCANCEL || reply == IDABORT) throw EMSICaUserExit("MsiProcessMessage");
}

int32_t TMSIInstaller::LogMessage(const std::string& Template, const TStrings& Strings) {
  TMSIRecord record(MessageFieldCount(Strings));
  record.GetField(0).SetAsString(Template);
  record.SetFieldValues(1, Strings);
  return ProcessMessage(INSTALLMESSAGE_INFO, record);
}

int32_t TMSIInstaller::ShowErrorMessage(int32_t ErrorNumber, uint32_t MessageType,
                                        const TStrings& Strings) {
  TMSIRecord record(static_cast<int32_t>(Strings.size()) + 1);
  record.GetField(1).SetAsInteger(ErrorNumber);
  record.SetFieldValues(2, Strings);
  return ProcessMessage(INSTALLMESSAGE_ERROR | MessageType, record);
}

uint32_t TMSIInstaller::HandleException(const std::exception& AException, int32_t ErrorNumber,
                                        uint32_t MessageType, const TStrings& Strings) noexcept {
  if (dynamic_cast<const EMSICaUserExit*>(&AException) != nullptr) return ERROR_INSTALL_USEREXIT;
  if (dynamic_cast<const EMSICaInstallSuspended*>(&AException) != nullptr)
    return ERROR_INSTALL_SUSPEND;
  try {
    ShowErrorMessage(ErrorNumber, MessageType, Strings);
  } catch (...) {
    // The installation fails anyway, and it is the frame of the Installer that called.
  }
  return ERROR_INSTALL_FAILURE;
}

}  // namespace velox
