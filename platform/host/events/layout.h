#pragma once

#include <cstddef>
#include <cstdint>

// The layout of the flattened event, shared by the writer and the reader. docs/protocol.md has the
// byte table. Constants only: any thread.

inline constexpr uint8_t kHostEventVersion = 1;

// Head of an event.
inline constexpr size_t kHostEventHeadSize = 24;
inline constexpr size_t kHostEventClassAt = 0;
inline constexpr size_t kHostEventIDAt = 4;
inline constexpr size_t kHostReturnIDAt = 8;
inline constexpr size_t kHostVersionAt = 10;
inline constexpr size_t kHostFlagsAt = 11;  // none are defined: 0
inline constexpr size_t kHostTransactionAt = 12;
inline constexpr size_t kHostAttributeCountAt = 16;
inline constexpr size_t kHostParameterCountAt = 20;

// Head of an item.
inline constexpr size_t kHostItemHeadSize = 12;
inline constexpr size_t kHostKeyAt = 0;
inline constexpr size_t kHostTypeAt = 4;
inline constexpr size_t kHostFormAt = 8;  // form in the top two bits, content size below
inline constexpr unsigned kHostFormShift = 30;
inline constexpr uint32_t kHostContentMask = 0x00ffffff;
inline constexpr uint32_t kHostReservedMask = 0x3f000000;  // 0

// The size of the number of items, which precedes the items of a list or record.
inline constexpr size_t kHostCountSize = 4;
