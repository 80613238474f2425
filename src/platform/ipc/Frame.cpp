#include "platform/ipc/Frame.h"

#include <string>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {

namespace {

ErrorPtr refused(const std::string& why) {
  return IpcError(IpcErrorCode::MessageRefused, why);
}

std::string lengthRefusal(std::uint64_t length) {
  if (length == 0) {
    return "a frame of length 0";
  }
  return "a frame of length " + std::to_string(length) + ", over the limit of " +
         std::to_string(kMaxFrameSize);
}

// A buffer that once held a big frame gives its memory back when it empties.
constexpr std::size_t kRetainedCapacity = 64 * 1024;

}  // namespace

Result<std::vector<std::uint8_t>> encodeFrame(std::span<const std::uint8_t> payload) {
  if (payload.empty() || payload.size() > kMaxFrameSize) {
    return failure(refused("cannot send " + lengthRefusal(payload.size())));
  }
  std::vector<std::uint8_t> frame;
  frame.reserve(kFrameHeaderSize + payload.size());
  const auto length = static_cast<std::uint32_t>(payload.size());
  frame.push_back(static_cast<std::uint8_t>(length >> 24));
  frame.push_back(static_cast<std::uint8_t>(length >> 16));
  frame.push_back(static_cast<std::uint8_t>(length >> 8));
  frame.push_back(static_cast<std::uint8_t>(length));
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

Result<void> FrameReader::checkHeader() {
  if (violation_) {
    return failure(violation_);
  }
  if (pendingLength_ != 0 || bufferedSize() < kFrameHeaderSize) {
    return {};
  }
  const std::uint8_t* header = buffer_.data() + consumed_;
  const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                               (std::uint32_t{header[2]} << 8) | std::uint32_t{header[3]};
  if (length == 0 || length > kMaxFrameSize) {
    violation_ = refused(lengthRefusal(length));
    return failure(violation_);
  }
  pendingLength_ = length;
  return {};
}

Result<void> FrameReader::append(std::span<const std::uint8_t> bytes) {
  if (violation_) {
    return failure(violation_);
  }
  if (consumed_ > 0) {
    // Drop what was handed out; only the unfinished tail moves.
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  return checkHeader();
}

Result<std::optional<std::vector<std::uint8_t>>> FrameReader::nextFrame() {
  if (auto header = checkHeader(); !header) {
    return failure(header.error());
  }
  if (pendingLength_ == 0 || bufferedSize() < kFrameHeaderSize + pendingLength_) {
    return std::optional<std::vector<std::uint8_t>>();
  }
  const auto begin = buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_ + kFrameHeaderSize);
  std::vector<std::uint8_t> payload(begin, begin + static_cast<std::ptrdiff_t>(pendingLength_));
  consumed_ += kFrameHeaderSize + pendingLength_;
  pendingLength_ = 0;
  if (consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
    if (buffer_.capacity() > kRetainedCapacity) {
      buffer_.shrink_to_fit();
    }
  }
  return std::optional<std::vector<std::uint8_t>>(std::move(payload));
}

Result<void> FrameReader::finish() {
  if (violation_) {
    return failure(violation_);
  }
  const std::size_t left = bufferedSize();
  if (left == 0) {
    return {};
  }
  if (left < kFrameHeaderSize) {
    violation_ =
        refused("the stream ended inside a frame header (" + std::to_string(left) + " of 4 bytes)");
  } else {
    violation_ =
        refused("the stream ended inside a frame (" + std::to_string(left - kFrameHeaderSize) +
                " of " + std::to_string(pendingLength_) + " bytes)");
  }
  return failure(violation_);
}

}  // namespace daskel::platform
