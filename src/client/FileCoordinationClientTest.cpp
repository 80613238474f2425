// FileCoordinationClient against a real IpcListener in a temporary runtime directory, where a
// handler table stands in for the service: what goes out, how replies decode, a missing
// service, a service that never answers.
#include "client/FileCoordinationClient.h"

#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcListener.h"
#include "platform/ipc/IpcListenerDelegate.h"
#include "platform/ipc/IpcTestSupport.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
namespace S = platform::FileCoordinationSelector;
using namespace std::chrono_literals;
using platform::ErrorPtr;
using platform::IpcConnection;
using platform::ReplyBlock;
using platform::Url;
using platform::Value;
using platform::testing::Inbox;

// Records the URL of every request; reads answer `readAnswer`, writes answer at once, unless
// `hold` keeps the reply blocks.
class FakeCoordinationService final : public platform::IpcListenerDelegate {
 public:
  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override {
    auto table = std::make_shared<platform::IpcHandlerTable>();
    table->on(S::kCoordinateReading, [this](Value::Array args, std::optional<ReplyBlock> reply) {
      requests.push(std::string("read ") + args[0].url()->absoluteString());
      if (hold)
        held.push(*reply);
      else
        (*reply)({Value(readAnswer)});
    });
    table->on(S::kDidFinishWriting, [this](Value::Array args, std::optional<ReplyBlock> reply) {
      requests.push(std::string("write ") + args[0].url()->absoluteString());
      if (hold)
        held.push(*reply);
      else
        (*reply)({});
    });
    connection->setExportedInterface(platform::FileCoordinationInterface());
    connection->setExportedObject(table);
    connection->resume();
    return true;
  }

  Inbox<std::string> requests;
  Inbox<ReplyBlock> held;
  ErrorPtr readAnswer;
  bool hold = false;
};

class FileCoordinationClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-coordclient-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    ::setenv("DASKEL_RUNTIME_DIR", root_.c_str(), 1);
  }
  void TearDown() override {
    listener_.reset();
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  void serve() {
    auto listener = platform::IpcListener::create(platform::kFileCoordinationServiceName);
    ASSERT_TRUE(listener) << listener.error()->description();
    listener_ = *listener;
    listener_->setDelegate(service_);
    listener_->resume();
  }

  std::string root_;
  std::shared_ptr<FakeCoordinationService> service_ = std::make_shared<FakeCoordinationService>();
  std::shared_ptr<platform::IpcListener> listener_;
  const Url url_ = *Url::fromString("file:///home/u/Storage/Report%20One.txt");
};

TEST_F(FileCoordinationClientTest, AReadSendsTheURLAndReturnsTheServicesError) {
  service_->readAnswer = DKNotPermittedError();
  serve();
  auto client = FileCoordinationClient::connect();
  ASSERT_TRUE(client);
  const ErrorPtr error = (*client)->coordinateReadingItemAtURLSync(url_, 20s);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, static_cast<std::int64_t>(DKErrorCode::NotPermitted));
  EXPECT_EQ(service_->requests.items(), std::vector<std::string>{"read " + url_.absoluteString()});

  service_->readAnswer = nullptr;
  EXPECT_EQ((*client)->coordinateReadingItemAtURLSync(url_, 20s), nullptr);
}

TEST_F(FileCoordinationClientTest, AWriteNoticeSucceedsOnItsEmptyReplyAsyncAndBlocking) {
  serve();
  auto client = FileCoordinationClient::connect();
  ASSERT_TRUE(client);
  EXPECT_EQ((*client)->didFinishWritingItemAtURLSync(url_, 20s), nullptr);
  Inbox<ErrorPtr> replies;
  (*client)->didFinishWritingItemAtURL(url_, [&replies](ErrorPtr error) { replies.push(error); });
  ASSERT_TRUE(replies.waitForCount(1));
  EXPECT_EQ(replies.items()[0], nullptr);
  EXPECT_EQ(service_->requests.items(),
            (std::vector<std::string>{"write " + url_.absoluteString(),
                                      "write " + url_.absoluteString()}));
}

TEST_F(FileCoordinationClientTest, WithoutTheServiceConnectSaysItIsNotRunning) {
  auto client = FileCoordinationClient::connect();
  ASSERT_FALSE(client);
  EXPECT_NE(client.error()->description().find(
                "service com.orvane.FileCoordination is not running"),
            std::string::npos)
      << client.error()->description();
}

TEST_F(FileCoordinationClientTest, AnUnansweredReadTimesOutAndAClosedServiceFailsTheCall) {
  service_->hold = true;
  serve();
  auto client = FileCoordinationClient::connect();
  ASSERT_TRUE(client);
  const ErrorPtr timedOut = (*client)->coordinateReadingItemAtURLSync(url_, 50ms);
  ASSERT_TRUE(timedOut);
  EXPECT_EQ(timedOut->domain, kDaskelClientErrorDomain);
  EXPECT_EQ(timedOut->code, static_cast<std::int64_t>(DaskelClientErrorCode::TimedOut));

  Inbox<ErrorPtr> replies;
  (*client)->coordinateReadingItemAtURL(url_, [&replies](ErrorPtr error) { replies.push(error); });
  ASSERT_TRUE(service_->held.waitForCount(2));
  (*client)->invalidate();
  ASSERT_TRUE(replies.waitForCount(1));
  ASSERT_TRUE(replies.items()[0]);
  EXPECT_EQ(replies.items()[0]->domain, kIpcErrorDomain);
}

}  // namespace
}  // namespace daskel
