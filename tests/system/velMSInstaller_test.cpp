#include "velox/system/velMSInstaller.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "tests/msi/package.hpp"
#include "tests/support/support.hpp"
#include "velox/foundation/velSysUtils.hpp"

namespace velox {
namespace {

using enum TMSITableExistence;

// ------------------------------------------------------------------------------ records and fields

TEST(MSIRecord, KeepsTextsOfAnyLength) {
  TMSIRecord record(2);
  TMSIField& field = record.GetField(2);
  EXPECT_EQ(&field, &record.GetField(2));
  for (const size_t length : {0, 1, 254, 255, 256, 257, 4096, 100'000}) {
    const std::string text(length, 'x');
    field.SetAsString(text);
    EXPECT_TRUE(field.GetAsString() == text) << length;
    EXPECT_EQ(field.GetDataSize(), static_cast<int32_t>(length));
  }
  char umlauts[16] = "";
  ASSERT_GT(::WideCharToMultiByte(CP_ACP, 0, L"\u00E4\u00DF", -1, umlauts, sizeof umlauts, nullptr,
                                  nullptr),
            0);
  for (const std::string& text :
       TStrings{umlauts, "it's \"quoted\" `too`", "[1] {[2]} [NAME]", "a\r\nb\tc", "'"}) {
    field.SetAsString(text);
    EXPECT_EQ(field.GetAsString(), text);
  }
}

TEST(MSIRecord, HoldsNumbersTextsAndNothing) {
  TMSIRecord record(3);
  EXPECT_EQ(record.GetFieldCount(), 3);
  EXPECT_EQ(record.GetField(1).GetAsString(), "");
  EXPECT_EQ(record.GetField(1).GetAsInteger(), static_cast<int32_t>(MSI_NULL_INTEGER));
  record.GetField(1).SetAsInteger(-17);
  EXPECT_EQ(record.GetField(1).GetAsString(), "-17");
  EXPECT_EQ(record.GetField(1).GetDataSize(), 4);
  EXPECT_FALSE(record.GetField(1).GetIsNull());
  record.SetFieldValues(2, {"12", "text"});
  EXPECT_EQ(record.GetField(2).GetAsInteger(), 12);
  EXPECT_EQ(record.GetField(3).GetAsInteger(), static_cast<int32_t>(MSI_NULL_INTEGER));
  // There is no field 4, nor one with a negative index.
  EXPECT_THROW(record.SetFieldValues(3, {"a", "b"}), EOSError);
  EXPECT_EQ(record.GetField(3).GetAsString(), "a");
  EXPECT_TRUE(record.GetField(4).GetIsNull());
  EXPECT_THROW(record.GetField(-1).SetAsInteger(1), EOSError);
  record.Clear();
  EXPECT_TRUE(record.GetField(1).GetIsNull());
  EXPECT_THROW(TMSIRecord{int32_t{-1}}, EOSError);
}

TEST(MSIRecord, ReadsStreamsInPieces) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("stream"), bytes("a\0b\r\ncdefg", 10);
  test::WriteFileBytes(file, bytes);
  TMSIRecord record(2);
  TMSIField& field = record.GetField(1);
  EXPECT_THROW(field.SetStream(folder.File("none")), EOSError);
  field.SetStream(file);
  test::WriteFileBytes(file, "changed later");
  EXPECT_EQ(field.GetDataSize(), 10);
  std::string read;
  char piece[4];
  while (const int32_t size = field.ReadStream(piece, sizeof piece))
    read.append(piece, static_cast<size_t>(size));
  EXPECT_EQ(read, bytes);
  EXPECT_THROW(field.ReadStream(piece, -1), Exception);
  EXPECT_THROW(field.ReadStream(nullptr, 4), Exception);
  EXPECT_EQ(field.ReadStream(nullptr, 0), 0);
  record.GetField(2).SetAsString("no stream");
  EXPECT_THROW(record.GetField(2).ReadStream(piece, 4), EOSError);
}

// ------------------------------------------------------------------------------------------ tables

class MSIDatabase : public ::testing::Test {
 protected:
  MSIDatabase() : Database_(test::OpenDatabase(File_, MSIDBOPEN_CREATE)) {
    test::Run(Database_, "CREATE TABLE `T` (`K` SHORT NOT NULL, `V` LONGCHAR PRIMARY KEY `K`)");
    for (const char* row : {"1, 'one'", "2, 'two'", "3, 'three'"}) {
      test::Run(Database_, std::string("INSERT INTO `T` (`K`, `V`) VALUES (") + row + ")");
    }
  }

  const test::TTemporaryFolder Folder_;
  const std::string File_ = Folder_.File("t.msi");
  TMSIDatabase Database_;
};

TEST_F(MSIDatabase, ViewsGoThroughTheirRows) {
  TMSIView view(Database_, "SELECT `V` FROM `T` WHERE `K` > ?");
  EXPECT_EQ(test::MessageOf([&] { view.Next(); }), "MSI View is not opened");
  view.Close();
  TMSIRecord parameters(1);
  parameters.GetField(1).SetAsInteger(1);
  view.Open(&parameters);
  EXPECT_TRUE(view.GetOpened());
  EXPECT_FALSE(view.GetEof());
  TMSIRecord* const row = view.GetRecord();
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(test::MessageOf([&] { view.Open(&parameters); }),
            "Cannot open MSI View, because it is opened already.");
  EXPECT_EQ(view.GetRecord(), row);
  EXPECT_EQ(row->GetField(1).GetAsString(), "two");
  view.Next();
  EXPECT_EQ(view.GetRecord()->GetField(1).GetAsString(), "three");
  for (int i = 0; i < 2; ++i) {
    view.Next();
    EXPECT_TRUE(view.GetEof());
    EXPECT_EQ(view.GetRecord(), nullptr);
  }
  view.Close();
  EXPECT_FALSE(view.GetOpened());
  // Once more, and closed in the middle.
  view.Open(&parameters);
  EXPECT_EQ(view.GetRecord()->GetField(1).GetAsString(), "two");
  view.Close();
  EXPECT_EQ(test::MessageOf([&] { view.Next(); }), "MSI View is not opened");
  parameters.GetField(1).SetAsInteger(9);
  view.Open(&parameters);
  EXPECT_TRUE(view.GetEof());
}

TEST_F(MSIDatabase, RefusesFaultyQueries) {
  EXPECT_THROW(TMSIView(Database_, "SELEKT"), EOSError);
  EXPECT_THROW(test::Rows(Database_, "SELECT `V` FROM `None`"), EOSError);
  EXPECT_THROW(TMSIDatabase{MSIHANDLE{0}}.Commit(), EOSError);
  TMSIView twice(Database_, "INSERT INTO `T` (`K`) VALUES (1)");  // the key is there already
  EXPECT_THROW(twice.Open(), EOSError);
  EXPECT_FALSE(twice.GetOpened());
}

TEST_F(MSIDatabase, KnowsWhichQueriesHaveRows) {
  EXPECT_TRUE(TMSIView(Database_, " \t\nselect\t`K` FROM `T`").GetHasRows());
  EXPECT_FALSE(TMSIView(Database_, "DELETE FROM `T`").GetHasRows());
}

TEST_F(MSIDatabase, KnowsWhereTablesExist) {
  test::Run(Database_, "CREATE TABLE `M` (`K` SHORT NOT NULL TEMPORARY PRIMARY KEY `K`) HOLD");
  EXPECT_EQ(Database_.GetTableExistence("T"), msiTablePersistent);
  EXPECT_EQ(Database_.GetTableExistence("M"), msiTableTemporary);
  EXPECT_EQ(Database_.GetTableExistence("None"), msiTableAbsent);
  EXPECT_EQ(test::ErrorCodeOf([] { TMSIDatabase(MSIHANDLE{0}).GetTableExistence("T"); }), 1627);
}

TEST_F(MSIDatabase, KeepsWhatIsCommitted) {
  const std::string file = Folder_.File("kept.msi");
  {
    TMSIDatabase database(test::OpenDatabase(file, MSIDBOPEN_CREATE));
    test::Run(database, "CREATE TABLE `T` (`K` SHORT NOT NULL PRIMARY KEY `K`)");
    test::Run(database, "INSERT INTO `T` (`K`) VALUES (5)");
    database.Commit();
    test::Run(database, "INSERT INTO `T` (`K`) VALUES (6)");
  }
  TMSIDatabase database(test::OpenDatabase(file, MSIDBOPEN_READONLY));
  EXPECT_EQ(test::Rows(database, "SELECT `K` FROM `T`"), TStrings{"5"});
}

TEST_F(MSIDatabase, ClosesEachHandleOnceInAnyOrder) {
  ASSERT_NE(::MsiCloseAllHandles(), 0u);  // the fixture's own is closed with the rest
  for (const bool databaseFirst : {true, false}) {
    auto database = std::make_unique<TMSIDatabase>(test::OpenDatabase(File_, MSIDBOPEN_CREATE));
    test::Run(*database, "CREATE TABLE `T` (`K` SHORT NOT NULL PRIMARY KEY `K`)");
    test::Run(*database, "INSERT INTO `T` (`K`) VALUES (5)");
    auto view = std::make_unique<TMSIView>(*database, "SELECT `K` FROM `T`");
    view->Open();
    auto record = std::make_unique<TMSIRecord>(int32_t{2});
    if (databaseFirst) {
      database.reset();
      EXPECT_EQ(view->GetRecord()->GetField(1).GetAsInteger(), 5);
      view->Next();
      EXPECT_TRUE(view->GetEof());
    }
    record.reset();
    view.reset();
    database.reset();
    EXPECT_EQ(::MsiCloseAllHandles(), 0u)
        << "handles were left open, the database closed first: " << databaseFirst;
  }
}

// ----------------------------------------------------------------------------------------- session

TEST(MSIComponents, AreProcessedAsTheirStatesSay) {
  using enum TMSIComponentProcessingState;
  const struct {
    std::vector<int> Installed, Requested;
    bool Installing, Reinstalling, Uninstalling;
    TMSIComponentProcessingState State;
  } rows[] = {
      {{-1, 0, 1, 2, 5}, {3, 4}, true, false, false, msiComponentInstalling},
      {{3, 4}, {3, 4, 5}, true, true, false, msiComponentInstalling},
      {{3, 4}, {1, 2}, false, false, true, msiComponentUninstalling},
      {{-1, 0, 1, 2, 5}, {1, 2, 5}, false, false, false, msiComponentUnknown},
      {{-1, 0, 1, 2, 3, 4, 5}, {-1, 0, 6}, false, false, false, msiComponentUnknown},
  };
  for (const auto& row : rows) {
    for (const int a : row.Installed) {
      for (const int b : row.Requested) {
        const auto installed = static_cast<INSTALLSTATE>(a),
                   requested = static_cast<INSTALLSTATE>(b);
        EXPECT_EQ(TMSIInstaller::IsComponentInstalling(installed, requested), row.Installing);
        EXPECT_EQ(TMSIInstaller::IsComponentReinstalling(installed, requested), row.Reinstalling);
        EXPECT_EQ(TMSIInstaller::IsComponentUninstalling(installed, requested), row.Uninstalling);
        EXPECT_EQ(TMSIInstaller::GetComponentProcessingState(installed, requested), row.State)
            << a << " " << b;
      }
    }
  }
}

TEST(MSISession, ClosedHandlesAreToldWithTheirCode) {
  TMSIInstaller installer(0);
  EXPECT_EQ(test::ErrorCodeOf([&] { installer.GetLanguage(); }), 6);
  EXPECT_EQ(test::ErrorCodeOf([&] { installer.GetPropertyValue("A"); }), 6);
  EXPECT_EQ(test::ErrorCodeOf([&] { installer.GetActiveDatabase(); }), 6);
  EXPECT_EQ(test::ErrorCodeOf([&] { installer.EvaluateCondition("1"); }), 1627);
  EXPECT_THROW(installer.DoAction("A"), EOSError);
  EXPECT_EQ(installer.HandleException(EMSICaUserExit("a"), 1, 0, {}), 1602u);
  EXPECT_EQ(installer.HandleException(EMSICaInstallSuspended("a"), 1, 0, {}), 1604u);
  EXPECT_EQ(installer.HandleException(Exception("a"), 1, 0, {}), 1603u);
  // More fields than a record can have: the message fails, the result stays.
  EXPECT_EQ(installer.HandleException(std::bad_alloc(), 1, 0, TStrings(70'000, "x")), 1603u);
}

class MSIPackage : public ::testing::Test {
 protected:
  void SetUp() override {
    test::MakePackage(File_);
    ::MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
  }

  const test::TTemporaryFolder Folder_;
  const std::string File_ = Folder_.File("actions.msi");
};

// A session in this process, of the package that the Installer runs below.
class MSIOpenedPackage : public MSIPackage {
 protected:
  void SetUp() override {
    MSIPackage::SetUp();
    ASSERT_EQ(::MsiOpenPackageA(File_.c_str(), Handle_.Receive()), 0u);
    Installer_ = std::make_unique<TMSIInstaller>(Handle_.Get());
  }

  TMSIHandle Handle_;
  std::unique_ptr<TMSIInstaller> Installer_;
};

TEST_F(MSIOpenedPackage, HasPropertiesOfAnyLength) {
  for (const size_t length : {0, 1, 255, 256, 10'000}) {
    const std::string text(length, 'p');
    Installer_->SetPropertyValue("OURS", text);
    EXPECT_TRUE(Installer_->GetPropertyValue("OURS") == text) << length;
    EXPECT_TRUE(Installer_->Eval("<[OURS]>") == "<" + text + ">") << length;
  }
  EXPECT_EQ(Installer_->Eval(""), "");
  TMSIRecord record(2);
  record.GetField(0).SetAsString("[2] of [ProductName]: [1]");
  record.SetFieldValues(1, {"\"one\"", "it's"});
  EXPECT_EQ(record.Format(*Installer_), "it's of Velox actions: \"one\"");
}

TEST_F(MSIOpenedPackage, EvaluatesConditions) {
  EXPECT_TRUE(Installer_->EvaluateCondition("ProductName = \"Velox actions\""));
  EXPECT_FALSE(Installer_->EvaluateCondition("ProductName = \"Other\""));
  EXPECT_FALSE(Installer_->EvaluateCondition(""));
  EXPECT_EQ(test::ErrorCodeOf([&] { Installer_->EvaluateCondition("= ="); }), 1627);
  EXPECT_TRUE(Installer_->GetInstalling());
  Installer_->SetPropertyValue("Installed", "1");
  EXPECT_TRUE(Installer_->GetInstalling());
  Installer_->SetPropertyValue("REMOVE", "all");
  EXPECT_FALSE(Installer_->GetInstalling());
  EXPECT_EQ(Installer_->GetLanguage(), 1033);
}

TEST_F(MSIOpenedPackage, DecidesAboutComponents) {
  for (const char* action : {"CostInitialize", "FileCost", "CostFinalize"})
    Installer_->DoAction(action);
  EXPECT_EQ(Installer_->GetComponentInstalledState("Main"), INSTALLSTATE_ABSENT);
  EXPECT_FALSE(Installer_->IsComponentReinstalling("Main"));
  EXPECT_FALSE(Installer_->IsComponentUninstalling("Main"));
  Installer_->SetComponentState("Main", INSTALLSTATE_LOCAL);
  EXPECT_EQ(Installer_->GetComponentState("Main"), INSTALLSTATE_LOCAL);
  EXPECT_TRUE(Installer_->IsComponentInstalling("Main"));
  EXPECT_EQ(Installer_->GetComponentProcessingState("Main"),
            TMSIComponentProcessingState::msiComponentInstalling);
  EXPECT_THROW(Installer_->GetComponentState("None"), EOSError);
}

/// The user, who answers the messages of a kind while this object lives.
class TUser {
 public:
  TUser(int Kind, int AReply) : Reply(AReply), Kind_(static_cast<UINT>(Kind)) {
    ::MsiSetExternalUIA(&Answer, INSTALLLOGMODE_ACTIONDATA | INSTALLLOGMODE_ERROR, this);
  }
  ~TUser() { ::MsiSetExternalUIA(nullptr, 0, nullptr); }
  TUser(const TUser&) = delete;
  TUser& operator=(const TUser&) = delete;

  int Reply;
  std::vector<std::string> Messages;
  UINT LastType = 0;

 private:
  static int WINAPI Answer(void* Context, UINT Type, const char* Message) {
    auto& user = *static_cast<TUser*>(Context);
    if ((Type & INSTALLMESSAGE_TYPEMASK) != user.Kind_) return 0;
    user.Messages.emplace_back(Message == nullptr ? "" : Message);
    user.LastType = Type;
    return user.Reply;
  }

  const UINT Kind_;
};

TEST_F(MSIOpenedPackage, LetsTheUserCancel) {
  TUser user(INSTALLMESSAGE_ACTIONDATA, IDOK);
  Installer_->ActionDataMessage({"1", "2"});
  Installer_->ActionDataMessage({});
  for (const int reply : {IDCANCEL, IDABORT}) {
    user.Reply = reply;
    uint32_t code = 0;
    try {
      Installer_->ActionDataMessage({"1", "2"});
    } catch (const std::exception& e) {
      EXPECT_STREQ(e.what(), "MsiProcessMessage");
      code = Installer_->HandleException(e, 25001, 0, {});
    }
    EXPECT_EQ(code, 1602u);
  }
  EXPECT_EQ(user.Messages.size(), 4u);
}

TEST_F(MSIOpenedPackage, ShowsErrors) {
  TUser user(INSTALLMESSAGE_ERROR, IDRETRY);
  EXPECT_EQ(Installer_->ShowErrorMessage(25001, MB_RETRYCANCEL | MB_ICONWARNING, {"why"}), IDRETRY);
  EXPECT_EQ(user.LastType & 0xFFFF, static_cast<UINT>(MB_RETRYCANCEL | MB_ICONWARNING));
  EXPECT_EQ(Installer_->HandleException(Exception("e"), 25001, MB_OK, {"what"}), 1603u);
  ASSERT_EQ(user.Messages.size(), 2u);
  EXPECT_NE(user.Messages[0].find("Our error 25001: why"), std::string::npos) << user.Messages[0];
  EXPECT_NE(user.Messages[1].find("Our error 25001: what"), std::string::npos) << user.Messages[1];
}

/// Removes what a suspended installation enters to be done after a restart: under the packed code
/// of the product. False when there was nothing.
bool RemoveRestart() {
  const char* const packed = "C3E1A7E6B0E534A4F9E0C6A8D0B5F711";
  LSTATUS found = ERROR_SUCCESS;
  for (const char* key :
       {"Software\\Microsoft\\Windows\\CurrentVersion\\RunOnce",
        "Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\RunOnceEntries"}) {
    found |= ::RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, key, packed);
  }
  return found == ERROR_SUCCESS;
}

TEST_F(MSIOpenedPackage, TellsThatAnActionSuspends) {
  if (::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr)
    GTEST_SKIP() << "the action would restart the machine";
  uint32_t code = 0;
  try {
    Installer_->DoAction("ForceReboot");
  } catch (const EMSICaInstallSuspended& e) {
    EXPECT_STREQ(e.what(), "MsiDoAction");
    code = Installer_->HandleException(e, 25001, 0, {});
  }
  EXPECT_EQ(code, 1604u);
  EXPECT_TRUE(RemoveRestart());
}

// The Installer itself, in processes of its own, runs the actions of custom_actions.cpp.
class MSIInstallation : public MSIPackage {
 protected:
  void SetUp() override {
    MSIPackage::SetUp();
    // The actions' library, which the Installer takes out of the package, needs velox.dll.
    char path[32768];
    const DWORD length = ::GetEnvironmentVariableA("PATH", path, sizeof path);
    ASSERT_TRUE(length > 0 && length < sizeof path);
    ::SetEnvironmentVariableA("PATH", (ExtractFolder(GetProgramFileName()) + ";" + path).c_str());
    Path_ = path;
  }
  void TearDown() override {
    const uint32_t code = test::TChild("msiexec /x \"" + File_ + "\" /qn").Wait();
    EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_UNKNOWN_PRODUCT) << code;
    ::SetEnvironmentVariableA("PATH", Path_.c_str());
  }

  /// The exit code of an installation in which the action of that name runs.
  uint32_t Install(const std::string& Action) {
    return test::TChild("msiexec /i \"" + File_ + "\" /qn /l*v \"" + Log_ +
                        "\" SCENARIO=" + Action + " REPORT=\"" + Report_ + "\"")
        .Wait();
  }

  /// Whether the last installation wrote the text to its log, which is in 8 or in 16 bits.
  bool Logged(const std::string& Text) {
    std::string log = test::ReadFileBytes(Log_);
    std::erase(log, '\0');
    return log.find(Text) != std::string::npos;
  }

  const std::string Log_ = Folder_.File("log.txt"), Report_ = Folder_.File("report.txt");
  std::string Path_;
};

TEST_F(MSIInstallation, RunsActionsNowAndFromTheScript) {
  EXPECT_EQ(Install("Report"), 0u);
  EXPECT_EQ(test::ReadFileBytes(Report_),
            "product Velox actions\r\n"
            "missing <>\r\n"
            "ours a \"quoted\" [text]\r\n"
            "eval Velox actions/1.0.0\r\n"
            "installing 1 language 1033 scheduled 0\r\n"
            "component 1\r\n"
            "error Our error [1]: [2]\r\n"
            "data <>\r\n"
            "deferred with data scheduled 1 rollback 0\r\n");
  EXPECT_TRUE(Logged("Logged one and two"));
  EXPECT_TRUE(Logged("Item 1 of 2"));
}

TEST_F(MSIInstallation, EndsAsTheActionsDo) {
  EXPECT_EQ(Install("Cancel"), 1602u);
  EXPECT_EQ(test::ReadFileBytes(Report_), "user exit: MsiDoAction\r\n");
  EXPECT_FALSE(Logged("Our error 25001"));
  EXPECT_EQ(Install("Fail"), 1603u);
  EXPECT_TRUE(Logged("Our error 25001: System Error. Code: 1615"));
  EXPECT_EQ(Install("None"), 0u);
}

}  // namespace
}  // namespace velox
