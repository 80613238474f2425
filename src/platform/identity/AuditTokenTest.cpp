#include "platform/identity/AuditToken.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "platform/identity/ProcessInfo.h"
#include "platform/identity/ScopedFd.h"
#include "platform/identity/TestPeerProcess.h"
#include "platform/log/CapturingLogSink.h"

namespace daskel::platform {
namespace {

using PidfdUse = AuditToken::PidfdUse;

constexpr PidfdUse kAllWays[] = {PidfdUse::WhenAvailable, PidfdUse::OpenedByPid, PidfdUse::Never};

const char* nameOf(PidfdUse use) {
  switch (use) {
    case PidfdUse::WhenAvailable:
      return "peer pidfd";
    case PidfdUse::OpenedByPid:
      return "pidfd opened by pid";
    case PidfdUse::Never:
      return "start time only";
  }
  return "?";
}

TEST(AuditToken, ASocketpairTokenNamesThisProcess) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  ScopedFd a(fds[0]), b(fds[1]);

  auto token = AuditToken::fromSocket(a.get());
  ASSERT_TRUE(token);
  EXPECT_EQ(token->pid(), ::getpid());
  EXPECT_EQ(token->uid(), ::geteuid());
  EXPECT_EQ(token->gid(), ::getegid());
  EXPECT_TRUE(token->isAlive());
  EXPECT_EQ(token->description(), "pid " + std::to_string(::getpid()) + " uid " +
                                      std::to_string(::geteuid()) + " gid " +
                                      std::to_string(::getegid()));

  auto startTimeOnly = AuditToken::fromSocket(b.get(), PidfdUse::Never);
  ASSERT_TRUE(startTimeOnly);
  EXPECT_FALSE(startTimeOnly->hasPidfd());
  EXPECT_EQ(startTimeOnly->pidfd(), -1);
  EXPECT_TRUE(startTimeOnly->isAlive());
}

TEST(AuditToken, TheKernelsPidfdIsHeldCloseOnExecAndSharedByCopies) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  ScopedFd a(fds[0]), b(fds[1]);
  auto token = AuditToken::fromSocket(a.get());
  ASSERT_TRUE(token);
  if (!token->hasPidfd())
    GTEST_SKIP() << "this kernel has no SO_PEERPIDFD";

  int pidfd = token->pidfd();
  int flags = ::fcntl(pidfd, F_GETFD);
  ASSERT_GE(flags, 0);
  EXPECT_TRUE(flags & FD_CLOEXEC);

  auto copy = std::make_optional(*token);
  token.reset();
  // The copy keeps the descriptor open and usable.
  EXPECT_EQ(copy->pidfd(), pidfd);
  EXPECT_GE(::fcntl(pidfd, F_GETFD), 0);
  EXPECT_TRUE(copy->isAlive());
  copy.reset();
  // The last copy closed it. (No other thread of this test opens descriptors meanwhile.)
  EXPECT_EQ(::fcntl(pidfd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(AuditToken, ATokenNamesTheProcessThatConnectedEvenAfterItExecs) {
  auto listener = TestPeerProcess::listen();
  ASSERT_TRUE(listener);
  auto child = TestPeerProcess::start(*listener, {.program = "/bin/sleep", .arguments = {"600"}});
  ASSERT_TRUE(child);
  // The credentials are from the connect, made before the exec; the tokens are asked after.
  std::optional<AuditToken> tokens[] = {child->token(PidfdUse::WhenAvailable),
                                        child->token(PidfdUse::OpenedByPid),
                                        child->token(PidfdUse::Never)};
  std::filesystem::path sleepPath = std::filesystem::canonical("/bin/sleep");
  ASSERT_TRUE(child->waitForExecutable(sleepPath));
  for (const auto& token : tokens) {
    ASSERT_TRUE(token);
    EXPECT_EQ(token->pid(), child->pid());
    EXPECT_EQ(token->uid(), ::geteuid());
    EXPECT_EQ(token->gid(), ::getegid());
    EXPECT_TRUE(token->isAlive());
  }
}

TEST(AuditToken, ATokenIsDeadOnceItsProcessExitsEvenBeforeItIsReaped) {
  auto listener = TestPeerProcess::listen();
  ASSERT_TRUE(listener);
  for (PidfdUse use : kAllWays) {
    SCOPED_TRACE(nameOf(use));
    auto child = TestPeerProcess::start(*listener, {});
    ASSERT_TRUE(child);
    auto token = child->token(use);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->hasPidfd(), use != PidfdUse::Never);
    ASSERT_TRUE(token->isAlive());
    auto copy = *token;

    child->kill(SIGKILL);
    ASSERT_TRUE(child->waitUntilExited());
    // A zombie: its pid still exists, but the process does not.
    EXPECT_FALSE(token->isAlive());
    EXPECT_FALSE(copy.isAlive());

    child->reap();
    EXPECT_FALSE(token->isAlive());
  }
}

TEST(AuditToken, ATokenTakenByPidPinsTheProcessThatHasThePidNow) {
  auto listener = TestPeerProcess::listen();
  ASSERT_TRUE(listener);
  auto child = TestPeerProcess::start(*listener, {});
  ASSERT_TRUE(child);
  const pid_t pid = child->pid();
  auto token = AuditToken::ofProcess(pid);
  ASSERT_TRUE(token);
  EXPECT_EQ(token->pid(), pid);
  EXPECT_EQ(token->uid(), ::geteuid());
  EXPECT_TRUE(token->isAlive());

  child->kill(SIGKILL);
  ASSERT_TRUE(child->waitUntilExited());
  EXPECT_FALSE(token->isAlive()) << "a zombie is no longer the process";
  child->reap();
  EXPECT_FALSE(token->isAlive());
  EXPECT_FALSE(AuditToken::ofProcess(-1));
}

TEST(AuditToken, APeerThatWasReapedBeforeItsConnectionWasAcceptedHasNoIdentity) {
  auto listener = TestPeerProcess::listen();
  ASSERT_TRUE(listener);
  for (PidfdUse use : kAllWays) {
    SCOPED_TRACE(nameOf(use));
    auto child = TestPeerProcess::start(*listener, {.exitAfterConnect = true, .deferAccept = true});
    ASSERT_TRUE(child);
    EXPECT_EQ(child->reap(), 0) << "the child could not connect";
    ASSERT_TRUE(child->acceptFrom(*listener));
    auto token = child->token(use);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->pid(), child->pid());
    EXPECT_FALSE(token->isAlive());
  }
}

// The pid of a process that has been reaped may be handed to the next process forked; the
// token must not take that one for its own. The next pid is steered with ns_last_pid,
// which needs privilege, and other processes on the machine may take it first, so the test
// retries a few times.
TEST(AuditToken, ATokenDoesNotTakeAProcessWithItsReusedPidForItsOwn) {
  auto listener = TestPeerProcess::listen();
  ASSERT_TRUE(listener);
  for (PidfdUse use : kAllWays) {
    SCOPED_TRACE(nameOf(use));
    bool reused = false;
    for (int attempt = 0; attempt < 20 && !reused; ++attempt) {
      auto first = TestPeerProcess::start(*listener, {});
      ASSERT_TRUE(first);
      auto token = first->token(use);
      ASSERT_TRUE(token);
      auto firstStat = readProcessStat(first->pid());
      ASSERT_TRUE(firstStat);
      first->kill(SIGKILL);
      first->reap();
      // A start time has clock-tick resolution: without a pidfd, a successor started in the
      // same tick is indistinguishable, and the token does not claim otherwise. A pidfd tells
      // them apart at once.
      if (use == PidfdUse::Never) {
        ASSERT_TRUE(TestPeerProcess::waitForClockTickAfter(firstStat->startTime));
      }

      if (!TestPeerProcess::steerNextPid(token->pid())) {
        GTEST_SKIP() << "cannot steer pid allocation here (ns_last_pid)";
      }
      auto second = TestPeerProcess::start(*listener, {});
      ASSERT_TRUE(second);
      if (second->pid() != token->pid())
        continue;
      reused = true;
      // The pid names a live process again, just not the token's.
      ASSERT_EQ(::kill(token->pid(), 0), 0);
      EXPECT_FALSE(token->isAlive());
    }
    if (!reused)
      GTEST_SKIP() << "other processes kept taking the pid";
  }
}

TEST(AuditToken, ADescriptorWithoutAPeerGivesNoTokenAndOneErrorLine) {
  CapturingLogSink::Scope log;
  int pipeFds[2];
  ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
  ScopedFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
  EXPECT_FALSE(AuditToken::fromSocket(readEnd.get()));
  EXPECT_EQ(log->lines().size(), 1u);
  EXPECT_NE(log->messages().at(0).find("socket " + std::to_string(readEnd.get())),
            std::string::npos)
      << log->messages().at(0);

  log->clear();
  ScopedFd unconnected(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_TRUE(unconnected.valid());
  EXPECT_FALSE(AuditToken::fromSocket(unconnected.get()));
  EXPECT_EQ(log->lines().size(), 1u);
}

}  // namespace
}  // namespace daskel::platform
