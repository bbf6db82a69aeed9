// Compresses a file into the zlib format, or decompresses one.
//
//     velzip compress [-1|-9] IN OUT
//     velzip decompress [-1|-9] IN OUT

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "examples/support/standard_output.hpp"
#include "examples/support/whole_file.hpp"
#include "velox/codecs/velZLib.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velWindows.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: velzip compress|decompress [-1|-9] IN OUT\n"
    "  -1, -9  compress: fastest, smallest; decompress: no difference\n";
constexpr const char* WrongUsage = "wrong command line; velzip --help tells the right one";

struct TCommand {
  bool Decompress = false;
  TCompressionLevel Level = TCompressionLevel::clDefault;
  std::string In;
  std::string Out;
};

/// Shows how much of the input is done once the work takes long: a bar that is drawn anew on a
/// console, a line each tenth elsewhere.
class TProgressDisplay {
 public:
  TProgressDisplay(TStream& In, int64_t Size) : In_(In), Size_(Size), Start_(::GetTickCount64()) {
    DWORD mode = 0;
    Console_ = ::GetConsoleMode(::GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
  }
  ~TProgressDisplay() {
    if (Console_ && Shown_ >= 0) std::fprintf(stderr, "\r%60s\r", "");
  }

  void Update(TObject*) {
    if (Size_ <= 0 || ::GetTickCount64() - Start_ < Patience) return;
    const int percent = static_cast<int>(static_cast<double>(In_.GetPosition()) * 100.0 /
                                         static_cast<double>(Size_));
    if (percent / Step() == Shown_) return;
    Shown_ = percent / Step();
    if (Console_) {
      const std::string bar(static_cast<size_t>(percent) * Width / 100, '#');
      std::fprintf(stderr, "\r[%-*s] %3d %%", Width, bar.c_str(), percent);
    } else {
      std::fprintf(stderr, "%d %%\n", percent);
    }
    std::fflush(stderr);
  }

 private:
  static constexpr ULONGLONG Patience = 500;  // ms
  static constexpr int Width = 40;

  int Step() const { return Console_ ? 1 : 10; }

  TStream& In_;
  int64_t Size_;
  ULONGLONG Start_;
  bool Console_ = false;
  int Shown_ = -1;
};

void CopyAll(TStream& From, TStream& To) {
  std::vector<char> piece(65536);
  while (const int32_t count = From.Read(piece.data(), static_cast<int32_t>(piece.size()))) {
    To.WriteBuffer(piece.data(), count);
  }
}

void Compress(const TCommand& Command, TStream& In, TStream& Out, TProgressDisplay& Display) {
  TCompressionStream packer(Command.Level, Out);
  packer.OnProgress = TNotifyEvent::Bind<&TProgressDisplay::Update>(&Display);
  CopyAll(In, packer);
  packer.Finish();
}

void Decompress(const TCommand& Command, TStream& In, TStream& Out, TProgressDisplay& Display) {
  TDecompressionStream unpacker(In);
  unpacker.OnProgress = TNotifyEvent::Bind<&TProgressDisplay::Update>(&Display);
  try {
    CopyAll(unpacker, Out);
  } catch (const EZlibError&) {
    throw Exception(Format("\"%s\" is damaged, or not in the zlib format", Command.In.c_str()));
  }
  if (!unpacker.GetComplete()) throw Exception(Format("\"%s\" ends too early", Command.In.c_str()));
  if (unpacker.GetCompressedBytes() != In.GetSize()) {
    throw Exception(Format("\"%s\" has other data behind the compressed", Command.In.c_str()));
  }
}

void Convert(const TCommand& Command, TStream& In, TStream& Out) {
  TProgressDisplay display(In, In.GetSize());
  (Command.Decompress ? Decompress : Compress)(Command, In, Out, display);
}

void Run(const TCommand& Command) {
  auto in = std::make_unique<TFileStream>(Command.In, TFileMode::fmOpenRead);
  example::TOutputFile out(Command.Out);
  auto stream = std::make_unique<TFileStream>(out.GetTemporary(), TFileMode::fmCreate);
  Convert(Command, *in, *stream);
  const int64_t sizeIn = in->GetSize();
  const int64_t sizeOut = stream->GetSize();
  in.reset();  // so that the output may take its place
  stream.reset();
  out.Keep();
  std::printf("%s: %lld bytes, %s: %lld bytes\n", Command.In.c_str(),
              static_cast<long long>(sizeIn), Command.Out.c_str(), static_cast<long long>(sizeOut));
}

TCommand Parse(std::vector<std::string> Arguments) {
  TCommand command;
  if (Arguments.empty() || (Arguments[0] != "compress" && Arguments[0] != "decompress"))
    throw Exception(WrongUsage);
  command.Decompress = Arguments[0] == "decompress";
  Arguments.erase(Arguments.begin());
  if (!Arguments.empty() && (Arguments[0] == "-1" || Arguments[0] == "-9")) {
    command.Level = Arguments[0] == "-1" ? TCompressionLevel::clFastest : TCompressionLevel::clMax;
    Arguments.erase(Arguments.begin());
  }
  if (Arguments.size() != 2 || Arguments[0].starts_with('-')) throw Exception(WrongUsage);
  command.In = Arguments[0];
  command.Out = Arguments[1];
  return command;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 2 && std::string(argv[1]) == "--help") {
    std::fputs(Usage, stdout);
  } else {
    Run(Parse({argv + 1, argv + argc}));
  }
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velzip: %s\n", e.what());
  return 1;
}
