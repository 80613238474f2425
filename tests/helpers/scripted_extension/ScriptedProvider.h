// ScriptedProvider: the provider of the scripted test extension. Every operation first
// appends its call to the call log, then does what the ExtensionScript says for it (see
// ExtensionScript.h).
//
// Ownership: owns its script and the completions it was told never to answer (kept until the
// process ends, so they are neither called nor reported as dropped).
// THREADING NOTES: operations may run on many request queues at once; the call log is
// appended with one write(2) per line, the fail-first counters are updated under flock(2) and
// the held completions under a mutex.
// Failure: through the completions, as scripted; a counter or log file that cannot be written
// is reported on standard error (the test then sees a missing line).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ExtensionScript.h"
#include "sdk/ProviderExtension.h"

namespace daskel::testing {

class ScriptedProvider final : public sdk::ProviderExtension {
 public:
  explicit ScriptedProvider(ExtensionScript script) : script_(std::move(script)) {}

  // Appends `line` and a newline to the call log.
  void record(const std::string& line) const;

  void performInitialSetup(sdk::SetupCompletion completion) override;
  void providePlaceholder(const sdk::Url& url, sdk::PlaceholderCompletion completion) override;
  void startProviding(const sdk::Url& url, sdk::ItemCompletion completion) override;
  void stopProviding(const sdk::Url& url, sdk::ItemCompletion completion) override;
  void itemChanged(const sdk::Url& url, sdk::ItemCompletion completion) override;
  void identifierForItem(const sdk::Url& url, sdk::IdentifierCompletion completion) override;
  void urlForItemIdentifier(const std::string& identifier,
                            sdk::UrlCompletion completion) override;

 private:
  // Records the call and runs the scripted behaviour: `fail` answers with an error, `succeed`
  // gives the default answer.
  template <typename Completion, typename Fail, typename Succeed>
  void act(const char* operation,
           const std::string& argument,
           const Completion& completion,
           Fail fail,
           Succeed succeed);

  // Counts one more call of `operation` in its counter file; the new count, or -1.
  long long countCall(const char* operation) const;

  const ExtensionScript script_;
  std::mutex heldMutex_;
  std::vector<std::shared_ptr<void>> held_;
};

}  // namespace daskel::testing
