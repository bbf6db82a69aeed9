#include <memory>

#include "velox/codecs/velHash.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velSingleton.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

static_assert(sizeof(uintptr_t) == sizeof(HCRYPTPROV) && sizeof(uintptr_t) == sizeof(HCRYPTHASH));

TSingletonSlot Instance;

void Require(BOOL Succeeded) {
  if (!Succeeded) RaiseLastOSErrorEx(static_cast<int32_t>(::GetLastError()));
}

}  // namespace

TMD5::TMD5() { Initialize(); }

TMD5::~TMD5() { Finalize(); }

void TMD5::Initialize() {
  Finalize();
  HCRYPTPROV provider = 0;
  Require(::CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  HCRYPTHASH hash = 0;
  if (!::CryptCreateHash(provider, CALG_MD5, 0, 0, &hash)) {
    const DWORD error = ::GetLastError();
    ::CryptReleaseContext(provider, 0);  // a constructor that raises is followed by no destructor
    RaiseLastOSErrorEx(static_cast<int32_t>(error));
  }
  Provider_ = provider;
  Hash_ = hash;
}

void TMD5::Finalize() noexcept {
  if (Hash_ != 0) ::CryptDestroyHash(Hash_);
  Hash_ = 0;
  if (Provider_ != 0) ::CryptReleaseContext(Provider_, 0);
  Provider_ = 0;
}

void TMD5::Update(const void* Data, int32_t Size) {
  if (Size < 0) throw Exception(messages::seIncorrectParameters);
  Require(::CryptHashData(Hash_, static_cast<const BYTE*>(Data), static_cast<DWORD>(Size), 0));
}

void TMD5::GetCurrentMD5(TMD5Digest& Digest) {
  DWORD size = sizeof Digest;
  Require(::CryptGetHashParam(Hash_, HP_HASHVAL, Digest.data(), &size, 0));
}

void TMD5::Calculate(const void* Data, int32_t Size, TMD5Digest& Digest) {
  Initialize();
  Update(Data, Size);
  GetCurrentMD5(Digest);
}

void TMD5::CalculateForString(const std::string& S, TMD5Digest& Digest) {
  Calculate(S.data(), static_cast<int32_t>(S.size()), Digest);
}

void TMD5::CalculateForStream(TStream& Stream, TMD5Digest& Digest) {
  Initialize();
  uint8_t block[32768];
  for (;;) {
    const int32_t count = Stream.Read(block, sizeof block);
    if (count <= 0) break;
    Update(block, count);
  }
  GetCurrentMD5(Digest);
}

void TMD5::CalculateForFile(const std::string& FileName, TMD5Digest& Digest) {
  TFileStream stream(FileName, TFileMode::fmOpenReadDenyWrite);
  CalculateForStream(stream, Digest);
}

std::string TMD5::ToString(const TMD5Digest& Digest) {
  return BinToHex(Digest.data(), static_cast<int32_t>(Digest.size()), "", "", "", "");
}

TMD5* TMD5::GetInstance() { return SingletonInstance<TMD5>(Instance); }

TObject* TMD5::SingletonConstruction() { return new TMD5; }

void TMD5::CalculateThreadSafe(const void* Data, int32_t Size, TMD5Digest& Digest) {
  TMD5().Calculate(Data, Size, Digest);
}

void TMD5::CalculateForStringThreadSafe(const std::string& S, TMD5Digest& Digest) {
  TMD5().CalculateForString(S, Digest);
}

void modules::FinalizeMD5() noexcept { SingletonDestroy(Instance); }

}  // namespace velox
