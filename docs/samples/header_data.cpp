// The samples that stand in the headers of containers and codecs, and the one of the IP iterator,
// to the letter. Those with files are compiled only: they write, or need, a file in the current
// folder.
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "docs/samples/samples.hpp"
#include "velox/channels/velIPIterator.hpp"
#include "velox/codecs/velBinary.hpp"
#include "velox/codecs/velGostCryptor.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/codecs/velIntelHex.hpp"
#include "velox/codecs/velZLib.hpp"
#include "velox/containers/velAVLTree.hpp"
#include "velox/containers/velCyclicBuffer.hpp"
#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velStream.hpp"

namespace samples {

using namespace velox;

namespace {

struct TModule : TObject {
  explicit TModule(std::string AName) : Name(std::move(AName)) {}
  std::string Name;
};

int32_t CompareModuleNames(TObject* A, TObject* B) {
  return static_cast<TModule*>(A)->Name.compare(static_cast<TModule*>(B)->Name);
}

struct TPerson : TObject {
  explicit TPerson(int32_t AAge) : Age(AAge) {}
  int32_t Age;
};

int32_t CompareAges(TObject* A, TObject* B) {
  return static_cast<TPerson*>(A)->Age - static_cast<TPerson*>(B)->Age;
}

/// What the samples print.
std::vector<int32_t> Ages;
void Print(int32_t Age) { Ages.push_back(Age); }
void Print(TObject* Person) { Print(static_cast<TPerson*>(Person)->Age); }

void KeepAge(int32_t id, int32_t age) {
  TAVLTree ages(sizeof(int32_t));  // by integer keys
  ages.Add(&id, &age);
  if (ages.Search(&id, &age)) Print(age);
}

int32_t CountModules() {
  TObjectArray modules(TClass::Of<TModule>());
  modules.SetSharedObjects(false);  // the array frees what it drops
  modules.CompareRoutine = TObjectCompareRoutine::Bind<&CompareModuleNames>();
  modules.SetSorted(true);
  modules.Add(new TModule("velox.dll"));

  return modules.GetCount();
}

void PrintByAge(TObjectArray& people) {
  TObjectArraySecondaryIndex byAge(&people);
  byAge.OnCompare = TObjectCompareRoutine::Bind<&CompareAges>();
  byAge.UpdateIndex();
  for (int32_t i = 0; i < byAge.GetCount(); ++i) Print(byAge.GetOrderedItems(i));
}

int32_t WriteToRing(const char* bytes) {
  TInternalCyclicBuffer ring;
  ring.SetSize(4096);
  int32_t count = 100;
  ring.WriteData(bytes, count);  // count: what there was room for

  return count;
}

int32_t SizeOfSharedRing() {
  TSharedMemBuffer ring(true);  // false in the other process, afterwards
  ring.SetMemoryName("Local\\Samples");
  ring.CreateMemory(65536);  // there, the number does not matter

  return ring.GetSize();
}

class TScan {
 public:
  void Run() {
    TIPAddressIterator hosts;
    hosts.SetAddresses("192.168.1.*, 10.0.0.5;255.255.255.240");
    hosts.SetEnumRoutine(TIPAddressEnumRoutine::Bind<&TScan::Ask>(this));
    hosts.Enumerate();
  }

  std::vector<std::string> Asked;

 private:
  void Ask(TObject*, const std::string& Address, bool&) { Asked.push_back(Address); }
};

static_assert(BSwap(uint16_t{0x1122}) == 0x2211);
static_assert(Reverse(uint16_t{0x8408}) == 0x1021);
static_assert(Rol(uint8_t{0x81}, 1) == 0x03);

/// The CRC-32 of a stream and the CRC-16 of data.
std::pair<uint32_t, uint16_t> CrcsOf(TStream& file, const char* data, int32_t size) {
  char block[4];
  TCRC32 crc;
  crc.Initialize();
  while (const int32_t count = file.Read(block, sizeof block)) crc.Update(block, count);
  const uint32_t value = crc.GetCurrentCRC();

  const uint16_t once = TCRC16::GetInstanceStandard()->CalculateThreadSafe(data, size);

  return {value, once};
}

bool DigestsAbc() {
  TMD5Digest digest;
  TMD5::CalculateForStringThreadSafe("abc", digest);
  const std::string text = TMD5::ToString(digest);  // "900150983CD24FB0D6963F7D28E17F72"

  return text == "900150983CD24FB0D6963F7D28E17F72";
}

void Encrypt(std::string& text, const TGostSubstitutionTable& table,
             const std::array<uint32_t, 8>& key, const TGostCryptedBlock& iv) {
  const auto size = static_cast<int32_t>(text.size());
  TGostCryptor cryptor;
  cryptor.SetSubstitutionTable(table);
  cryptor.Key = key;  // eight words of 32 bits
  cryptor.CryptInCipherFeedbackMode(text.data(), size, iv, true);
}

}  // namespace

void WriteLog(const std::string& text, int32_t size) {
  TFileStream file("log.z", TFileMode::fmCreate);
  TCompressionStream packed(TCompressionLevel::clMax, file);
  packed.WriteBuffer(text.data(), size);
  packed.Finish();
}

void ReadFirmware(void (*Program)(const uint8_t* Image, uint32_t Size)) {
  TIntelHex image;
  image.LoadFromFile("firmware.hex");
  Program(image.GetBuffer(), image.GetBufferSize());
}

void RunDataOfHeaders() {
  KeepAge(7, 31);
  TPerson old(80), young(8);
  TObjectArray people(TClass::Of<TPerson>());  // shared: the array frees none
  people.Add(&old);
  people.Add(&young);
  PrintByAge(people);
  Expect(Ages == std::vector<int32_t>{31, 8, 80}, "the ages are found, and sorted");
  Expect(CountModules() == 1, "the array takes the module");
  Expect(WriteToRing(std::string(100, 'x').data()) == 100, "there is room for 100");
  Expect(SizeOfSharedRing() == 65536, "the shared ring is made");

  TScan scan;
  scan.Run();
  Expect(scan.Asked.size() == 254 + 14, "a network and a subnet are asked");
  Expect(scan.Asked.front() == "192.168.1.1" && scan.Asked.back() == "10.0.0.14",
         "hosts come in the list's order");

  TMemoryStream digits("123456789", 9);
  Expect(CrcsOf(digits, "123456789", 9) == std::pair<uint32_t, uint16_t>(0xCBF43926, 0xBB3D),
         "the CRCs of the catalogue");
  Expect(DigestsAbc(), "the MD5 of RFC 1321");
  std::string secret = "any size at all";
  Encrypt(secret, TGostCryptor().GetSubstitutionTable(), {1, 2, 3, 4, 5, 6, 7, 8}, {17, 4});
  Expect(secret != "any size at all", "it is encrypted");
}

}  // namespace samples
