#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

// HostFrameBuffer is one block of received bytes, shared by count: the connection that fills it and
// every event that was decoded out of it hold references. Decoded events point into the block, so a
// large parameter is never copied on its way in. Counts are atomic; the bytes of one frame belong
// to the owner of its slice (the decoder swaps scalars in place).
class HostFrameBuffer {
 public:
  // Returns null if there is no memory. The caller owns the one reference.
  static HostFrameBuffer* Create(size_t capacity);

  // Returns a block of at least `capacity` bytes that this thread released and keeps for reuse, or
  // null.
  static HostFrameBuffer* TakeSpare(size_t capacity);

  void Retain() { references.fetch_add(1, std::memory_order_relaxed); }
  void Release();
  bool IsShared() const { return references.load(std::memory_order_acquire) > 1; }

  uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
  size_t Capacity() const { return capacity; }

 private:
  explicit HostFrameBuffer(size_t size) : capacity(size) {}

  std::atomic<uint32_t> references{1};
  size_t capacity;
};

// An owning reference to a frame buffer; may be empty.
class HostFrameRef {
 public:
  HostFrameRef() = default;
  explicit HostFrameRef(HostFrameBuffer* taken) : buffer(taken) {}  // takes the reference over
  HostFrameRef(const HostFrameRef& other) : buffer(other.buffer) {
    if (buffer != nullptr) buffer->Retain();
  }
  HostFrameRef(HostFrameRef&& other) noexcept : buffer(std::exchange(other.buffer, nullptr)) {}
  HostFrameRef& operator=(HostFrameRef other) noexcept {
    std::swap(buffer, other.buffer);
    return *this;
  }
  ~HostFrameRef() {
    if (buffer != nullptr) buffer->Release();
  }

  HostFrameBuffer* Get() const { return buffer; }
  HostFrameBuffer* operator->() const { return buffer; }
  explicit operator bool() const { return buffer != nullptr; }

 private:
  HostFrameBuffer* buffer = nullptr;
};

// Some bytes of a frame buffer, with the reference that keeps them.
struct HostFrameSlice {
  HostFrameRef owner;
  uint8_t* bytes = nullptr;
  size_t size = 0;
};
