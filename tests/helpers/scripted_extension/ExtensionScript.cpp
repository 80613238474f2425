#include "ExtensionScript.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <sstream>
#include <vector>

#include "platform/value/Error.h"

namespace daskel::testing {

using platform::failure;
using platform::Result;

namespace {

constexpr std::array<std::string_view, 7> kOperations = {
    "performInitialSetup", "providePlaceholder", "startProviding",       "stopProviding",
    "itemChanged",         "identifierForItem",  "urlForItemIdentifier",
};

constexpr char kScriptErrorDomain[] = "daskel.testing.ExtensionScript";

platform::ErrorPtr lineError(int number, const std::string& what) {
  return platform::makeError(kScriptErrorDomain, 1,
                             "script line " + std::to_string(number) + ": " + what);
}

// Splits off the first word of `rest`; "" when none is left.
std::string nextWord(std::string_view& rest) {
  const std::size_t start = rest.find_first_not_of(' ');
  if (start == std::string_view::npos) {
    rest = {};
    return {};
  }
  rest.remove_prefix(start);
  const std::size_t end = std::min(rest.find(' '), rest.size());
  std::string word(rest.substr(0, end));
  rest.remove_prefix(end);
  return word;
}

std::string remainder(std::string_view rest) {
  const std::size_t start = rest.find_first_not_of(' ');
  return start == std::string_view::npos ? std::string() : std::string(rest.substr(start));
}

std::optional<std::int64_t> integer(const std::string& word) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size()) {
    return std::nullopt;
  }
  return value;
}

std::string resolve(const std::string& path, const std::string& bundlePath) {
  return !path.empty() && path.front() == '/' ? path : bundlePath + "/" + path;
}

}  // namespace

bool ExtensionScript::isOperation(std::string_view name) {
  return std::find(kOperations.begin(), kOperations.end(), name) != kOperations.end();
}

Result<ExtensionScript> ExtensionScript::parse(std::string_view text,
                                               const std::string& bundlePath) {
  ExtensionScript script;
  script.callLogPath_ = bundlePath + "/" + kDefaultCallLog;
  script.stateDirectory_ = bundlePath;
  std::istringstream lines{std::string(text)};
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    std::string_view rest = line;
    const std::string first = nextWord(rest);
    if (first.empty() || first.front() == '#') {
      continue;
    }
    if (first == "calls" || first == "state") {
      const std::string path = remainder(rest);
      if (path.empty()) {
        return failure(lineError(number, first + " needs a path"));
      }
      if (first == "calls" && path == "off") {
        script.callLogPath_.clear();
      } else {
        (first == "calls" ? script.callLogPath_ : script.stateDirectory_) =
            resolve(path, bundlePath);
      }
      continue;
    }
    if (first == "start") {
      const std::string what = nextWord(rest);
      if (what == "exit") {
        auto status = integer(nextWord(rest));
        if (!status) {
          return failure(lineError(number, "start exit needs an exit status"));
        }
        script.exitAtStart_ = static_cast<int>(*status);
      } else if (what == "no-ready") {
        script.sendsReady_ = false;
      } else if (what == "record") {
        script.recordsLaunches_ = true;
      } else {
        return failure(lineError(number, "unknown start behaviour \"" + what + "\""));
      }
      continue;
    }
    if (first != "*" && !isOperation(first)) {
      return failure(lineError(number, "unknown operation \"" + first + "\""));
    }
    ScriptedBehaviour behaviour;
    const std::string kind = nextWord(rest);
    if (kind == "succeed") {
      behaviour.kind = ScriptedBehaviour::Kind::Succeed;
    } else if (kind == "never-answer") {
      behaviour.kind = ScriptedBehaviour::Kind::NeverAnswer;
    } else if (kind == "crash") {
      behaviour.kind = ScriptedBehaviour::Kind::Crash;
    } else if (kind == "wait-for") {
      behaviour.kind = ScriptedBehaviour::Kind::WaitFor;
      behaviour.path = remainder(rest);
      if (behaviour.path.empty()) {
        return failure(lineError(number, "wait-for needs a path"));
      }
      behaviour.path = resolve(behaviour.path, bundlePath);
    } else if (kind == "error" || kind == "fail-first") {
      behaviour.kind = kind == "error" ? ScriptedBehaviour::Kind::Error
                                       : ScriptedBehaviour::Kind::FailFirst;
      if (kind == "fail-first") {
        auto count = integer(nextWord(rest));
        if (!count || *count < 0) {
          return failure(lineError(number, "fail-first needs a count"));
        }
        behaviour.failures = *count;
      }
      behaviour.domain = nextWord(rest);
      auto code = integer(nextWord(rest));
      if (behaviour.domain.empty() || !code) {
        return failure(lineError(number, kind + " needs a domain and a code"));
      }
      behaviour.code = *code;
      behaviour.description = remainder(rest);
    } else {
      return failure(lineError(number, "unknown behaviour \"" + kind + "\""));
    }
    if (first == "*") {
      script.default_ = behaviour;
      script.behaviours_.clear();
    } else {
      script.behaviours_.insert_or_assign(first, std::move(behaviour));
    }
  }
  return script;
}

Result<ExtensionScript> ExtensionScript::load(const std::string& bundlePath) {
  const std::string path = bundlePath + "/" + kFileName;
  std::ifstream in(path);
  if (!in) {
    return parse("", bundlePath);
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parse(text.str(), bundlePath);
}

const ScriptedBehaviour& ExtensionScript::behaviour(std::string_view operation) const {
  auto it = behaviours_.find(operation);
  return it == behaviours_.end() ? default_ : it->second;
}

}  // namespace daskel::testing
