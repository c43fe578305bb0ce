#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Largest frame, in bytes, its header of kHostFrameHeaderSize bytes included.
inline constexpr size_t kHostFrameLimit = size_t{16} << 20;
// Room that a gather list leaves at its beginning for the frame header, in bytes.
inline constexpr size_t kHostFrameHeaderSize = 32;

// HostGather collects an outgoing frame. Small items are copied into one head buffer. Long runs of
// bytes are only pointed at, so they are copied once, by the kernel. The event that was flattened
// must stay alive and unchanged while the list is used. Reusable: Clear keeps storage, up to a
// megabyte. Not thread-safe.
class HostGather {
 public:
  void Clear();
  void Append(const void* bytes, size_t count);  // copies
  // Appends room for the caller to fill; valid until the next change.
  uint8_t* Extend(size_t count) {
    if (used == 0 || count > head.size() - used) [[unlikely]]
      MakeRoom(count);
    uint8_t* room = head.data() + used;
    used += count;
    total += count;
    return room;
  }
  void Borrow(const void* bytes, size_t count);  // points at them; copies them if they are few

  // The pieces in order, valid until the next change. The first piece begins with
  // kHostFrameHeaderSize bytes for the caller to fill through Header().
  const std::vector<iovec>& Pieces();
  uint8_t* Header();
  size_t TotalSize() const { return total; }  // bytes, header room included

  // Appends room for a number whose value is not known yet.
  size_t AppendHole32();                         // returns its id, valid until Clear
  void FillHole32(size_t hole, uint32_t value);  // big-endian

 private:
  struct Piece {
    const uint8_t* borrowed;  // null: a run of `head`
    size_t offset;            // into `head` when not borrowed
    size_t size;
  };
  void CloseRun();
  void MakeRoom(size_t count);

  std::vector<uint8_t> head;
  std::vector<Piece> pieces;
  std::vector<iovec> vectors;
  size_t used = 0;      // of `head`
  size_t runStart = 0;  // from here on `head` is not in `pieces` yet
  size_t total = 0;
};
