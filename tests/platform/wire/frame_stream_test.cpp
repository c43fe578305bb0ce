#include "platform/host/wire/frame_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/passed_descriptors.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct SocketPair {
  SocketPair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)); }
  ~SocketPair() {
    close(ends[0]);
    close(ends[1]);
  }
  void Write(const uint8_t* bytes, size_t size) {
    ASSERT_EQ(static_cast<ssize_t>(size), send(ends[0], bytes, size, MSG_NOSIGNAL));
  }
  int ends[2];
};

Bytes FrameOf(const std::string& body, uint64_t number, HostFrameKind kind) {
  HostFrameHeader header;
  header.kind = kind;
  header.bodySize = static_cast<uint32_t>(body.size());
  header.requestNumber = number;
  uint8_t head[kHostFrameHeaderSize];
  HostEncodeFrameHeader(header, head);
  Bytes frame(head, head + sizeof head);
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

std::string PatternOf(size_t size) {
  std::string text(size, 0);
  for (size_t i = 0; i < size; i++) text[i] = static_cast<char>(i * 31 + i / 251);
  return text;
}

std::string TextOf(const HostFrameSlice& slice) {
  return std::string(reinterpret_cast<const char*>(slice.bytes), slice.size);
}

// Receives until a frame is complete; fails when the stream has nothing more.
bool ReadFrame(HostFrameReader& reader, int fd, HostFrameHeader* header, std::string* body) {
  for (;;) {
    HostFrameSlice slice;
    const auto next = reader.Take(header, &slice);
    if (next == HostFrameReader::Next::kBad) return false;
    if (next == HostFrameReader::Next::kFrame) {
      *body = TextOf(slice);
      return true;
    }
    if (reader.Receive(fd, MSG_DONTWAIT) <= 0) return false;
  }
}

TEST(FrameReader, EverySplitOfAFrameGivesTheSameBytes) {
  const std::string body = PatternOf(1024 - kHostFrameHeaderSize);
  Bytes stream = FrameOf(body, 7, HostFrameKind::kRequest);
  const Bytes second = FrameOf("second", 8, HostFrameKind::kRequest);
  stream.insert(stream.end(), second.begin(), second.end());
  for (size_t split = 1; split < stream.size(); split++) {
    SCOPED_TRACE(split);
    SocketPair sockets;
    HostFrameReader reader;
    sockets.Write(stream.data(), split);
    ASSERT_GT(reader.Receive(sockets.ends[1], MSG_DONTWAIT), 0);
    ASSERT_EQ(split >= 1024, reader.HasCompleteFrame());
    sockets.Write(stream.data() + split, stream.size() - split);
    HostFrameHeader header;
    std::string text;
    ASSERT_TRUE(ReadFrame(reader, sockets.ends[1], &header, &text));
    ASSERT_EQ(7u, header.requestNumber);
    ASSERT_EQ(body, text);
    ASSERT_TRUE(ReadFrame(reader, sockets.ends[1], &header, &text));
    ASSERT_EQ("second", text);
    ASSERT_EQ(0u, reader.PartialBytes());
  }
}

TEST(FrameReader, AFrameThatIsHeldDoesNotChangeWhileLaterOnesArrive) {
  SocketPair sockets;
  HostFrameReader reader;
  std::vector<HostFrameSlice> slices;
  std::vector<std::string> bodies;
  for (const size_t size : {10u, 70000u, 0u, 3000u, 130000u, 1u}) {
    bodies.push_back(PatternOf(size));
    const Bytes frame = FrameOf(bodies.back(), size, HostFrameKind::kRequest);
    size_t sent = 0;
    while (sent < frame.size() || reader.HasCompleteFrame()) {
      const size_t part = std::min<size_t>(40000, frame.size() - sent);
      if (part > 0) sockets.Write(frame.data() + sent, part);
      sent += part;
      if (!reader.HasCompleteFrame()) {
        ASSERT_GT(reader.Receive(sockets.ends[1], MSG_DONTWAIT), 0);
      }
      HostFrameHeader header;
      HostFrameSlice slice;
      if (reader.Take(&header, &slice) == HostFrameReader::Next::kFrame) slices.push_back(slice);
    }
  }
  ASSERT_EQ(bodies.size(), slices.size());
  for (size_t i = 0; i < bodies.size(); i++) EXPECT_EQ(bodies[i], TextOf(slices[i])) << i;
}

TEST(FrameReader, AnInvalidHeaderEndsTheStream) {
  const std::tuple<const char*, size_t, Bytes> rows[] = {{"magic", 0, {'x'}},
                                                         {"version", 4, {2}},
                                                         {"kind 0", 5, {0}},
                                                         {"kind 6", 5, {6}},
                                                         {"an offer with a body", 5, {3}},
                                                         {"unknown flag", 6, {0x80, 0}},
                                                         {"limit + 1", 8, {0x01, 0, 0, 0}},
                                                         {"2^32 - 1", 8, {0xFF, 0xFF, 0xFF, 0xFF}},
                                                         {"reserved", 12, {0, 0, 0, 1}}};
  for (const auto& [what, offset, bytes] : rows) {
    SCOPED_TRACE(what);
    SocketPair sockets;
    HostFrameReader reader;
    Bytes broken = FrameOf("body", 2, HostFrameKind::kRequest);
    std::copy(bytes.begin(), bytes.end(), broken.begin() + static_cast<ptrdiff_t>(offset));
    sockets.Write(broken.data(), broken.size());
    ASSERT_GT(reader.Receive(sockets.ends[1], MSG_DONTWAIT), 0);
    HostFrameHeader header;
    HostFrameSlice slice;
    EXPECT_EQ(HostFrameReader::Next::kBad, reader.Take(&header, &slice));
    EXPECT_TRUE(reader.IsBad());
  }
}

// Two kinds of frames carry file descriptors, which are closed in all other cases.

// The reading end shows whether the writing end is still open.
struct Pipe {
  Pipe() { EXPECT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK)); }
  ~Pipe() { close(ends[0]); }
  bool IsClosed() {
    char byte;
    return read(ends[0], &byte, 1) == 0;
  }
  int ends[2];
};

void WritePassing(int fd, const Bytes& bytes, Pipe& pipe, size_t count) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
            SendPassing(fd, text, std::vector<int>(count, pipe.ends[1])));
  close(pipe.ends[1]);
}

TEST(PassedDescriptors, ComeInPairsWithFramesThatCarryThem) {
  const Bytes offer = FrameOf("", 0, HostFrameKind::kLaneOffer);
  const Bytes request = FrameOf("body", 1, HostFrameKind::kRequest);
  Bytes both = offer;
  both.insert(both.end(), request.begin(), request.end());
  const auto partOf = [](const Bytes& all, size_t size) {
    return Bytes(all.begin(), all.begin() + static_cast<ptrdiff_t>(size));
  };
  const std::tuple<const char*, Bytes, size_t, bool> rows[] = {
      {"an offer", offer, 2, true},
      {"an acceptance", FrameOf("", 0, HostFrameKind::kLaneAccepted), 2, true},
      {"an offer with one", offer, 1, false},
      {"part of an offer", partOf(offer, 20), 2, false},
      {"an offer and more", both, 2, false},
      {"a refusal", FrameOf("", 0, HostFrameKind::kLaneDeclined), 2, false},
      {"a request", request, 2, false},
      {"a byte", partOf(request, 1), 1, false},
  };
  for (const auto& [what, bytes, count, isTaken] : rows) {
    for (const size_t before :
         {size_t{0}, size_t{68} * 1024 - 42}) {  // of the block it is read into
      SCOPED_TRACE(testing::Message() << what << " after " << before);
      SocketPair sockets;
      Pipe pipe;
      HostFrameReader reader(HostFrameReader::Passing::kTake);
      const Bytes first = FrameOf(PatternOf(before), 7, HostFrameKind::kRequest);
      sockets.Write(first.data(), first.size());
      WritePassing(sockets.ends[0], bytes, pipe, count);
      HostFrameHeader header;
      HostFrameSlice slice;
      ssize_t size = 0;
      size_t frames = 0;
      while ((size = reader.Receive(sockets.ends[1], MSG_DONTWAIT)) > 0) {
      }
      const int error = errno;
      while (reader.Take(&header, &slice) == HostFrameReader::Next::kFrame) frames++;
      EXPECT_TRUE(!isTaken || frames == 2);
      EXPECT_EQ(isTaken, error == EAGAIN && !reader.IsBad());
      EXPECT_EQ(isTaken, !pipe.IsClosed());
      EXPECT_EQ(isTaken, reader.TakePassed().IsComplete());
      EXPECT_TRUE(pipe.IsClosed());
    }
  }
}

TEST(PassedDescriptors, AreMissedInAnOfferWithoutThem) {
  SocketPair sockets;
  HostFrameReader reader(HostFrameReader::Passing::kTake);
  const Bytes offer = FrameOf("", 0, HostFrameKind::kLaneOffer);
  sockets.Write(offer.data(), offer.size());
  ASSERT_GT(reader.Receive(sockets.ends[1], MSG_DONTWAIT), 0);
  HostFrameHeader header;
  HostFrameSlice slice;
  EXPECT_EQ(HostFrameReader::Next::kBad, reader.Take(&header, &slice));
}

// Pieces of all sizes.
struct ManyPieces {
  explicit ManyPieces(size_t count) {
    for (size_t i = 0; i < count; i++) parts.push_back(PatternOf(i * 37 % 5000));
    for (std::string& part : parts) {
      pieces.push_back({part.data(), part.size()});
      whole += part;
    }
  }
  std::vector<std::string> parts;
  std::vector<iovec> pieces;
  std::string whole;
};

// Reads what the socket holds, at most `most` bytes.
std::string ReadSome(int fd, size_t most) {
  std::string text(most, '\0');
  size_t got = 0;
  for (ssize_t size; got < most; got += static_cast<size_t>(size)) {
    size = recv(fd, text.data() + got, most - got, MSG_DONTWAIT);
    if (size <= 0) break;
  }
  text.resize(got);
  return text;
}

TEST(WritePieces, AnyNumberOfPiecesArriveInOrderThroughAFullSocket) {
  for (const size_t count : {1u, 2u, 63u, 64u, 65u, 128u, 300u}) {
    SCOPED_TRACE(count);
    SocketPair sockets;
    ManyPieces many(count);
    std::string got;
    size_t written = 0;
    int error = EAGAIN;
    while (error == EAGAIN) {
      error = HostWritePieces(sockets.ends[0], many.pieces, &written);
      got += ReadSome(sockets.ends[1], 1 << 20);
      ASSERT_EQ(got.size(), written);
    }
    EXPECT_EQ(0, error);
    EXPECT_TRUE(many.whole == got);
  }
}

TEST(WritePieces, AClosedSocketIsAnErrorAndNoSignal) {
  SocketPair sockets;
  shutdown(sockets.ends[1], SHUT_RD);
  ManyPieces many(3);
  size_t written = 0;
  EXPECT_EQ(EPIPE, HostWritePieces(sockets.ends[0], many.pieces, &written));
  many.pieces.resize(1);
  many.pieces[0] = {many.whole.data(), many.whole.size()};
  EXPECT_EQ(EPIPE, HostWritePieces(sockets.ends[0], many.pieces, &written));
  HostOutQueue queue;
  ASSERT_TRUE(queue.Append(many.pieces, 0));
  EXPECT_EQ(EPIPE, queue.Flush(sockets.ends[0]));
}

// The first frame was partly written before it was queued.
TEST(OutQueue, HundredsOfFramesLeaveItInOrder) {
  for (const size_t begun : {0u, 1u, 36u, 37u, 38u, 5000u}) {
    SCOPED_TRACE(begun);
    SocketPair sockets;
    HostOutQueue queue;
    ManyPieces frame(20);
    std::string expected = frame.whole.substr(begun), got;
    ASSERT_TRUE(queue.Append(frame.pieces, begun));
    EXPECT_EQ(0u, queue.WaitingSize());  // the frame that is being written does not count
    for (size_t i = 0; i < 400; i++) {
      std::string text = PatternOf(3000 + i);
      const iovec piece = {text.data(), text.size()};
      ASSERT_TRUE(queue.Append({&piece, 1}, 0));
      expected += text;
      if (i % 3 != 2) continue;
      const int error = queue.Flush(sockets.ends[0]);
      ASSERT_TRUE(error == 0 || error == EAGAIN);
      got += ReadSome(sockets.ends[1], 8000);
    }
    EXPECT_FALSE(queue.IsEmpty());
    while (queue.Flush(sockets.ends[0]) == EAGAIN) got += ReadSome(sockets.ends[1], 1 << 20);
    got += ReadSome(sockets.ends[1], 1 << 20);
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_TRUE(expected == got);
  }
}

}  // namespace
