// The file-coordination service in one process: a real listener in a temporary runtime
// directory, real IPC connections as clients, and recording providers (CoordinationProvider is
// the coordinator's own seam) registered with a coordinator of the test's own. Covers the
// routing of reads and write notices, the queue they are made on, when the replies go out,
// who the reader is, and refused requests.
#include "platform/coordination/FileCoordinationService.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/errors/DKErrors.h"
#include "platform/identity/ApplicationRegistry.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcListener.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
namespace S = FileCoordinationSelector;
using testing::Inbox;
using testing::kIpcTestDeadline;

// What a provider was asked, and whether it was asked on its own operation queue.
struct Call {
  std::string kind;  // "read" or "write"
  Url url;
  Value processID;
  bool onOperationQueue = false;
};

// A provider for one directory that records its calls. Reads keep their completion for the
// test to call (answerReads), unless `answerAtOnce` has it called right away with `answer`
// (twice when `answerTwice`, as a provider with a late connection error might).
class RecordingProvider : public CoordinationProvider {
 public:
  explicit RecordingProvider(Url directory)
      : directory_(std::move(directory)),
        queue_(std::make_shared<OperationQueue>("recording provider")) {}

  std::optional<Url> _providedItemsURL() const override { return directory_; }
  std::shared_ptr<OperationQueue> _providedItemsOperationQueue() const override { return queue_; }
  std::string _fileReactorID() const override { return "recording provider"; }
  void _provideItemAtURL(const Url& url, Completion completion) override {
    _provideItemAtURL(url, Value(), std::move(completion));
  }
  void _provideItemAtURL(const Url& url, const Value& readerID, Completion completion) override {
    {
      std::lock_guard lock(mutex_);
      if (!answerAtOnce)
        held_.push_back(completion);
    }
    calls.push({"read", url, readerID, queue_->isCurrent()});
    if (answerAtOnce) {
      completion(answer);
      if (answerTwice)
        completion(nullptr);
    }
  }
  void _writerWithID(const Value& writerID, const Url& url) override {
    calls.push({"write", url, writerID, queue_->isCurrent()});
  }

  void answerReads(const ErrorPtr& error) {
    std::vector<Completion> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (auto& completion : held)
      completion(error);
  }

  Inbox<Call> calls;
  bool answerAtOnce = true;
  bool answerTwice = false;
  ErrorPtr answer;

 private:
  const Url directory_;
  const std::shared_ptr<OperationQueue> queue_;
  std::mutex mutex_;
  std::vector<Completion> held_;
};

class FileCoordinationServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "daskel-coordination-service-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = fs::canonical(pattern).string();
    fs::create_directories(root_ + "/run");
    fs::create_directories(root_ + "/applications");
    ::setenv("DASKEL_RUNTIME_DIR", (root_ + "/run").c_str(), 1);

    alpha_ = addProvider("alpha");
    beta_ = addProvider("beta");
    auto service = FileCoordinationService::create(
        {.serviceName = "test.FileCoordination",
         .coordinator = &coordinator_,
         .applications =
             std::make_shared<const ApplicationRegistry>(std::vector{root_ + "/applications"})});
    ASSERT_TRUE(service.has_value()) << service.error()->description();
    service_ = *service;
    service_->resume();
  }

  void TearDown() override {
    for (auto& connection : connections_)
      connection->invalidate();
    service_.reset();
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  std::shared_ptr<RecordingProvider> addProvider(const std::string& name) {
    fs::create_directories(root_ + "/" + name);
    auto provider =
        std::make_shared<RecordingProvider>(*Url::fileUrlWithPath(root_ + "/" + name, true));
    coordinator_.addProvider(provider);
    return provider;
  }

  Url item(const std::string& relative) const {
    return *Url::fileUrlWithPath(root_ + "/" + relative, false);
  }

  std::shared_ptr<IpcConnection> connect() {
    auto connection = IpcConnection::connectToService("test.FileCoordination");
    EXPECT_TRUE(connection.has_value());
    (*connection)->setRemoteInterface(FileCoordinationInterface());
    (*connection)->resume();
    connections_.push_back(*connection);
    return *connection;
  }

  // Sends `selector` with `argument`; the reply's values (or a connection error) arrive in the
  // returned inbox.
  std::shared_ptr<Inbox<Value::Array>> send(const char* selector, Value argument) {
    auto replies = std::make_shared<Inbox<Value::Array>>();
    auto proxy = connect()->remoteObjectProxyWithErrorHandler(
        [replies](const ErrorPtr& error) { replies->push({Value("connection error"), Value(error)}); });
    proxy->call(selector, {std::move(argument)},
                [replies](Value::Array values) { replies->push(std::move(values)); });
    return replies;
  }

  std::string root_;
  FileCoordinator coordinator_;
  std::shared_ptr<RecordingProvider> alpha_;
  std::shared_ptr<RecordingProvider> beta_;
  std::shared_ptr<FileCoordinationService> service_;
  std::vector<std::shared_ptr<IpcConnection>> connections_;
};

// ---- reads ----

TEST_F(FileCoordinationServiceTest, AReadGoesToTheOwnerOnItsQueueAndRepliesWithItsAnswer) {
  alpha_->answer = DKNotPermittedError();
  auto replies = send(S::kCoordinateReading, Value(item("alpha/Notes/plan.txt")));
  ASSERT_TRUE(replies->waitForCount(1));

  ASSERT_EQ(replies->items()[0].size(), 1u);
  const ErrorPtr error = replies->items()[0][0].error();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kDKErrorDomain);
  EXPECT_EQ(error->code, static_cast<std::int64_t>(DKErrorCode::NotPermitted));
  const auto calls = alpha_->calls.items();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, "read");
  EXPECT_EQ(calls[0].url, item("alpha/Notes/plan.txt"));
  EXPECT_TRUE(calls[0].onOperationQueue);
  EXPECT_EQ(beta_->calls.size(), 0u);
}

TEST_F(FileCoordinationServiceTest, AReadIsAnsweredOnlyWhenTheProviderHasAnswered) {
  alpha_->answerAtOnce = false;
  auto replies = send(S::kCoordinateReading, Value(item("alpha/big.iso")));
  ASSERT_TRUE(alpha_->calls.waitForCount(1));
  // The provider holds the completion: no reply can have been sent.
  EXPECT_EQ(replies->size(), 0u);

  alpha_->answerReads(nullptr);
  ASSERT_TRUE(replies->waitForCount(1));
  EXPECT_EQ(replies->items()[0], Value::Array{Value()});
}

TEST_F(FileCoordinationServiceTest, AProviderAnsweringTwiceGivesOneReply) {
  alpha_->answerTwice = true;
  alpha_->answer = DKNotPermittedError();
  auto replies = send(S::kCoordinateReading, Value(item("alpha/twice.txt")));
  ASSERT_TRUE(replies->waitForCount(1));
  // A second reply to one id would have the client refuse it and close the connection; a
  // follow-up read on the same connection shows it is still open.
  auto connection = connections_.back();
  auto again = std::make_shared<Inbox<Value::Array>>();
  connection->remoteObjectProxyWithErrorHandler([again](const ErrorPtr&) {
    again->push({Value("connection error")});
  })->call(S::kCoordinateReading, {Value(item("nobody/x"))},
           [again](Value::Array values) { again->push(std::move(values)); });
  ASSERT_TRUE(again->waitForCount(1));
  EXPECT_EQ(again->items()[0], Value::Array{Value()});
  EXPECT_EQ(replies->size(), 1u);
}

TEST_F(FileCoordinationServiceTest, AReadOfAURLNobodyOwnsIsAnsweredAtOnceWithNil) {
  for (const Url& url : {item("elsewhere/file.txt"), *Url::fileUrlWithPath(root_ + "/alpha", true),
                         *Url::fromString("https://example.com/alpha/file.txt")}) {
    auto replies = send(S::kCoordinateReading, Value(url));
    ASSERT_TRUE(replies->waitForCount(1)) << url.absoluteString();
    EXPECT_EQ(replies->items()[0], Value::Array{Value()}) << url.absoluteString();
  }
  EXPECT_EQ(alpha_->calls.size(), 0u);
  EXPECT_EQ(beta_->calls.size(), 0u);
}

// ---- write notices ----

TEST_F(FileCoordinationServiceTest, AWriteNoticeIsRepliedToOnlyAfterTheOwnerWasHandedIt) {
  auto replies = send(S::kDidFinishWriting, Value(item("beta/report.txt")));
  ASSERT_TRUE(replies->waitForCount(1));
  EXPECT_EQ(replies->items()[0], Value::Array{});
  // Checked without waiting: the reply follows the hand-over.
  const auto calls = beta_->calls.items();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, "write");
  EXPECT_EQ(calls[0].url, item("beta/report.txt"));
  EXPECT_TRUE(calls[0].onOperationQueue);
  EXPECT_EQ(alpha_->calls.size(), 0u);
}

TEST_F(FileCoordinationServiceTest, AWriteNoticeForAStorageDirectoryItselfReachesItsProvider) {
  const Url directory = *Url::fileUrlWithPath(root_ + "/alpha", true);
  auto replies = send(S::kDidFinishWriting, Value(directory));
  ASSERT_TRUE(replies->waitForCount(1));
  const auto calls = alpha_->calls.items();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, "write");
  EXPECT_EQ(calls[0].url, directory);
}

TEST_F(FileCoordinationServiceTest, AWriteNoticeForAURLNobodyOwnsIsAnsweredAtOnce) {
  auto replies = send(S::kDidFinishWriting, Value(item("elsewhere/file.txt")));
  ASSERT_TRUE(replies->waitForCount(1));
  EXPECT_EQ(replies->items()[0], Value::Array{});
  EXPECT_EQ(alpha_->calls.size() + beta_->calls.size(), 0u);
}

// ---- who calls ----

TEST_F(FileCoordinationServiceTest, TheProcessIsNamedByPidAndUnknownWithoutAManifest) {
  auto replies = send(S::kDidFinishWriting, Value(item("alpha/a.txt")));
  ASSERT_TRUE(replies->waitForCount(1));
  EXPECT_EQ(alpha_->calls.items().at(0).processID,
            Value("pid " + std::to_string(::getpid()) + " (unknown)"));
}

TEST_F(FileCoordinationServiceTest, TheProcessIsNamedByItsBundleIdentifierWhenAManifestNamesIt) {
  const std::string executable = fs::read_symlink("/proc/self/exe").string();
  const Value manifest(Value::Dictionary{
      {"BundleIdentifier", Value("org.example.coordination-test")},
      {"Executables", Value(Value::Array{Value(executable)})},
      {"Entitlements", Value(Value::Dictionary{})},
  });
  ASSERT_TRUE(writePropertyListAtomically(manifest, root_ + "/applications/test.plist"));
  ASSERT_EQ(::chmod((root_ + "/applications/test.plist").c_str(), 0644), 0);

  auto replies = send(S::kCoordinateReading, Value(item("alpha/b.txt")));
  ASSERT_TRUE(replies->waitForCount(1));
  EXPECT_EQ(alpha_->calls.items().at(0).processID,
            Value("pid " + std::to_string(::getpid()) + " (org.example.coordination-test)"));
}

// ---- refusals ----

TEST_F(FileCoordinationServiceTest, ARequestWithoutAURLIsRefusedWithAnErrorLine) {
  CapturingLogSink::Scope log;
  auto read = send(S::kCoordinateReading, Value());
  ASSERT_TRUE(read->waitForCount(1));
  const ErrorPtr error = read->items()[0].at(0).error();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, static_cast<std::int64_t>(DKErrorCode::InvalidParameter));

  auto write = send(S::kDidFinishWriting, Value());
  ASSERT_TRUE(write->waitForCount(1));
  EXPECT_EQ(write->items()[0], Value::Array{});

  const auto lines = log->lines();
  const auto refusals = std::count_if(lines.begin(), lines.end(), [](const auto& line) {
    return line.level == kLogError && line.message.starts_with("Refused ") &&
           line.message.ends_with(": no URL given.");
  });
  EXPECT_EQ(refusals, 2);
  EXPECT_EQ(alpha_->calls.size() + beta_->calls.size(), 0u);
}

TEST(FileCoordinationServiceNames, ProcessDescriptionsNameThePidAndTheBundle) {
  EXPECT_EQ(FileCoordinationService::processDescription(4242, "org.example.app"),
            "pid 4242 (org.example.app)");
  EXPECT_EQ(FileCoordinationService::processDescription(7, std::nullopt), "pid 7 (unknown)");
}

}  // namespace
}  // namespace daskel::platform
