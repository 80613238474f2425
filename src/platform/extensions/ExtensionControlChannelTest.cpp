#include "platform/extensions/ExtensionControlChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {
namespace {

struct Channels {
  ExtensionControlChannel daemon;
  ExtensionControlChannel extension;
};

Channels makeChannels() {
  auto pair = ExtensionControlChannel::makeSocketPair();
  EXPECT_TRUE(pair.has_value());
  // ScopedFd cannot give its descriptor up, so the channels get duplicates.
  return Channels{ExtensionControlChannel(::dup(pair->first.get())),
                  ExtensionControlChannel(::dup(pair->second.get()))};
}

// Sends raw bytes with `fds` attached on `fd`, the way a confused or hostile peer would.
void sendRaw(int fd, const std::vector<unsigned char>& bytes, const std::vector<int>& fds = {}) {
  iovec iov{const_cast<unsigned char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &iov;
  message.msg_iovlen = 1;
  std::vector<char> control(CMSG_SPACE(sizeof(int) * fds.size()));
  if (!fds.empty()) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
    std::memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
  }
  ASSERT_GE(::sendmsg(fd, &message, MSG_NOSIGNAL), 0) << std::strerror(errno);
}

// {"<key>": "<text>"} in CBOR.
std::vector<unsigned char> textMap(const std::string& key, const std::string& text) {
  std::vector<unsigned char> out{0xA1, static_cast<unsigned char>(0x60 + key.size())};
  out.insert(out.end(), key.begin(), key.end());
  out.push_back(0x78);
  out.push_back(static_cast<unsigned char>(text.size()));
  out.insert(out.end(), text.begin(), text.end());
  return out;
}

// A stream socket pair whose first end is sent, so that its arrival can be checked through
// the second end.
std::pair<ScopedFd, ScopedFd> streamPair() {
  int fds[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  return {ScopedFd(fds[0]), ScopedFd(fds[1])};
}

void expectRefused(const Result<std::optional<ControlMessage>>& result, const std::string& what) {
  ASSERT_FALSE(result.has_value()) << "accepted " << what;
  EXPECT_EQ(result.error()->domain, kIpcErrorDomain) << what;
  EXPECT_EQ(result.error()->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused)) << what;
}

TEST(ExtensionControlChannelTest, ReadyBeginAndCancelArriveInOrderWithTheRequestSocket) {
  Channels c = makeChannels();
  auto [sent, kept] = streamPair();
  const std::string uuid = ExtensionControlChannel::makeRequestUuid();

  ASSERT_TRUE(c.extension.sendReady().has_value());
  ASSERT_TRUE(c.daemon.sendBegin(uuid, sent.get()).has_value());
  ASSERT_TRUE(c.daemon.sendCancel(uuid).has_value());

  auto ready = c.daemon.receive();
  ASSERT_TRUE(ready.has_value() && ready->has_value());
  EXPECT_EQ((*ready)->kind, ControlMessage::Kind::Ready);

  auto begin = c.extension.receive();
  ASSERT_TRUE(begin.has_value() && begin->has_value());
  EXPECT_EQ((*begin)->kind, ControlMessage::Kind::Begin);
  EXPECT_EQ((*begin)->requestUuid, uuid);
  ASSERT_TRUE((*begin)->requestSocket.valid());
  // The received descriptor is the same socket: bytes written to it come out of `kept`.
  ASSERT_EQ(::write((*begin)->requestSocket.get(), "x", 1), 1);
  char byte = 0;
  ASSERT_EQ(::read(kept.get(), &byte, 1), 1);
  EXPECT_EQ(byte, 'x');

  auto cancel = c.extension.receive();
  ASSERT_TRUE(cancel.has_value() && cancel->has_value());
  EXPECT_EQ((*cancel)->kind, ControlMessage::Kind::Cancel);
  EXPECT_EQ((*cancel)->requestUuid, uuid);
  EXPECT_FALSE((*cancel)->requestSocket.valid());
}

TEST(ExtensionControlChannelTest, APeerThatClosesIsReportedAsNoMessageNotAsAnError) {
  auto pair = ExtensionControlChannel::makeSocketPair();
  ASSERT_TRUE(pair.has_value());
  ExtensionControlChannel daemon(::dup(pair->first.get()));
  pair->first.reset();
  pair->second.reset();
  auto result = daemon.receive();
  ASSERT_TRUE(result.has_value());
  EXPECT_FALSE(result->has_value());
  // Sending to a closed peer is a POSIX error, not a signal.
  auto sent = daemon.sendReady();
  ASSERT_FALSE(sent.has_value());
  EXPECT_EQ(sent.error()->code, EPIPE);
}

TEST(ExtensionControlChannelTest, MalformedPacketsAreRefusedAndTheirDescriptorsClosed) {
  Channels c = makeChannels();
  const std::string uuid = ExtensionControlChannel::makeRequestUuid();

  sendRaw(c.daemon.fd(), {0xFF, 0x00});
  expectRefused(c.extension.receive(), "bad CBOR");
  sendRaw(c.daemon.fd(), textMap("stop", uuid));
  expectRefused(c.extension.receive(), "an unknown key");
  sendRaw(c.daemon.fd(), textMap("begin", uuid));
  expectRefused(c.extension.receive(), "a begin without a descriptor");
  sendRaw(c.daemon.fd(), {0xA1, 0x65, 'r', 'e', 'a', 'd', 'y', 0xF4});
  expectRefused(c.extension.receive(), "ready: false");
  sendRaw(c.daemon.fd(), textMap("cancel", "2F1E2B7C-0D4A-4C1B-9E1A-3B2C1D0E9F8A"));
  expectRefused(c.extension.receive(), "an upper-case UUID");
  sendRaw(c.daemon.fd(), textMap("cancel", "not-a-uuid"));
  expectRefused(c.extension.receive(), "a malformed UUID");
  sendRaw(c.daemon.fd(), std::vector<unsigned char>(1000, 0xA1));
  expectRefused(c.extension.receive(), "an oversized packet");
  // Near misses of the usual shape, which the quick reading of well-formed packets must not
  // take: bytes after the map, an indefinite or tagged UUID, a byte-string key, two keys.
  std::vector<unsigned char> trailing = textMap("cancel", uuid);
  trailing.push_back(0x00);
  sendRaw(c.daemon.fd(), trailing);
  expectRefused(c.extension.receive(), "a cancel with bytes after it");
  // The UUID as the one chunk of an indefinite-length text string: 0x7F ... 0xFF.
  std::vector<unsigned char> indefinite = textMap("cancel", uuid);
  indefinite.insert(indefinite.begin() + 8, 0x7F);
  indefinite.push_back(0xFF);
  sendRaw(c.daemon.fd(), indefinite);
  expectRefused(c.extension.receive(), "a UUID as an indefinite string");
  std::vector<unsigned char> tagged = textMap("cancel", uuid);
  tagged.insert(tagged.begin() + 8, 0xC0);
  sendRaw(c.daemon.fd(), tagged);
  expectRefused(c.extension.receive(), "a tagged UUID");
  std::vector<unsigned char> byteKey = textMap("cancel", uuid);
  byteKey[1] = static_cast<unsigned char>(0x40 + 6);
  sendRaw(c.daemon.fd(), byteKey);
  expectRefused(c.extension.receive(), "a byte-string key");
  std::vector<unsigned char> twoKeys = textMap("cancel", uuid);
  twoKeys[0] = 0xA2;
  const std::vector<unsigned char> second = textMap("cancel", uuid);
  twoKeys.insert(twoKeys.end(), second.begin() + 1, second.end());
  sendRaw(c.daemon.fd(), twoKeys);
  expectRefused(c.extension.receive(), "a map with two keys");

  // Two descriptors with a begin, and one with a cancel: every one of them is closed, which
  // the kept ends see as end of file.
  auto [sentA, keptA] = streamPair();
  auto [sentB, keptB] = streamPair();
  auto [sentC, keptC] = streamPair();
  sendRaw(c.daemon.fd(), textMap("begin", uuid), {sentA.get(), sentB.get()});
  expectRefused(c.extension.receive(), "a begin with two descriptors");
  sendRaw(c.daemon.fd(), textMap("cancel", uuid), {sentC.get()});
  expectRefused(c.extension.receive(), "a cancel with a descriptor");
  sentA.reset();
  sentB.reset();
  sentC.reset();
  for (const ScopedFd* kept : {&keptA, &keptB, &keptC}) {
    char byte;
    EXPECT_EQ(::read(kept->get(), &byte, 1), 0) << "a refused packet's descriptor stayed open";
  }

  // The channel still works after refusals.
  ASSERT_TRUE(c.daemon.sendCancel(uuid).has_value());
  auto cancel = c.extension.receive();
  ASSERT_TRUE(cancel.has_value() && cancel->has_value());
  EXPECT_EQ((*cancel)->requestUuid, uuid);
}

TEST(ExtensionControlChannelTest, RequestUuidsAreDistinctLowerCaseVersionFourUuids) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string uuid = ExtensionControlChannel::makeRequestUuid();
    ASSERT_TRUE(ExtensionControlChannel::isWellFormedUuid(uuid)) << uuid;
    EXPECT_EQ(uuid[14], '4') << uuid;
    EXPECT_NE(std::string("89ab").find(uuid[19]), std::string::npos) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 200u);
  EXPECT_FALSE(ExtensionControlChannel::isWellFormedUuid("2f1e2b7c0d4a4c1b9e1a3b2c1d0e9f8a"));
  EXPECT_FALSE(ExtensionControlChannel::isWellFormedUuid("2f1e2b7c-0d4a-4c1b-9e1a-3b2c1d0e9f8g"));
}

}  // namespace
}  // namespace daskel::platform
