#include "platform/value/Error.h"

#include <string>

namespace daskel::platform {

std::string Error::localizedDescription() const {
  auto it = userInfo.find(kErrorDescriptionKey);
  if (it == userInfo.end()) {
    return {};
  }
  if (const std::string* text = it->second.string()) {
    return *text;
  }
  return it->second.description();
}

std::string Error::description() const {
  std::string text = localizedDescription();
  if (text.empty()) {
    text =
        "The operation couldn't be completed. (" + domain + " error " + std::to_string(code) + ".)";
  }
  std::string out =
      "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + text + "\" UserInfo={";
  bool first = true;
  for (const auto& [key, value] : userInfo) {
    if (!first) {
      out += ", ";
    }
    first = false;
    out += key;
    out += '=';
    out += value.description();
  }
  out += '}';
  return out;
}

ErrorPtr makeError(std::string domain,
                   std::int64_t code,
                   std::string description,
                   Value::Dictionary extra) {
  auto error = std::make_shared<Error>();
  error->domain = std::move(domain);
  error->code = code;
  error->userInfo = std::move(extra);
  error->userInfo.insert_or_assign(kErrorDescriptionKey, Value(std::move(description)));
  return error;
}

}  // namespace daskel::platform
