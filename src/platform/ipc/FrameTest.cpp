#include "platform/ipc/Frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {

// Defined in WireCodecTest.cpp, which watches the binary's operator new.
std::size_t largestAllocationDuring(const std::function<void()>& body);

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes framed(const Bytes& payload) {
  Result<Bytes> frame = encodeFrame(payload);
  EXPECT_TRUE(frame.has_value());
  return frame ? *frame : Bytes{};
}

Bytes header(std::uint32_t length) {
  return {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
          static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// Every complete frame the reader holds now, failing the test on a violation.
std::vector<Bytes> drain(FrameReader& reader) {
  std::vector<Bytes> frames;
  while (true) {
    auto next = reader.nextFrame();
    EXPECT_TRUE(next.has_value()) << (next ? "" : next.error()->localizedDescription());
    if (!next || !*next) {
      return frames;
    }
    frames.push_back(std::move(**next));
  }
}

void expectRefusal(const ErrorPtr& error, const std::string& text) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kIpcErrorDomain);
  EXPECT_EQ(error->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused));
  EXPECT_THAT(error->localizedDescription(), testing::HasSubstr(text));
}

TEST(Frame, EncodingPutsABigEndianLengthBeforeThePayload) {
  const Bytes payload(300, 0xab);
  const Bytes frame = framed(payload);
  ASSERT_EQ(frame.size(), 304u);
  EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 4), (Bytes{0x00, 0x00, 0x01, 0x2c}));
  EXPECT_EQ(Bytes(frame.begin() + 4, frame.end()), payload);
  EXPECT_EQ(framed({0xf6}), (Bytes{0x00, 0x00, 0x00, 0x01, 0xf6}));
}

TEST(Frame, EncodingRefusesAnEmptyOrOversizedPayload) {
  expectRefusal(encodeFrame(Bytes{}).error(), "length 0");
  expectRefusal(encodeFrame(Bytes(kMaxFrameSize + 1, 0)).error(), "over the limit");
  EXPECT_TRUE(encodeFrame(Bytes(kMaxFrameSize, 0)).has_value());
}

TEST(FrameReader, FramesArrivingByteByByteComeOutWholeAndInOrder) {
  const Bytes stream = concat({framed({1, 2, 3}), framed({4}), framed(Bytes(1000, 5))});
  FrameReader reader;
  std::vector<Bytes> frames;
  for (std::uint8_t byte : stream) {
    ASSERT_TRUE(reader.append(Bytes{byte}).has_value());
    for (Bytes& frame : drain(reader)) {
      frames.push_back(std::move(frame));
    }
  }
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0], (Bytes{1, 2, 3}));
  EXPECT_EQ(frames[1], (Bytes{4}));
  EXPECT_EQ(frames[2], Bytes(1000, 5));
  EXPECT_EQ(reader.bufferedSize(), 0u);
  EXPECT_TRUE(reader.finish().has_value());
}

TEST(FrameReader, ManyFramesInOneChunkAndAFrameAcrossChunksAllArrive) {
  const Bytes stream = concat({framed({1}), framed({2, 2}), framed({3, 3, 3}), framed({4, 4})});
  FrameReader reader;
  // First chunk: three whole frames and half of the fourth.
  const std::size_t cut = stream.size() - 2;
  ASSERT_TRUE(reader.append(std::span(stream).first(cut)).has_value());
  std::vector<Bytes> first = drain(reader);
  ASSERT_EQ(first.size(), 3u);
  EXPECT_EQ(first[2], (Bytes{3, 3, 3}));
  ASSERT_TRUE(reader.append(std::span(stream).subspan(cut)).has_value());
  std::vector<Bytes> second = drain(reader);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0], (Bytes{4, 4}));
}

TEST(FrameReader, AFrameOfExactlyTheLimitIsAccepted) {
  FrameReader reader;
  ASSERT_TRUE(reader.append(framed(Bytes(kMaxFrameSize, 7))).has_value());
  std::vector<Bytes> frames = drain(reader);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].size(), kMaxFrameSize);
}

TEST(FrameReader, LengthZeroIsRefusedAsSoonAsTheHeaderIsComplete) {
  FrameReader reader;
  ASSERT_TRUE(reader.append(Bytes{0x00, 0x00}).has_value());
  const auto refused = reader.append(Bytes{0x00, 0x00});
  ASSERT_FALSE(refused.has_value());
  expectRefusal(refused.error(), "length 0");
  // The violation sticks.
  EXPECT_FALSE(reader.nextFrame().has_value());
  EXPECT_FALSE(reader.append(framed({1})).has_value());
  EXPECT_FALSE(reader.finish().has_value());
}

TEST(FrameReader, LengthOverTheLimitIsRefusedBeforeAnyPayloadIsAllocated) {
  FrameReader reader;
  Result<void> refused;
  const std::size_t largest = largestAllocationDuring([&] {
    refused = reader.append(concat({header(kMaxFrameSize + 1), Bytes{1, 2, 3}}));
  });
  ASSERT_FALSE(refused.has_value());
  expectRefusal(refused.error(), "length 4194305, over the limit of 4194304");
  EXPECT_LT(largest, 4096u);

  FrameReader other;
  expectRefusal(other.append(header(0xffffffff)).error(), "over the limit");
}

TEST(FrameReader, BufferGrowsOnlyWithTheBytesReceived) {
  // A valid header announcing the largest frame, followed by a trickle of payload.
  FrameReader reader;
  const std::size_t largest = largestAllocationDuring([&] {
    ASSERT_TRUE(reader.append(header(kMaxFrameSize)).has_value());
    for (int i = 0; i < 10; ++i) {
      ASSERT_TRUE(reader.append(Bytes(100, 1)).has_value());
      auto next = reader.nextFrame();
      ASSERT_TRUE(next.has_value());
      EXPECT_FALSE(next->has_value());
    }
  });
  EXPECT_EQ(reader.bufferedSize(), 1004u);
  EXPECT_LT(largest, 8192u);
}

TEST(FrameReader, ABadHeaderAfterGoodFramesIsReportedAfterThem) {
  FrameReader reader;
  ASSERT_TRUE(reader.append(concat({framed({9}), header(0)})).has_value());
  auto first = reader.nextFrame();
  ASSERT_TRUE(first.has_value());
  ASSERT_TRUE(first->has_value());
  EXPECT_EQ(**first, (Bytes{9}));
  auto second = reader.nextFrame();
  ASSERT_FALSE(second.has_value());
  expectRefusal(second.error(), "length 0");
}

TEST(FrameReader, ATruncatedFrameWaitsForMoreAndIsRefusedAtEndOfStream) {
  FrameReader reader;
  ASSERT_TRUE(reader.append(concat({header(10), Bytes{1, 2, 3, 4, 5}})).has_value());
  auto next = reader.nextFrame();
  ASSERT_TRUE(next.has_value());
  EXPECT_FALSE(next->has_value());
  const auto finished = reader.finish();
  ASSERT_FALSE(finished.has_value());
  expectRefusal(finished.error(), "inside a frame (5 of 10 bytes)");
}

TEST(FrameReader, AStreamEndingInsideAHeaderIsRefused) {
  FrameReader reader;
  ASSERT_TRUE(reader.append(Bytes{0x00, 0x00}).has_value());
  expectRefusal(reader.finish().error(), "inside a frame header (2 of 4 bytes)");
}

TEST(FrameReader, AStreamEndingBetweenFramesIsClean) {
  FrameReader reader;
  EXPECT_TRUE(reader.finish().has_value());
  ASSERT_TRUE(reader.append(framed({1, 2})).has_value());
  EXPECT_EQ(drain(reader).size(), 1u);
  EXPECT_TRUE(reader.finish().has_value());
}

}  // namespace
}  // namespace daskel::platform
