#include "platform/host/wire/gather.h"

#include <algorithm>
#include <cstring>

#include "platform/host/base/byte_order.h"

namespace {

constexpr size_t kFirstSize = 1024;
constexpr size_t kKeptSize = size_t{1} << 20;
// Below this size a copy costs less than another piece for the kernel.
constexpr size_t kBorrowLeast = 1024;

}  // namespace

void HostGather::Clear() {
  if (head.size() > kKeptSize) {
    head.clear();
    head.shrink_to_fit();
  }
  if (head.empty()) head.resize(kFirstSize);
  pieces.clear();
  used = total = kHostFrameHeaderSize;
  runStart = 0;
}

void HostGather::MakeRoom(size_t count) {
  if (used == 0) Clear();
  if (count > head.size() - used) head.resize(std::max(head.size() * 2, used + count));
}

void HostGather::Append(const void* bytes, size_t count) {
  if (count > 0) memcpy(Extend(count), bytes, count);
}

void HostGather::Borrow(const void* bytes, size_t count) {
  if (count < kBorrowLeast) return Append(bytes, count);
  CloseRun();
  pieces.push_back({static_cast<const uint8_t*>(bytes), 0, count});
  total += count;
}

void HostGather::CloseRun() {
  if (used == 0) Clear();
  if (used > runStart) pieces.push_back({nullptr, runStart, used - runStart});
  runStart = used;
}

const std::vector<iovec>& HostGather::Pieces() {
  vectors.clear();
  if (pieces.empty() && used > 0) {
    vectors.push_back({head.data(), used});
    return vectors;
  }
  CloseRun();
  for (const Piece& piece : pieces) {
    const uint8_t* bytes = piece.borrowed != nullptr ? piece.borrowed : head.data() + piece.offset;
    vectors.push_back({const_cast<uint8_t*>(bytes), piece.size});
  }
  return vectors;
}

uint8_t* HostGather::Header() {
  if (used == 0) Clear();
  return head.data();
}

size_t HostGather::AppendHole32() {
  Extend(sizeof(uint32_t));
  return used - sizeof(uint32_t);
}

void HostGather::FillHole32(size_t hole, uint32_t value) {
  HostStoreBig32(head.data() + hole, value);
}
