#include <CoreServices/MacMemory.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include <CoreServices/MacErrors.h>

// A pointer block is plain memory; a handle is the address of a record that begins with the master
// pointer. Both are entered in a table of live blocks. So a pointer to a freed block is recognised
// by its address, without reading what it points to.

namespace {

constexpr std::align_val_t kAlignment{16};
constexpr UInt8 kStateBits = 0xE0;
constexpr UInt8 kLockedBit = 0x80;
constexpr Size kSpareLimit = 4096;  // unused bytes that a handle which was made smaller may keep

struct FreeBlock {
  void operator()(char* block) const { ::operator delete(block, kAlignment); }
};
using Block = std::unique_ptr<char, FreeBlock>;

Block Allocate(Size size) {
  if (size < 0) return nullptr;
  // Also an empty block needs an address of its own.
  const auto bytes = static_cast<size_t>(size > 0 ? size : 1);
  return Block(static_cast<char*>(::operator new(bytes, kAlignment, std::nothrow)));
}

struct HandleRecord {
  char* master = nullptr;  // first: the handle is its address. Null: emptied
  Size size = 0;
  Size capacity = 0;  // what fits into the block without moving it
  UInt8 state = 0;

  bool IsLocked() const { return (state & kLockedBit) != 0; }
  bool IsWasteful(Size wanted) const { return capacity > kSpareLimit && wanted < capacity / 2; }
};

enum class Kind : UInt8 { kPointer, kHandle };

struct Live {
  Kind kind;
  Size size;  // of a pointer block
};

// The live blocks by address, in parts with a lock each. Addresses are stored inverted, so that a
// leak checker does not take the table for an owner.
class LiveBlocks {
 public:
  bool Enter(const void* block, Live entry) {
    Part& part = PartOf(block);
    const std::lock_guard<std::mutex> held(part.lock);
    try {
      part.blocks[Key(block)] = entry;
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

  bool Find(const void* block, Kind kind, Size* size) {
    Part& part = PartOf(block);
    const std::lock_guard<std::mutex> held(part.lock);
    const auto found = part.blocks.find(Key(block));
    if (found == part.blocks.end() || found->second.kind != kind) return false;
    *size = found->second.size;
    return true;
  }

  bool Leave(const void* block, Kind kind) {
    Part& part = PartOf(block);
    const std::lock_guard<std::mutex> held(part.lock);
    const auto found = part.blocks.find(Key(block));
    if (found == part.blocks.end() || found->second.kind != kind) return false;
    part.blocks.erase(found);
    return true;
  }

 private:
  struct Part {
    std::mutex lock;
    std::unordered_map<uintptr_t, Live> blocks;
  };

  static uintptr_t Key(const void* block) { return ~reinterpret_cast<uintptr_t>(block); }
  Part& PartOf(const void* block) { return parts[(Key(block) >> 6) % std::size(parts)]; }

  Part parts[16];
};

LiveBlocks& Blocks() {
  static auto* blocks = new LiveBlocks;  // never destroyed: blocks outlive main
  return *blocks;
}

thread_local constinit OSErr sMemError = noErr;

OSErr Finish(OSErr err) {
  sMemError = err;
  return err;
}

// Returns the record of a live handle. For any other returns null and sets the result of MemError.
HandleRecord* RecordOf(Handle handle) {
  Size unused;
  if (handle == nullptr) {
    Finish(nilHandleErr);
    return nullptr;
  }
  if (!Blocks().Find(handle, Kind::kHandle, &unused)) {
    Finish(memWZErr);
    return nullptr;
  }
  Finish(noErr);
  return reinterpret_cast<HandleRecord*>(handle);
}

void Adopt(HandleRecord* record, Block block, Size size) {
  FreeBlock()(record->master);
  record->master = block.release();
  record->size = size;
  record->capacity = size;
}

// Changes the block's size to `size` bytes. The first `keep` bytes stay, and the next `count` are
// copied from `source`, which may lie in the block itself.
OSErr Rewrite(HandleRecord* record, Size keep, const void* source, Size count, Size size) {
  if (size < 0) return memFullErr;
  if (record->master == nullptr) return nilHandleErr;
  const bool fits = size <= record->capacity;
  Block block;
  if (record->IsLocked()) {
    if (!fits) return memFullErr;  // it may not move
  } else if (!fits || record->IsWasteful(size)) {
    block = Allocate(size);
    if (block == nullptr && !fits) return memFullErr;
  }
  if (block == nullptr) {
    BlockMoveData(source, record->master + keep, count);
    record->size = size;
    return noErr;
  }
  BlockMoveData(record->master, block.get(), keep);
  BlockMoveData(source, block.get() + keep, count);
  Adopt(record, std::move(block), size);
  return noErr;
}

OSErr AppendTo(HandleRecord* record, const void* source, Size count) {
  if (count < 0 || (source == nullptr && count > 0)) return paramErr;
  const int64_t size = int64_t{record->size} + count;
  if (size > INT32_MAX) return memFullErr;
  return Rewrite(record, record->size, source, count, static_cast<Size>(size));
}

void ChangeState(Handle handle, UInt8 set, UInt8 clear) {
  HandleRecord* record = RecordOf(handle);
  if (record != nullptr) record->state = static_cast<UInt8>((record->state & ~clear) | set);
}

Ptr Cleared(Ptr block, Size size) {
  if (block != nullptr) BlockZero(block, size);
  return block;
}

}  // namespace

OSErr MemError(void) { return sMemError; }

Ptr NewPtr(Size size) {
  Block block = Allocate(size);
  if (block == nullptr || !Blocks().Enter(block.get(), {Kind::kPointer, size})) {
    Finish(memFullErr);
    return nullptr;
  }
  Finish(noErr);
  return block.release();
}

Ptr NewPtrClear(Size size) { return Cleared(NewPtr(size), size); }

void DisposePtr(Ptr block) {
  if (block == nullptr) {
    Finish(nilHandleErr);
  } else if (!Blocks().Leave(block, Kind::kPointer)) {
    Finish(memWZErr);
  } else {
    FreeBlock()(block);
    Finish(noErr);
  }
}

Size GetPtrSize(Ptr block) {
  Size size = 0;
  const bool live = block != nullptr && Blocks().Find(block, Kind::kPointer, &size);
  Finish(block == nullptr ? nilHandleErr : live ? noErr : memWZErr);
  return size;
}

Handle NewHandle(Size size) {
  std::unique_ptr<HandleRecord> record(new (std::nothrow) HandleRecord);
  Block block = Allocate(size);
  if (record == nullptr || block == nullptr || !Blocks().Enter(record.get(), {Kind::kHandle, 0})) {
    Finish(memFullErr);
    return nullptr;
  }
  Adopt(record.get(), std::move(block), size);
  Finish(noErr);
  return reinterpret_cast<Handle>(record.release());
}

Handle NewHandleClear(Size size) {
  Handle handle = NewHandle(size);
  if (handle != nullptr) BlockZero(*handle, size);
  return handle;
}

void DisposeHandle(Handle handle) {
  if (handle == nullptr) {
    Finish(nilHandleErr);
  } else if (!Blocks().Leave(handle, Kind::kHandle)) {
    Finish(memWZErr);
  } else {
    const std::unique_ptr<HandleRecord> record(reinterpret_cast<HandleRecord*>(handle));
    FreeBlock()(record->master);
    Finish(noErr);
  }
}

Size GetHandleSize(Handle handle) {
  const HandleRecord* record = RecordOf(handle);
  return record != nullptr ? record->size : 0;
}

void SetHandleSize(Handle handle, Size size) {
  HandleRecord* record = RecordOf(handle);
  if (record == nullptr) return;
  const Size keep = size < record->size ? size : record->size;
  Finish(Rewrite(record, keep, nullptr, 0, size));
}

void HLock(Handle handle) { ChangeState(handle, kLockedBit, 0); }
void HUnlock(Handle handle) { ChangeState(handle, 0, kLockedBit); }
void HPurge(Handle handle) { ChangeState(handle, kHandlePurgeableMask, 0); }
void HNoPurge(Handle handle) { ChangeState(handle, 0, kHandlePurgeableMask); }

SInt8 HGetState(Handle handle) {
  const HandleRecord* record = RecordOf(handle);
  return record != nullptr ? static_cast<SInt8>(record->state) : SInt8{0};
}

void HSetState(Handle handle, SInt8 state) {
  ChangeState(handle, static_cast<UInt8>(state) & kStateBits, kStateBits);
}

void EmptyHandle(Handle handle) {
  HandleRecord* record = RecordOf(handle);
  if (record == nullptr) return;
  if (record->IsLocked()) {
    Finish(memPurErr);
    return;
  }
  Adopt(record, nullptr, 0);
}

void ReallocateHandle(Handle handle, Size size) {
  HandleRecord* record = RecordOf(handle);
  if (record == nullptr) return;
  if (record->IsLocked()) {
    Finish(memPurErr);
    return;
  }
  Block block = Allocate(size);
  if (block == nullptr) {
    Finish(memFullErr);
    return;
  }
  Adopt(record, std::move(block), size);
}

OSErr HandToHand(Handle* handle) {
  if (handle == nullptr) return Finish(nilHandleErr);
  const HandleRecord* record = RecordOf(*handle);
  if (record == nullptr) return MemError();
  if (record->master == nullptr) return Finish(nilHandleErr);
  return PtrToHand(record->master, handle, record->size);
}

OSErr PtrToHand(const void* source, Handle* handle, Size size) {
  if (handle == nullptr || (source == nullptr && size > 0)) return Finish(paramErr);
  Handle copy = NewHandle(size);
  if (copy == nullptr) return MemError();
  BlockMoveData(source, *copy, size);
  *handle = copy;
  return noErr;
}

OSErr PtrToXHand(const void* source, Handle destination, Size size) {
  HandleRecord* record = RecordOf(destination);
  if (record == nullptr) return MemError();
  if (source == nullptr && size > 0) return Finish(paramErr);
  return Finish(Rewrite(record, 0, source, size, size));
}

OSErr HandAndHand(Handle source, Handle destination) {
  const HandleRecord* from = RecordOf(source);
  HandleRecord* to = from != nullptr ? RecordOf(destination) : nullptr;
  if (to == nullptr) return MemError();
  return Finish(AppendTo(to, from->master, from->size));
}

OSErr PtrAndHand(const void* source, Handle destination, Size size) {
  HandleRecord* record = RecordOf(destination);
  if (record == nullptr) return MemError();
  return Finish(AppendTo(record, source, size));
}

void BlockMove(const void* source, void* destination, Size size) {
  BlockMoveData(source, destination, size);
}

void BlockMoveData(const void* source, void* destination, Size size) {
  if (size > 0) std::memmove(destination, source, static_cast<size_t>(size));
}

void BlockZero(void* destination, Size size) {
  if (size > 0) std::memset(destination, 0, static_cast<size_t>(size));
}
