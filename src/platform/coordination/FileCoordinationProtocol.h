// FileCoordinationProtocol: the protocol of the named service "com.orvane.FileCoordination",
// the cooperative front-end of file coordination. The daemon (which exports it) and the client
// library (which calls it) build their IpcInterface here, so the two sides cannot disagree
// about selectors or classes.
//
//   coordinateReadingItemAtURL:completionHandler:   (URL) -> (error)
//       answered when the provider that owns the URL has made the item present (nil), or
//       could not (its error); at once with nil when no provider owns the URL.
//   didFinishWritingItemAtURL:completionHandler:    (URL) -> ()
//       answered once the notice has been handed to the provider that owns the URL (or whose
//       storage directory the URL is), or at once when there is none.
//
// Header only: the client library uses it without linking the coordinator.
#pragma once

#include "platform/ipc/IpcInterface.h"

namespace daskel::platform {

inline constexpr char kFileCoordinationServiceName[] = "com.orvane.FileCoordination";

namespace FileCoordinationSelector {
inline constexpr char kCoordinateReading[] = "coordinateReadingItemAtURL:completionHandler:";
inline constexpr char kDidFinishWriting[] = "didFinishWritingItemAtURL:completionHandler:";
}  // namespace FileCoordinationSelector

inline IpcInterface FileCoordinationInterface() {
  namespace S = FileCoordinationSelector;
  return IpcInterface::Builder("FileCoordination")
      .operation(S::kCoordinateReading, {Value::Type::Url}, {Value::Type::Error})
      .operation(S::kDidFinishWriting, {Value::Type::Url}, {})
      .build();
}

}  // namespace daskel::platform
