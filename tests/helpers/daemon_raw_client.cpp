// daemon_raw_client: calls one operation of the daemon's service with arguments exactly as
// given, nil included, which daskelctl never sends. For end-to-end tests of argument checks.
//
//   daemon_raw_client [--timeout SECONDS] SELECTOR ARGUMENT...
//
// An ARGUMENT is "nil", "url:<absolute URL>" or "string:<text>"; they are the operation's
// arguments without the reply block. Prints one JSON document on standard output:
//   {"reply": [values...]}           the reply's values, as daskelctl --json shows values
//   {"error": {...}}                 no reply came: the IPC or timeout error
//
// Exit status: 0 a reply came, 2 usage, 3 cannot connect, 4 timeout, 5 other IPC error.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "client/DaskelClient.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/value/Error.h"
#include "tools/daskelctl/OutputFormatter.h"

namespace {

using daskel::platform::Value;

int usage(const char* message) {
  std::fprintf(stderr,
               "daemon_raw_client: %s\n"
               "usage: daemon_raw_client [--timeout SECONDS] SELECTOR "
               "(nil|url:URL|string:TEXT)...\n",
               message);
  return 2;
}

int printError(const daskel::platform::ErrorPtr& error) {
  nlohmann::json out = {{"error", daskel::ctl::OutputFormatter::errorToJson(error)}};
  std::printf("%s\n", out.dump(2).c_str());
  return error && error->domain == daskel::kDaskelClientErrorDomain ? 4 : 5;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<std::chrono::milliseconds> timeout;
  int index = 1;
  for (; index < argc; ++index) {
    const std::string_view option = argv[index];
    if (option == "--timeout" && index + 1 < argc) {
      timeout = std::chrono::milliseconds(
          static_cast<long>(std::strtod(argv[++index], nullptr) * 1000.0));
    } else {
      break;
    }
  }
  if (index >= argc) {
    return usage("no selector");
  }
  const std::string selector = argv[index++];
  Value::Array arguments;
  for (; index < argc; ++index) {
    const std::string_view text = argv[index];
    if (text == "nil") {
      arguments.emplace_back(nullptr);
    } else if (text.starts_with("string:")) {
      arguments.emplace_back(std::string(text.substr(7)));
    } else if (text.starts_with("url:")) {
      auto url = daskel::platform::Url::fromString(text.substr(4));
      if (!url) {
        return usage("not a URL");
      }
      arguments.emplace_back(*url);
    } else {
      return usage("arguments are nil, url:URL or string:TEXT");
    }
  }

  auto client =
      daskel::DaskelClient::connect(daskel::kDKDaemonServiceName, daskel::DKDaemonInterface());
  if (!client) {
    std::fprintf(stderr, "daemon_raw_client: %s\n", client.error()->description().c_str());
    return 3;
  }
  auto reply = (*client)->callAndWait(selector, std::move(arguments), timeout);
  if (!reply) {
    return printError(reply.error());
  }
  nlohmann::json values = nlohmann::json::array();
  for (const Value& value : *reply) {
    values.push_back(daskel::ctl::OutputFormatter::toJson(value));
  }
  std::printf("%s\n", nlohmann::json({{"reply", values}}).dump(2).c_str());
  return 0;
}
