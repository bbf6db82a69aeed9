#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "velox/runtime/velObject.hpp"

namespace velox {

/// A ring buffer of items of one size. The classes below differ in where the data, the capacity and
/// the two positions are kept: in the object, in memory of the caller, or in a block that two
/// processes share.
///
///     TInternalCyclicBuffer ring;
///     ring.SetSize(4096);
///     int32_t count = 100;
///     ring.WriteData(bytes, count);  // count: what there was room for
///
/// One slot always stays free, to tell full from empty: a buffer of Size items holds Size - 1. All
/// counts and sizes are items unless said otherwise.
///
/// Before there is storage, reading and writing raise Exception "Buffer have not been allocated".
/// Positions outside the storage, which only a damaged shared block can hold, raise Exception;
/// nothing outside is ever touched. (A TSharedCyclicBuffer by itself has to believe the capacity
/// that stands in a block which it takes as it is; TSharedMemBuffer knows better.) Sizes of less
/// than nothing, and blocks too small for what they begin with, raise Exception "Incorrect
/// parameters".
///
/// Threads: TSharedMemBuffer locks by itself; callers of the others serialise.
class VELOX_API TCyclicBuffer : public TObject {
 public:
  /// Without storage.
  TCyclicBuffer() noexcept = default;

  /// Takes up to Count of the oldest items out and into Buffer. Count returns how many; 0 asks for
  /// nothing, and not for storage either. Raises Exception for a negative Count.
  void ReadData(void* Buffer, int32_t& Count);
  /// Appends up to Count items from Buffer. Count returns how many: not more than there is room
  /// for; when Overwritable, not more than Size - 1, and the oldest items make room. Raises
  /// Exception for a negative Count.
  void WriteData(const void* Buffer, int32_t& Count);

  /// Items stored.
  int32_t GetCount();
  bool GetEmpty();
  /// Items there is room for without overwriting.
  int32_t GetAvailable();
  /// Items that one WriteData can take.
  int32_t GetMaximalAvailable();

  /// Whether writing may overwrite the oldest items; initially false.
  bool GetOverwritable() const noexcept { return Overwritable_; }
  void SetOverwritable(bool Value) noexcept { Overwritable_ = Value; }

  /// Bytes of an item; initially 1. Set it before there is storage: afterwards it raises Exception
  /// "Already Allocated".
  int32_t GetItemSize() const noexcept { return ItemSize_; }
  void SetItemSize(int32_t Bytes);

  /// Raises Exception "Buffer have not been allocated" while there is no storage.
  void CheckAllocated();

  /// The read position, in the data area or at its end (a position that has reached the end is
  /// wrapped by a later operation; overwriting up to the end leaves the read position one item
  /// behind it).
  virtual uint8_t* GetHead() = 0;
  /// The capacity.
  virtual int32_t GetSize() = 0;
  /// The write position, in the data area or at its end.
  virtual uint8_t* GetTail() = 0;

 protected:
  /// Moves the read position.
  virtual void SetHead(uint8_t* Value) = 0;

 public:
  /// Sets the capacity. Only TInternalCyclicBuffer can; the others raise Exception "Cannot set
  /// size".
  virtual void SetSize(int32_t Size) = 0;

 protected:
  /// Moves the write position.
  virtual void SetTail(uint8_t* Value) = 0;

 public:
  /// Holds the buffer for several operations. Calls nest within a thread. Does nothing where no
  /// lock is needed.
  virtual void Lock();
  virtual void Unlock();

 protected:
  /// For storage whose length nobody has told.
  static constexpr ptrdiff_t UnknownLength = PTRDIFF_MAX;

  /// Takes the data area; Length is its bytes.
  void SetStorage(uint8_t* Start, ptrdiff_t Length) noexcept;
  uint8_t* GetBuffer() const noexcept { return Buffer_; }
  /// Bytes of the data area that may be touched.
  ptrdiff_t GetLength() const noexcept { return Length_; }

 private:
  struct TPositions;
  TPositions Load();
  ptrdiff_t CountOf(const TPositions& Positions) const noexcept;
  ptrdiff_t ItemsIn(ptrdiff_t Bytes) const noexcept;
  uint8_t* Part(const TPositions& Positions, ptrdiff_t Offset, ptrdiff_t Bytes) const;

  bool Overwritable_ = false;
  uint8_t* Buffer_ = nullptr;
  int32_t ItemSize_ = 1;
  ptrdiff_t Length_ = 0;
};

/// Keeps capacity and positions in the object.
class VELOX_API TLocalCyclicBuffer : public TCyclicBuffer {
 public:
  uint8_t* GetHead() override { return Head_; }
  int32_t GetSize() override { return Size_; }
  uint8_t* GetTail() override { return Tail_; }

 protected:
  void SetHead(uint8_t* Value) override { Head_ = Value; }
  void SetTail(uint8_t* Value) override { Tail_ = Value; }
  /// Takes the data area, empty.
  void Reset(uint8_t* Start, ptrdiff_t Length, int32_t Size) noexcept;

 private:
  int32_t Size_ = 0;
  uint8_t* Head_ = nullptr;
  uint8_t* Tail_ = nullptr;
};

/// Owns its storage.
class VELOX_API TInternalCyclicBuffer : public TLocalCyclicBuffer {
 public:
  /// Allocates Size bytes and sets the capacity to Size; the contents are lost. The current size
  /// changes nothing. The number counts bytes also when items are larger: the capacity is then more
  /// than the storage holds, and an operation that would go beyond the storage raises Exception
  /// instead.
  void SetSize(int32_t Size) override;

 private:
  std::unique_ptr<uint8_t[]> Storage_;
};

/// Uses storage of the caller, who frees it after the buffer.
class VELOX_API TExternalCyclicBuffer : public TLocalCyclicBuffer {
 public:
  /// Takes storage for Size items (Size * ItemSize bytes), empty.
  void SetBuffer(void* Buffer, int32_t Size);
  void SetSize(int32_t Size) override;
};

/// Keeps capacity and positions at the start of a block, so that whoever maps the block sees the
/// same ring. The block begins with three words of 32 bits (little-endian):
///
///     0   capacity in items; the creator writes the block's length less 12
///     4   read position, bytes from the start of the data area
///     8   write position, bytes from the start of the data area
///     12  data area
///
/// The creator's number counts bytes also when items are larger: the capacity is then more than the
/// data area holds, and an operation that would go beyond it raises Exception instead.
///
/// What stands in the words is taken for another's input: it is checked before each use.
class VELOX_API TSharedCyclicBuffer : public TCyclicBuffer {
 public:
  /// True for the side that initialises the block, false for one that takes it as it is.
  explicit TSharedCyclicBuffer(bool ACreateNew) noexcept : CreateNew_(ACreateNew) {}

  /// Whether this side initialises the block.
  bool GetCreateNew() const noexcept { return CreateNew_; }

  /// Takes the block (aligned to 4 bytes); BlockSize is its bytes, which only the creating side
  /// needs. Null for none.
  void SetBuffer(void* Block, int32_t BlockSize);

  uint8_t* GetHead() override;
  int32_t GetSize() override;
  uint8_t* GetTail() override;
  void SetSize(int32_t Size) override;

 protected:
  /// Bytes of the words before the data area.
  static constexpr int32_t HeaderSize = 12;

  void SetHead(uint8_t* Value) override;
  void SetTail(uint8_t* Value) override;

  /// Takes the block; Length is the bytes of its data area that this process may touch.
  void Attach(void* Block, int32_t BlockSize, ptrdiff_t Length);

 private:
  uint8_t* Position(const volatile uint32_t* Word) const noexcept;

  volatile uint32_t* SizeWord_ = nullptr;
  volatile uint32_t* HeadWord_ = nullptr;
  volatile uint32_t* TailWord_ = nullptr;
  bool CreateNew_;
};

/// A shared ring in a named file mapping, locked by a named mutex: one process creates it, others
/// open it.
///
///     TSharedMemBuffer ring(true);  // false in the other process, afterwards
///     ring.SetMemoryName("Local\\Samples");
///     ring.CreateMemory(65536);  // there, the number does not matter
///
/// The mutex is named as the mapping with "Mutex" appended. It is held during each operation;
/// waiting for it has no limit. A mutex whose holding process has ended counts as free, and what
/// the ring then holds is what that process left whole. No thread may end while it holds the lock.
///
/// Threads: any, between CreateMemory and ReleaseMemory.
class VELOX_API TSharedMemBuffer : public TSharedCyclicBuffer {
 public:
  /// True for the process that creates the memory, false for one that opens it.
  explicit TSharedMemBuffer(bool ACreateNew) noexcept : TSharedCyclicBuffer(ACreateNew) {}
  ~TSharedMemBuffer() override;

  /// The mapping's name. Setting it is for the next CreateMemory.
  const std::string& GetMemoryName() const noexcept { return MemoryName_; }
  void SetMemoryName(const std::string& Name) { MemoryName_ = Name; }

  /// Creates or opens the mapping and the mutex. Size is the bytes of data; a side that opens takes
  /// what is there. Raises Exception "Already Allocated", and EOSError when the system refuses
  /// (also when there is nothing to open); what was obtained until then is kept until
  /// ReleaseMemory.
  void CreateMemory(int32_t Size);
  /// Gives the memory back; it lives on while another process holds it.
  void ReleaseMemory() noexcept;

  /// Raises EOSError when the system refuses the mutex.
  void Lock() override;
  /// Does nothing on a thread that does not hold the lock.
  void Unlock() override;

 private:
  void OpenMapping(int32_t Length);

  void* Mutex_ = nullptr;    // HANDLE
  void* Mapping_ = nullptr;  // HANDLE
  std::string MemoryName_;
  void* Memory_ = nullptr;  // the view

  // Taking the mutex costs a request to the system, so a thread that holds it already is only
  // counted.
  std::atomic<uint32_t> Owner_{0};  // thread id, 0 for none
  uint32_t Depth_ = 0;              // belongs to the owner
};

}  // namespace velox
