#include "client/FileCoordinationClient.h"

#include <utility>

#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/errors/DKErrors.h"

namespace daskel {

using platform::ErrorPtr;
using platform::Result;
using platform::Value;
using Values = DaskelClient::Values;
namespace S = platform::FileCoordinationSelector;

namespace {

// The connection has checked the reply against the interface already; a count that differs
// here would mean the interface and this file disagree, which must not pass as success.
ErrorPtr decode(Result<Values> outcome, std::size_t count, const char* selector) {
  if (!outcome)
    return outcome.error();
  if (outcome->size() != count) {
    return IpcError(IpcErrorCode::MessageRefused, std::string("the reply to ") + selector +
                                                      " has " + std::to_string(outcome->size()) +
                                                      " values, not " + std::to_string(count));
  }
  return count == 0 ? nullptr : (*outcome)[0].error();
}

ErrorPtr decodeRead(Result<Values> outcome) {
  return decode(std::move(outcome), 1, S::kCoordinateReading);
}

ErrorPtr decodeWrite(Result<Values> outcome) {
  return decode(std::move(outcome), 0, S::kDidFinishWriting);
}

}  // namespace

Result<std::unique_ptr<FileCoordinationClient>> FileCoordinationClient::connect() {
  return connectToService(platform::kFileCoordinationServiceName);
}

Result<std::unique_ptr<FileCoordinationClient>> FileCoordinationClient::connectToService(
    const std::string& serviceName) {
  auto client = DaskelClient::connect(serviceName, platform::FileCoordinationInterface());
  if (!client)
    return platform::failure(client.error());
  return std::unique_ptr<FileCoordinationClient>(new FileCoordinationClient(std::move(*client)));
}

void FileCoordinationClient::coordinateReadingItemAtURL(const Url& url, ErrorReply reply) {
  client_->call(S::kCoordinateReading, {Value(url)},
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (reply)
                    reply(decodeRead(std::move(outcome)));
                });
}

void FileCoordinationClient::didFinishWritingItemAtURL(const Url& url, ErrorReply reply) {
  client_->call(S::kDidFinishWriting, {Value(url)},
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (reply)
                    reply(decodeWrite(std::move(outcome)));
                });
}

ErrorPtr FileCoordinationClient::coordinateReadingItemAtURLSync(const Url& url, Timeout timeout) {
  return decodeRead(client_->callAndWait(S::kCoordinateReading, {Value(url)}, timeout));
}

ErrorPtr FileCoordinationClient::didFinishWritingItemAtURLSync(const Url& url, Timeout timeout) {
  return decodeWrite(client_->callAndWait(S::kDidFinishWriting, {Value(url)}, timeout));
}

}  // namespace daskel
