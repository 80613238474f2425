// IpcListener and its service socket in a temporary runtime directory: taking the name,
// stale and live socket files, socket activation, the delegate, and the identity of accepted
// peers.
#include "platform/ipc/IpcListener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/dispatch/TestLatch.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using testing::Inbox;

// Accepts (configured with the echo service) or refuses every connection, and keeps them.
class TestDelegate : public IpcListenerDelegate {
 public:
  explicit TestDelegate(bool accepts = true) : accepts_(accepts) {}

  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override {
    offered.push(connection);
    if (!accepts_) {
      return false;
    }
    connection->setExportedInterface(testing::ipcTestInterface());
    connection->setExportedObject(testing::ipcEchoService());
    connection->resume();
    return true;
  }

  Inbox<std::shared_ptr<IpcConnection>> offered;

 private:
  const bool accepts_;
};

std::shared_ptr<IpcConnection> connectClient(const std::string& service) {
  auto connection = IpcConnection::connectToService(service);
  EXPECT_TRUE(connection) << (connection ? "" : connection.error()->description());
  if (!connection) {
    return nullptr;
  }
  (*connection)->setRemoteInterface(testing::ipcTestInterface());
  (*connection)->resume();
  return *connection;
}

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  return address;
}

// A listening Unix socket bound at `path`, as systemd would pass it; closed, what a killed
// daemon leaves behind.
int makeListeningSocket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = unixAddress(path);
  EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(fd, 8), 0);
  return fd;
}

// A socket connected to `path`; -1 when nobody listens there.
int connectRaw(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = unixAddress(path);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// LISTEN_FDNAMES naming descriptor `fd` `name` and every lower one from 3 "unrelated".
std::string fdNamesFor(int fd, const std::string& name) {
  std::string names;
  for (int i = 3; i < fd; ++i) {
    names += "unrelated:";
  }
  return names + name;
}

class IpcListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-ipc-listener-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    runtime_ = root_ / "run" / "daskel";  // missing: the listener creates it
    ::setenv("DASKEL_RUNTIME_DIR", runtime_.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    ::unsetenv("LISTEN_FDNAMES");
    ::unsetenv("DASKEL_RUNTIME_DIR");
    // A listener released by the test may finish on the loop thread and unlink its socket
    // while the directory is being removed; remove_all then stops at the vanished file.
    std::error_code error;
    for (int attempt = 0; attempt < 5 && (attempt == 0 || error); ++attempt) {
      error.clear();
      fs::remove_all(root_, error);
    }
    EXPECT_FALSE(error) << root_ << ": " << error.message();
  }

  std::string servicePath(const std::string& name) const { return (runtime_ / name).string(); }

  // Creates the listener of `name`, hands it `delegate` and resumes it.
  std::shared_ptr<IpcListener> serve(const std::string& name,
                                     const std::shared_ptr<TestDelegate>& delegate) {
    auto listener = IpcListener::create(name);
    EXPECT_TRUE(listener) << listener.error()->description();
    if (!listener) {
      return nullptr;
    }
    (*listener)->setDelegate(delegate);
    (*listener)->resume();
    return *listener;
  }

  fs::path root_;
  fs::path runtime_;
};

TEST_F(IpcListenerTest, ConnectingToAServiceNobodyRunsSaysSoWithThePath) {
  auto connection = IpcConnection::connectToService("test.absent");
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error()->domain, kIpcErrorDomain);
  EXPECT_EQ(connection.error()->code, 2);
  EXPECT_EQ(connection.error()->localizedDescription(),
            "service test.absent is not running (" + servicePath("test.absent") +
                ": No such file or directory)");
}

TEST_F(IpcListenerTest, RejectsServiceNamesThatAreNotOnePathComponent) {
  for (const char* name : {"", ".", "..", "a/b", "../escape"}) {
    EXPECT_FALSE(IpcListener::create(name)) << '"' << name << '"';
    EXPECT_FALSE(IpcConnection::connectToService(name)) << '"' << name << '"';
  }
}

TEST_F(IpcListenerTest, TakesTheNameAtOnceWithAWorldConnectableSocketInANewRuntimeDirectory) {
  auto listener = IpcListener::create("test.mode");
  ASSERT_TRUE(listener) << listener.error()->description();
  struct stat st{};
  ASSERT_EQ(::stat(servicePath("test.mode").c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  EXPECT_EQ((*listener)->socketPath(), servicePath("test.mode"));
  EXPECT_FALSE((*listener)->isSocketActivated());
}

TEST_F(IpcListenerTest, AnswersRequestsOnlyAfterResumeWhileClientsWaitInTheBacklog) {
  auto listener = IpcListener::create("test.backlog");
  ASSERT_TRUE(listener);
  auto delegate = std::make_shared<TestDelegate>();
  (*listener)->setDelegate(delegate);

  auto client = connectClient("test.backlog");  // succeeds: the backlog holds it
  ASSERT_TRUE(client);
  auto answers = std::make_shared<Inbox<std::string>>();
  client->remoteObjectProxy()->call("echo:completion:", {Value("early")},
                                    [answers](Value::Array v) { answers->push(*v[0].string()); });
  // A round trip through another service on the same loop: had the first listener been
  // watched, its connection would have been taken by now.
  auto otherDelegate = std::make_shared<TestDelegate>();
  auto other = serve("test.other", otherDelegate);
  ASSERT_TRUE(other);
  auto otherClient = connectClient("test.other");
  EXPECT_EQ(testing::ipcEcho(otherClient, "meanwhile"), "meanwhile");
  EXPECT_EQ(delegate->offered.size(), 0u);
  EXPECT_EQ(answers->size(), 0u);

  (*listener)->resume();
  ASSERT_TRUE(answers->waitForCount(1));
  EXPECT_EQ(answers->items().front(), "early");
  EXPECT_EQ(delegate->offered.size(), 1u);
  client->invalidate();
  otherClient->invalidate();
}

TEST_F(IpcListenerTest, HandsEachConnectionToTheDelegateWithThePeersKernelIdentity) {
  auto delegate = std::make_shared<TestDelegate>();
  auto listener = serve("test.identity", delegate);
  ASSERT_TRUE(listener);
  auto first = connectClient("test.identity");
  auto second = connectClient("test.identity");
  EXPECT_EQ(testing::ipcEcho(first, "one"), "one");
  EXPECT_EQ(testing::ipcEcho(second, "two"), "two");
  ASSERT_EQ(delegate->offered.size(), 2u);
  for (const auto& connection : delegate->offered.items()) {
    EXPECT_EQ(connection->processIdentifier(), ::getpid());
    ASSERT_TRUE(connection->auditToken());
    EXPECT_EQ(connection->auditToken()->uid(), ::getuid());
    EXPECT_EQ(connection->auditToken()->gid(), ::getgid());
    EXPECT_EQ(connection->serviceName(), "test.identity");
  }
  // The client side knows its server too.
  EXPECT_EQ(first->processIdentifier(), ::getpid());
  first->invalidate();
  second->invalidate();
}

TEST_F(IpcListenerTest, ClosesConnectionsTheDelegateRefuses) {
  auto listener = IpcListener::create("test.refuse");
  ASSERT_TRUE(listener);
  auto delegate = std::make_shared<TestDelegate>(false);
  (*listener)->setDelegate(delegate);
  auto client = connectClient("test.refuse");
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  // Sent while the connection waits in the backlog, so the reply is outstanding when the
  // refusal closes it.
  client->remoteObjectProxyWithErrorHandler([errors](const ErrorPtr& e) { errors->push(e); })
      ->call("echo:completion:", {Value("x")}, [](Value::Array) { ADD_FAILURE(); });
  (*listener)->resume();
  ASSERT_TRUE(errors->waitForCount(1));
  EXPECT_EQ(errors->items().front()->code, 1);  // interrupted: the listener's side closed
  EXPECT_EQ(delegate->offered.size(), 1u);
}

TEST_F(IpcListenerTest, ClosesConnectionsWhenItsDelegateIsGone) {
  CapturingLogSink::Scope log;
  auto listener = IpcListener::create("test.nodelegate");
  ASSERT_TRUE(listener);
  {
    auto delegate = std::make_shared<TestDelegate>();
    (*listener)->setDelegate(delegate);  // held weakly: gone at the end of this scope
  }
  (*listener)->resume();
  auto connected = IpcConnection::connectToService("test.nodelegate");
  ASSERT_TRUE(connected);
  auto client = *connected;
  auto closed = std::make_shared<TestLatch>(1);
  client->setInvalidationHandler([closed] { closed->countDown(); });
  client->resume();
  ASSERT_TRUE(closed->waitFor());
  EXPECT_EQ(log->count(kLogError, "Service test.nodelegate has no listener delegate; closing "
                                  "the connection from " +
                                      client->auditToken()->description() +
                                      " on test.nodelegate"),
            1u);
}

TEST_F(IpcListenerTest, ReplacesAStaleSocketFileLeftByADeadInstance) {
  ASSERT_TRUE(fs::create_directories(runtime_));
  ::close(makeListeningSocket(servicePath("test.stale")));
  ASSERT_FALSE(IpcConnection::connectToService("test.stale"));  // nobody answers there

  CapturingLogSink::Scope log;
  auto listener = IpcListener::create("test.stale");
  ASSERT_TRUE(listener) << listener.error()->description();
  EXPECT_EQ(log->count(kLogInfo, "Replaced the stale socket file " + servicePath("test.stale") +
                                     " of service test.stale"),
            1u);
  auto delegate = std::make_shared<TestDelegate>();
  (*listener)->setDelegate(delegate);
  (*listener)->resume();
  auto client = connectClient("test.stale");
  EXPECT_EQ(testing::ipcEcho(client, "fresh"), "fresh");
  client->invalidate();
}

TEST_F(IpcListenerTest, RefusesToStartWhileAnotherInstanceListens) {
  auto first = IpcListener::create("test.live");  // not resumed: its backlog still answers
  ASSERT_TRUE(first);
  CapturingLogSink::Scope log;
  auto second = IpcListener::create("test.live");
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error()->localizedDescription(),
            "service test.live is already running (" + servicePath("test.live") +
                " accepts connections)");
  EXPECT_EQ(log->count(kLogError, "Cannot start service test.live: service test.live is already "
                                  "running (" +
                                      servicePath("test.live") + " accepts connections)"),
            1u);
  // The running instance keeps its name and serves.
  auto delegate = std::make_shared<TestDelegate>();
  (*first)->setDelegate(delegate);
  (*first)->resume();
  auto client = connectClient("test.live");
  EXPECT_EQ(testing::ipcEcho(client, "still mine"), "still mine");
  client->invalidate();
}

TEST_F(IpcListenerTest, RefusesToReplaceAFileThatIsNotASocket) {
  ASSERT_TRUE(fs::create_directories(runtime_));
  { std::FILE* f = std::fopen(servicePath("test.file").c_str(), "w"); ASSERT_TRUE(f); std::fclose(f); }
  auto listener = IpcListener::create("test.file");
  ASSERT_FALSE(listener);
  EXPECT_NE(listener.error()->localizedDescription().find("exists and is not a socket"),
            std::string::npos);
  EXPECT_TRUE(fs::is_regular_file(servicePath("test.file")));
}

TEST_F(IpcListenerTest, RemovesItsSocketFileWhenInvalidatedButNotAnotherInstancesFile) {
  auto listener = IpcListener::create("test.cleanup");
  ASSERT_TRUE(listener);
  (*listener)->invalidate();
  EXPECT_FALSE(fs::exists(servicePath("test.cleanup")));

  // A first instance whose file was replaced by a second one leaves the second's alone.
  auto first = IpcListener::create("test.cleanup");
  ASSERT_TRUE(first);
  ASSERT_EQ(::unlink(servicePath("test.cleanup").c_str()), 0);
  auto second = IpcListener::create("test.cleanup");
  ASSERT_TRUE(second);
  first->reset();
  EXPECT_TRUE(fs::exists(servicePath("test.cleanup")));
  second->reset();
  EXPECT_FALSE(fs::exists(servicePath("test.cleanup")));
}

TEST_F(IpcListenerTest, UsesTheSocketSystemdPassedUnderTheServicesName) {
  const std::string path = (root_ / "activated.sock").string();
  const int fd = makeListeningSocket(path);
  ASSERT_GE(fd, 3);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", std::to_string(fd - 2).c_str(), 1);
  ::setenv("LISTEN_FDNAMES", fdNamesFor(fd, "test.activated").c_str(), 1);

  auto listener = IpcListener::create("test.activated");
  ASSERT_TRUE(listener) << listener.error()->description();
  EXPECT_TRUE((*listener)->isSocketActivated());
  EXPECT_EQ((*listener)->socketPath(), path);
  EXPECT_FALSE(fs::exists(servicePath("test.activated")));
  const int flags = ::fcntl(fd, F_GETFL);
  EXPECT_TRUE(flags & O_NONBLOCK);

  auto delegate = std::make_shared<TestDelegate>();
  (*listener)->setDelegate(delegate);
  (*listener)->resume();
  const int connected = connectRaw(path);
  ASSERT_GE(connected, 0) << std::strerror(errno);
  auto client = IpcConnection::adoptSocket(connected, "activated client");
  ASSERT_TRUE(client);
  (*client)->setRemoteInterface(testing::ipcTestInterface());
  (*client)->resume();
  EXPECT_EQ(testing::ipcEcho(*client, "via systemd"), "via systemd");
  (*client)->invalidate();
  listener->reset();  // closes the inherited descriptor, leaves systemd's file
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(connectRaw(path), -1);
  EXPECT_EQ(errno, ECONNREFUSED);  // nobody listens any more
}

TEST_F(IpcListenerTest, BindsItsOwnSocketWhenTheActivationIsForAnotherProcessOrName) {
  const std::string path = (root_ / "activated.sock").string();
  const int fd = makeListeningSocket(path);
  for (const auto& [pid, name] : {std::pair{::getpid() + 1, std::string("test.bound")},
                                  std::pair{::getpid(), std::string("test.someoneelse")}}) {
    ::setenv("LISTEN_PID", std::to_string(pid).c_str(), 1);
    ::setenv("LISTEN_FDS", std::to_string(fd - 2).c_str(), 1);
    ::setenv("LISTEN_FDNAMES", fdNamesFor(fd, name).c_str(), 1);
    auto listener = IpcListener::create("test.bound");
    ASSERT_TRUE(listener);
    EXPECT_FALSE((*listener)->isSocketActivated());
    EXPECT_TRUE(fs::exists(servicePath("test.bound")));
  }
  EXPECT_NE(::fcntl(fd, F_GETFD), -1);  // not taken
  ::close(fd);
}

TEST_F(IpcListenerTest, RefusesAnInheritedDescriptorThatIsNotAListeningUnixSocket) {
  int pipeFds[2];
  ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", std::to_string(pipeFds[0] - 2).c_str(), 1);
  ::setenv("LISTEN_FDNAMES", fdNamesFor(pipeFds[0], "test.pipe").c_str(), 1);
  auto listener = IpcListener::create("test.pipe");
  ASSERT_FALSE(listener);
  EXPECT_EQ(listener.error()->localizedDescription(),
            "the inherited socket " + std::to_string(pipeFds[0]) +
                " of service test.pipe is not a listening Unix stream socket");
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
}

TEST(IpcServiceSocket, FindsTheActivatedDescriptorByNameForThisProcessOnly) {
  using Activation = IpcServiceSocket::Activation;
  const auto find = [](const char* pid, const char* fds, const char* names) {
    return IpcServiceSocket::activatedDescriptor("svc", Activation{pid, fds, names}, 100);
  };
  EXPECT_EQ(find("100", "1", "svc"), 3);
  EXPECT_EQ(find("100", "3", "a:b:svc"), 5);
  EXPECT_EQ(find("100", "3", "a:svc:svc"), 4);
  EXPECT_EQ(find("101", "1", "svc"), std::nullopt);    // meant for another process
  EXPECT_EQ(find(nullptr, "1", "svc"), std::nullopt);
  EXPECT_EQ(find("100", "2", "a:b:svc"), std::nullopt); // named beyond the count
  EXPECT_EQ(find("100", "1", "svcx"), std::nullopt);
  EXPECT_EQ(find("100", "1", nullptr), std::nullopt);
  EXPECT_EQ(find("100x", "1", "svc"), std::nullopt);
  EXPECT_EQ(find("100", "-1", "svc"), std::nullopt);
  EXPECT_EQ(find("100", "1", ""), std::nullopt);
}

// A resolver that grants "granted" to everyone and counts its calls.
class CountingResolver : public IpcIdentityResolver {
 public:
  Value valueForEntitlement(const AuditToken&, std::string_view key) const override {
    ++calls;
    return key == "granted" ? Value(true) : Value();
  }
  mutable std::atomic<int> calls{0};
};

TEST_F(IpcListenerTest, APeerThatHasExitedHasNoEntitlements) {
  auto listener = IpcListener::create("test.exited");
  ASSERT_TRUE(listener);
  auto resolver = std::make_shared<CountingResolver>();
  (*listener)->setIdentityResolver(resolver);
  auto delegate = std::make_shared<TestDelegate>();
  (*listener)->setDelegate(delegate);
  (*listener)->resume();

  int release[2];
  ASSERT_EQ(::pipe2(release, O_CLOEXEC), 0);
  const sockaddr_un address = unixAddress(servicePath("test.exited"));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Only async-signal-safe calls here: connect, wait for the word, exit.
    ::close(release[1]);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) _exit(1);
    char byte;
    (void)!::read(release[0], &byte, 1);
    _exit(0);
  }
  ::close(release[0]);
  ASSERT_TRUE(delegate->offered.waitForCount(1));
  auto connection = delegate->offered.items().front();
  EXPECT_EQ(connection->processIdentifier(), child);
  EXPECT_EQ(connection->valueForEntitlement("granted"), Value(true));
  EXPECT_EQ(resolver->calls.load(), 1);

  ::close(release[1]);  // the child exits
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(connection->valueForEntitlement("granted").isNull());
  EXPECT_EQ(resolver->calls.load(), 1);  // a gone process is not looked up at all
  EXPECT_EQ(connection->processIdentifier(), child);
  connection->invalidate();
}

}  // namespace
}  // namespace daskel::platform
