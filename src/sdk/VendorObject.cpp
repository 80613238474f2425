#include "sdk/VendorObject.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/log/Log.h"
#include "provider/protocol/DKVendorProtocol.h"

namespace daskel::sdk {

using platform::ReplyBlock;
using platform::Value;

namespace S = DKVendorSelector;

namespace {

Value valueOf(const std::optional<Url>& url) {
  return url ? Value(*url) : Value();
}

Value valueOf(const std::optional<std::string>& text) {
  return text ? Value(*text) : Value();
}

// Creates `path` and its missing parents with mode 0700; an existing directory is fine.
platform::Result<void> makeStorageDirectory(const std::string& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      return platform::failure(sdkError(SdkError::StorageUnavailable,
                                        "cannot create the storage directory " + path + " (" +
                                            prefix + ": " + std::strerror(errno) + ")"));
    }
    if (slash == std::string::npos) {
      break;
    }
  }
  struct stat status;
  if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return platform::failure(sdkError(SdkError::StorageUnavailable,
                                      "the storage directory " + path + " is not a directory"));
  }
  return {};
}

}  // namespace

// Counts one call of the author's code for the lifetime of the scope.
class VendorObject::RunningScope {
 public:
  explicit RunningScope(VendorObject& object) : object_(object) {
    std::lock_guard lock(object_.mutex_);
    ++object_.running_;
  }
  ~RunningScope() {
    std::lock_guard lock(object_.mutex_);
    if (--object_.running_ == 0) {
      object_.idle_.notify_all();
    }
  }

 private:
  VendorObject& object_;
};

void VendorObject::handleRequest(const std::string& selector,
                                 Value::Array arguments,
                                 std::optional<ReplyBlock> reply) {
  if (!reply) {
    return;  // Every vendor operation takes a reply block; the interface has checked it.
  }
  if (selector == S::kPerformInitialSetup) {
    performInitialSetup(std::move(*reply));
    return;
  }

  const Value argument = arguments.empty() ? Value() : arguments.front();
  const std::string what = selector + " " + argument.description();
  const Url* url = argument.url();
  const bool takesUrl = selector != S::kURLForItemIdentifier;
  if ((takesUrl && url == nullptr) || (!takesUrl && argument.string() == nullptr)) {
    DKLogError("%@: the daemon sent no %s; answering with an error", selector,
               takesUrl ? "URL" : "item identifier");
    const auto missing =
        sdkError(SdkError::MissingArgument, selector + " needs a value, got nil");
    if (selector == S::kProvidePlaceholder) {
      (*reply)({Value(), Value(missing)});
    } else if (selector == S::kIdentifierForItem || selector == S::kURLForItemIdentifier) {
      (*reply)({Value(missing), Value()});
    } else {
      (*reply)({Value(missing)});
    }
    return;
  }

  ReplyBlock send = std::move(*reply);
  RunningScope running(*this);
  if (selector == S::kProvidePlaceholder) {
    provider_.providePlaceholder(
        *url, PlaceholderCompletion(
                  [send](std::optional<Url> placeholder, ErrorPtr error) {
                    send({valueOf(placeholder), Value(std::move(error))});
                  },
                  what));
  } else if (selector == S::kStartProviding || selector == S::kStopProviding ||
             selector == S::kItemChanged) {
    ItemCompletion completion([send](ErrorPtr error) { send({Value(std::move(error))}); }, what);
    if (selector == S::kStartProviding) {
      provider_.startProviding(*url, std::move(completion));
    } else if (selector == S::kStopProviding) {
      provider_.stopProviding(*url, std::move(completion));
    } else {
      provider_.itemChanged(*url, std::move(completion));
    }
  } else if (selector == S::kIdentifierForItem) {
    provider_.identifierForItem(
        *url, IdentifierCompletion(
                  [send](ErrorPtr error, std::optional<std::string> identifier) {
                    send({Value(std::move(error)), valueOf(identifier)});
                  },
                  what));
  } else if (selector == S::kURLForItemIdentifier) {
    provider_.urlForItemIdentifier(
        *argument.string(), UrlCompletion(
                                [send](ErrorPtr error, std::optional<Url> result) {
                                  send({Value(std::move(error)), valueOf(result)});
                                },
                                what));
  } else {
    // The exported interface lets nothing else through; keep the request unanswered.
    DKLogError("%@: not a vendor operation", selector);
  }
}

void VendorObject::performInitialSetup(ReplyBlock reply) {
  const ExtensionContext& context = provider_.context();
  const Value identifier(context.identifier());
  const Value storage(context.storageDirectoryUrl());
  if (auto made = makeStorageDirectory(context.storageDirectoryPath()); !made) {
    DKLogError("Initial set-up failed: %@", made.error());
    reply({identifier, storage, Value(made.error())});
    return;
  }
  RunningScope running(*this);
  provider_.performInitialSetup(SetupCompletion(
      [reply, identifier, storage](ErrorPtr error) {
        reply({identifier, storage, Value(std::move(error))});
      },
      S::kPerformInitialSetup));
}

std::size_t VendorObject::runningOperations() const {
  std::lock_guard lock(mutex_);
  return running_;
}

bool VendorObject::waitForNoRunningOperations(
    std::chrono::steady_clock::time_point deadline) const {
  std::unique_lock lock(mutex_);
  return idle_.wait_until(lock, deadline, [&] { return running_ == 0; });
}

}  // namespace daskel::sdk
