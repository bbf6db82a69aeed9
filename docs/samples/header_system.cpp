// The samples that stand in the headers of channels and system, and the one of TRegistry, to the
// letter. Most are compiled only: the channels' name ports, addresses and peers that a machine need
// not have (channels.cpp and server.cpp run their like), and the others change, or depend on, what
// is in the registry, or need a database of the Windows Installer (installer.cpp reads one).
#include <cstring>
#include <memory>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/channels/velCommonChannel.hpp"
#include "velox/channels/velCommunicationChannel.hpp"
#include "velox/channels/velSharedMemChannel.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/runtime/velRegistryKey.hpp"
#include "velox/system/velComPermissions.hpp"
#include "velox/system/velMSInstaller.hpp"
#include "velox/system/velModuleInfo.hpp"
#include "velox/system/velRegistry.hpp"
#include "velox/system/velSecurity.hpp"
#include "velox/system/velSysInfo.hpp"

namespace samples {

using namespace velox;

namespace {

/// What the samples print.
TStrings Printed;
void Print(const std::string& Text) { Printed.push_back(Text); }

void PrintSystem() {
  const TSystemInfo* system = TSystemInfo::GetInstance();
  Print(system->GetOSInfo().GetName());
  if (system->GetOSInfo().GetVersion() >= TOSVersion::osVista) Print("Vista or later");
  for (const std::string& port : system->GetComPorts()) Print(port);
}

void PrintProcess() {
  const TProcessInfo process(::GetCurrentProcessId());
  for (int32_t i = 0; i < process.GetThreadInfoCount(); ++i)
    Print(process.GetThreadInfo(i).GetName());
  Print(TModuleInfo::GetInstance()->ModuleVersion());
}

}  // namespace

class TReader {
 public:
  void Read(TChannel& channel);

 private:
  void OnRead(TObject* Sender);
  char data[100];
};

void TReader::Read(TChannel& channel) {
  channel.SetActive(true);
  std::unique_ptr<TTransferOperation> read = channel.CreateOperation();
  read->SetKind(TOperationKind::okRead);
  read->SetBuffer(data);
  read->SetSize(sizeof data);
  // OnRead looks at GetSucceeded() and GetTransferred().
  read->SetOnComplete(TOperationNotificationEvent::Bind<&TReader::OnRead>(this));
  read->SetActive(true);  // returns at once; `read` lives on until its end
}

void TReader::OnRead(TObject*) {}

void OpenSharedMemory() {
  TSharedMemChannel channel;
  channel.SetMemoryName("Global\\Meter");
  channel.SetMemorySize(64 * 1024);
  channel.SetMode(TChannelMode::cmClient);
  channel.SetActive(true);
}

void OpenSerialPort() {
  TCommunicationChannel channel;
  channel.SetCommPortIndex(3);
  channel.GetDCB().SetBaudRate(TCommBaudRate::cbr115200);
  channel.SetActive(true);  // opens \\.\COM3
}

void OpenSerialPortWithTimeouts(TCommunicationChannel& channel) {
  channel.SetLatence(500);
  channel.GetTimeouts().BeginUpdate();
  channel.SetActive(true);
  channel.GetTimeouts().EndUpdate();  // all timeouts, with those of the line settings
}

void SendDatagram(const char* bytes) {
  TUDPChannel channel;
  channel.SetPort(5000);
  channel.SetActive(true);
  std::unique_ptr<TTransferOperation> made = channel.CreateOperation();
  auto& operation = static_cast<TIPOperation&>(*made);
  operation.SetKind(TOperationKind::okWrite);
  operation.SetAddress("192.168.1.20");
  operation.SetPort(5001);
  operation.SetSelfAllocated(true);
  operation.SetSize(100);
  std::memcpy(operation.GetBuffer(), bytes, 100);
  operation.SetActive(true);
}

struct TReceiver {
  void OnAccept(TObject* Sender, SOCKET Socket, const SOCKADDR_IN& Address, bool& Taken);
  TTCPChannel Channel;
};

void TReceiver::OnAccept(TObject*, SOCKET Socket, const SOCKADDR_IN& Address, bool& Taken) {
  Channel.Accept(Socket, Address);
  Taken = true;
  Channel.SetActive(true);
}

std::string ReadFolder() {
  std::string folder;
  TRegistry registry;
  registry.SetRootKey(HKEY_LOCAL_MACHINE);
  if (registry.OpenKeyReadOnly("Software\\Vendor") && registry.ValueExists("Folder"))
    folder = registry.ReadString("Folder");

  return folder;
}

void WriteServers(const TStrings& servers) {
  TRegistryEx registry;
  if (registry.OpenKey("Software\\Vendor", true)) registry.WriteStringList("Servers", servers);
  TRegistryEx::WriteDefaultString(registry, "\\Software\\Vendor\\Kind", "main");
}

void PrintProperties(MSIHANDLE handle) {
  TMSIDatabase database(handle);
  TMSIView view(database, "SELECT `Property`, `Value` FROM `Property`");
  for (view.Open(); !view.GetEof(); view.Next()) Print(view.GetRecord()->GetField(1).GetAsString());
}

void AllowLaunch(const std::string& key) {
  TSecurityDescriptor descriptor;
  descriptor.ReadFromRegistry("", HKEY_CLASSES_ROOT, key, "LaunchPermission");
  if (descriptor.DaclType != sdatPresentNotNull) return;  // no list: everyone may already
  auto entry = std::make_unique<TAccessControlEntry>(
      aceAccessAllowed, std::make_unique<TSecurityIdentifier>("", WinInteractiveSid));
  entry->AccessMask = COM_RIGHTS_EXECUTE;
  if (descriptor.GetDacl().AddAce(entry.get())) entry.release();
  descriptor.WriteToRegistry(HKEY_CLASSES_ROOT, key, "LaunchPermission");
}

void AllowLaunchOfServer(const GUID& AppID) {
  TComServerLaunchPermissions permissions(AppID);
  const auto name = TSecurityIdentifier::GetWellKnownAccountName("", WinInteractiveSid);
  permissions.AddEntryEx("", name, ptAllow, ptAllow, ptAllow, ptNone, ptNone);
  permissions.Apply();
}

void RunSystemOfHeaders() {
  PrintSystem();
  Expect(!Printed.empty() && !Printed[0].empty(), "the system has a name");
  Printed.clear();
  PrintProcess();
  Expect(Printed.size() >= 2, "the process has a thread");
}

}  // namespace samples
