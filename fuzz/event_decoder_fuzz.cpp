#include <CoreServices/CoreServices.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "platform/host/events/codec.h"
#include "platform/host/events/storage.h"

// Decodes, prints, flattens and decodes again. An event that was accepted once must stay the same
// from then on, and nothing may leak.

namespace {

void Require(bool condition) {
  if (!condition) abort();
}

OSStatus Decode(const std::string& body, AppleEvent* out) {
  HostFrameSlice slice;
  slice.owner = HostFrameRef(HostFrameBuffer::Create(body.size()));
  slice.bytes = slice.owner->Bytes();
  slice.size = body.size();
  memcpy(slice.bytes, body.data(), body.size());
  return HostDecodeEvent(std::move(slice), out);
}

std::string Flatten(const AppleEvent& event) {
  HostGather frame;
  frame.Clear();
  Require(HostFlattenEvent(&event, frame) == 0);
  std::string bytes;
  for (const iovec& piece : frame.Pieces()) {
    bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
  }
  Require(bytes.size() == frame.TotalSize());
  return bytes.substr(kHostFrameHeaderSize);
}

std::string Print(const AEDesc& desc) {
  Handle handle = nullptr;
  Require(AEPrintDescToHandle(&desc, &handle) == 0);
  std::string text(*handle, static_cast<size_t>(GetHandleSize(handle)));
  DisposeHandle(handle);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kHostFrameLimit - kHostFrameHeaderSize) return 0;
  AppleEvent first = {typeNull, nullptr};
  if (Decode(std::string(reinterpret_cast<const char*>(data), size), &first) == 0) {
    const std::string printed = Print(first);
    const std::string flattened = Flatten(first);
    Require(flattened.size() == size);
    AppleEvent copy = {typeNull, nullptr};
    Require(AEDuplicateDesc(&first, &copy) == 0);
    AEDisposeDesc(&first);
    Require(Flatten(copy) == flattened);
    AEDisposeDesc(&copy);

    AppleEvent second = {typeNull, nullptr};
    Require(Decode(flattened, &second) == 0);
    Require(Print(second) == printed);
    Require(Flatten(second) == flattened);
    AEDisposeDesc(&second);
  }
  Require(first.dataHandle == nullptr && HostCountDescs() == 0);
  return 0;
}
