#include "ScriptedProvider.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/log/Log.h"

namespace daskel::testing {

using sdk::ErrorPtr;
using sdk::Url;

void ScriptedProvider::record(const std::string& line) const {
  if (script_.callLogPath().empty()) {
    return;
  }
  const std::string text = line + "\n";
  const int fd =
      ::open(script_.callLogPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    DKLogError("Cannot record \"%@\" in %@: %s", line, script_.callLogPath(), std::strerror(errno));
  }
  if (fd >= 0) {
    ::close(fd);
  }
}

long long ScriptedProvider::countCall(const char* operation) const {
  const std::string path = script_.stateDirectory() + "/" + operation + ".count";
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 || ::flock(fd, LOCK_EX) != 0) {
    DKLogError("Cannot count calls in %@: %s", path, std::strerror(errno));
    if (fd >= 0) {
      ::close(fd);
    }
    return -1;
  }
  char buffer[32] = {};
  const ssize_t n = ::pread(fd, buffer, sizeof buffer - 1, 0);
  const long long count = (n > 0 ? std::atoll(buffer) : 0) + 1;
  const std::string text = std::to_string(count);
  if (::ftruncate(fd, 0) != 0 ||
      ::pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    DKLogError("Cannot count calls in %@: %s", path, std::strerror(errno));
  }
  ::close(fd);  // Releases the lock.
  return count;
}

template <typename Completion, typename Fail, typename Succeed>
void ScriptedProvider::act(const char* operation,
                           const std::string& argument,
                           const Completion& completion,
                           Fail fail,
                           Succeed succeed) {
  record(argument.empty() ? std::string(operation) : std::string(operation) + " " + argument);
  const ScriptedBehaviour& behaviour = script_.behaviour(operation);
  using Kind = ScriptedBehaviour::Kind;
  switch (behaviour.kind) {
    case Kind::Succeed:
      succeed();
      return;
    case Kind::Error:
      fail(sdk::makeError(behaviour.domain, behaviour.code, behaviour.description));
      return;
    case Kind::FailFirst:
      if (countCall(operation) <= behaviour.failures) {
        fail(sdk::makeError(behaviour.domain, behaviour.code, behaviour.description));
      } else {
        succeed();
      }
      return;
    case Kind::NeverAnswer: {
      std::lock_guard lock(heldMutex_);
      held_.push_back(std::make_shared<Completion>(completion));
      return;
    }
    case Kind::Crash: {
      // A crash in a test should not leave a core file behind or take long to write one.
      struct rlimit none = {0, 0};
      ::setrlimit(RLIMIT_CORE, &none);
      std::abort();
    }
    case Kind::WaitFor: {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (::access(behaviour.path.c_str(), F_OK) != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
          fail(sdk::makeError("daskel.testing.ScriptedExtension", 1,
                              "gave up waiting for " + behaviour.path));
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      succeed();
      return;
    }
  }
}

void ScriptedProvider::performInitialSetup(sdk::SetupCompletion completion) {
  act(
      "performInitialSetup", "", completion, [&](ErrorPtr error) { completion(error); },
      [&] { ProviderExtension::performInitialSetup(completion); });
}

void ScriptedProvider::providePlaceholder(const Url& url, sdk::PlaceholderCompletion completion) {
  act(
      "providePlaceholder", url.absoluteString(), completion,
      [&](ErrorPtr error) { completion(std::nullopt, error); },
      [&] { ProviderExtension::providePlaceholder(url, completion); });
}

void ScriptedProvider::startProviding(const Url& url, sdk::ItemCompletion completion) {
  act(
      "startProviding", url.absoluteString(), completion,
      [&](ErrorPtr error) { completion(error); }, [&] { completion(nullptr); });
}

void ScriptedProvider::stopProviding(const Url& url, sdk::ItemCompletion completion) {
  act(
      "stopProviding", url.absoluteString(), completion,
      [&](ErrorPtr error) { completion(error); },
      [&] { ProviderExtension::stopProviding(url, completion); });
}

void ScriptedProvider::itemChanged(const Url& url, sdk::ItemCompletion completion) {
  act(
      "itemChanged", url.absoluteString(), completion, [&](ErrorPtr error) { completion(error); },
      [&] { ProviderExtension::itemChanged(url, completion); });
}

void ScriptedProvider::identifierForItem(const Url& url, sdk::IdentifierCompletion completion) {
  act(
      "identifierForItem", url.absoluteString(), completion,
      [&](ErrorPtr error) { completion(error, std::nullopt); },
      [&] { ProviderExtension::identifierForItem(url, completion); });
}

void ScriptedProvider::urlForItemIdentifier(const std::string& identifier,
                                            sdk::UrlCompletion completion) {
  act(
      "urlForItemIdentifier", identifier, completion,
      [&](ErrorPtr error) { completion(error, std::nullopt); },
      [&] { ProviderExtension::urlForItemIdentifier(identifier, completion); });
}

}  // namespace daskel::testing
