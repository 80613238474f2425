#include "tools/daskelctl/Invocation.h"

namespace daskel::ctl {

std::string_view commandName(Command command) {
  switch (command) {
    case Command::WakeUp:
      return "wake-up";
    case Command::ExtendSandbox:
      return "extend-sandbox";
    case Command::ProvidePlaceholder:
      return "provide-placeholder";
    case Command::StartProviding:
      return "start-providing";
    case Command::StopProviding:
      return "stop-providing";
    case Command::Providers:
      return "providers";
    case Command::BookmarkableString:
      return "bookmarkable-string";
    case Command::DocumentURL:
      return "document-url";
    case Command::PostNotification:
      return "post-notification";
    case Command::VerifyToken:
      return "verify-token";
    case Command::Read:
      return "read";
    case Command::CoordinateRead:
      return "coordinate-read";
    case Command::Wrote:
      return "wrote";
  }
  return "?";
}

}  // namespace daskel::ctl
