#include "platform/plist/PropertyList.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "platform/filesystem/FileSystem.h"
#include "platform/plist/PropertyListPreflight.h"

namespace daskel::platform {
namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct CFree {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using MallocPtr = std::unique_ptr<T, CFree>;

ErrorPtr plistError(PropertyListErrorCode code, std::string description) {
  return makeError(kPropertyListErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description));
}

// libplist 2.2 keeps integers as 64 unsigned bits and marks the ones read as unsigned 128-bit
// values (above INT64_MAX) only internally; its XML form tells them from negative numbers.
bool isNegativeInteger(plist_t node) {
  PlistPtr copy(plist_copy(node));
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(copy.get(), &xml, &length);
  bool negative =
      xml != nullptr && std::string_view(xml, length).find("<integer>-") != std::string_view::npos;
  if (xml != nullptr) {
    plist_to_xml_free(xml);
  }
  return negative;
}

Value integerValue(plist_t node) {
  std::uint64_t bits = 0;
  plist_get_uint_val(node, &bits);
  if (bits <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) ||
      isNegativeInteger(node)) {
    return Value(static_cast<std::int64_t>(bits));
  }
  return Value(static_cast<double>(bits));
}

Result<Value> toValue(plist_t node, int depth);

Result<Value> arrayValue(plist_t node, int depth) {
  Value::Array array;
  array.reserve(plist_array_get_size(node));
  plist_array_iter rawIterator = nullptr;
  plist_array_new_iter(node, &rawIterator);
  MallocPtr<void> iterator(rawIterator);
  while (true) {
    plist_t item = nullptr;
    plist_array_next_item(node, rawIterator, &item);
    if (item == nullptr) {
      break;
    }
    auto element = toValue(item, depth);
    if (!element) {
      return element;
    }
    array.push_back(std::move(*element));
  }
  return Value(std::move(array));
}

Result<Value> dictionaryValue(plist_t node, int depth) {
  Value::Dictionary dictionary;
  plist_dict_iter rawIterator = nullptr;
  plist_dict_new_iter(node, &rawIterator);
  MallocPtr<void> iterator(rawIterator);
  while (true) {
    char* rawKey = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, rawIterator, &rawKey, &item);
    MallocPtr<char> key(rawKey);
    if (item == nullptr) {
      break;
    }
    auto element = toValue(item, depth);
    if (!element) {
      return element;
    }
    dictionary.insert_or_assign(std::string(key ? key.get() : ""), std::move(*element));
  }
  return Value(std::move(dictionary));
}

Result<Value> toValue(plist_t node, int depth) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return Value(flag != 0);
    }
    case PLIST_UINT:
      return integerValue(node);
    case PLIST_REAL: {
      double number = 0;
      plist_get_real_val(node, &number);
      return Value(number);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return Value(std::string(text ? text : "", text ? length : 0));
    }
    case PLIST_KEY: {
      char* rawText = nullptr;
      plist_get_key_val(node, &rawText);
      MallocPtr<char> text(rawText);
      return Value(std::string(text ? text.get() : ""));
    }
    case PLIST_DATE: {
      std::int32_t seconds = 0;
      std::int32_t microseconds = 0;
      plist_get_date_val(node, &seconds, &microseconds);
      return Value(static_cast<double>(seconds) + microseconds / 1e6);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
      return Value(bytes ? Value::Data(bytes, bytes + length) : Value::Data());
    }
    case PLIST_UID: {
      std::uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      if (uid > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return Value(static_cast<double>(uid));
      }
      return Value(static_cast<std::int64_t>(uid));
    }
    case PLIST_ARRAY:
    case PLIST_DICT:
      // The preflight pass bounds nesting already; this keeps the recursion bounded whatever
      // libplist made of the input.
      if (depth + 1 > kMaxPropertyListNesting) {
        return failure(plistError(PropertyListErrorCode::TooDeep,
                                  "Property list nested deeper than " +
                                      std::to_string(kMaxPropertyListNesting) + " levels"));
      }
      return plist_get_node_type(node) == PLIST_ARRAY ? arrayValue(node, depth + 1)
                                                      : dictionaryValue(node, depth + 1);
    default:
      return failure(plistError(PropertyListErrorCode::Malformed,
                                "Property list holds an object of an unknown type"));
  }
}

// Splits "dir/name" into "dir/" (empty for a bare name) and "name".
std::pair<std::string, std::string> splitPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {"", path};
  }
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) {
    return failure(plistError(PropertyListErrorCode::Malformed, "Empty property list"));
  }
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    return failure(
        plistError(PropertyListErrorCode::TooLarge,
                   "Property list of " + std::to_string(bytes.size()) + " bytes is too large"));
  }
  const char* data = reinterpret_cast<const char*>(bytes.data());
  auto length = static_cast<std::uint32_t>(bytes.size());
  bool binary = length >= 8 && plist_is_binary(data, length);
  Result<void> preflight =
      binary ? preflightBinaryPropertyList(bytes) : preflightXmlPropertyList(bytes);
  if (!preflight) {
    return failure(preflight.error());
  }
  plist_t rawRoot = nullptr;
  plist_from_memory(data, length, &rawRoot);
  PlistPtr root(rawRoot);
  if (!root) {
    return failure(
        plistError(PropertyListErrorCode::Malformed,
                   binary ? "Damaged binary property list" : "The data is not a property list"));
  }
  return toValue(rawRoot, 0);
}

Result<Value> readPropertyListFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return failure(posixError(errno, "Could not open", path));
  }
  std::vector<std::uint8_t> bytes;
  struct stat st;
  if (::fstat(fd, &st) == 0 && st.st_size > 0 &&
      static_cast<std::uint64_t>(st.st_size) <= std::numeric_limits<std::uint32_t>::max()) {
    bytes.reserve(static_cast<std::size_t>(st.st_size));
  }
  std::uint8_t buffer[65536];
  while (true) {
    ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      int error = errno;
      ::close(fd);
      return failure(posixError(error, "Could not read", path));
    }
    if (count == 0) {
      break;
    }
    bytes.insert(bytes.end(), buffer, buffer + count);
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
      break;  // parsePropertyList refuses it with a clear error.
    }
  }
  ::close(fd);
  auto value = parsePropertyList(bytes);
  if (!value) {
    const ErrorPtr& error = value.error();
    return failure(makeError(error->domain, error->code,
                             error->localizedDescription() + " in \"" + path + "\"",
                             {{kPosixErrorPathKey, Value(path)}}));
  }
  return value;
}

std::string serializeXmlPropertyList(const Value& value) {
  XmlPropertyListWriter writer;
  writer.value(value);
  return writer.finish();
}

Result<void> writePropertyListAtomically(const Value& value, const std::string& path) {
  return writeFileAtomically(path, serializeXmlPropertyList(value));
}

Result<void> writeFileAtomically(const std::string& path, std::string_view bytes) {
  auto [directory, name] = splitPath(path);
  if (name.empty()) {
    return failure(posixError(EISDIR, "Could not write", path));
  }
  // Same directory, so that rename() replaces the target in one step on one file system.
  std::string temporary = directory + name + ".XXXXXX";
  int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) {
    return failure(posixError(errno, "Could not write", path));
  }
  auto fail = [&](int error) {
    if (fd >= 0) {
      ::close(fd);
    }
    ::unlink(temporary.c_str());
    return failure(posixError(error, "Could not write", path));
  };

  // mkostemp creates the file owner-only; a file being replaced keeps its permissions.
  struct stat existing;
  if (::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) &&
      ::fchmod(fd, existing.st_mode & 07777) != 0) {
    return fail(errno);
  }
  if (!writeAll(fd, bytes) || ::fsync(fd) != 0) {
    return fail(errno);
  }
  int closed = ::close(fd);
  fd = -1;
  if (closed != 0) {
    return fail(errno);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    return fail(errno);
  }
  // The rename is durable only once the directory entry is on disk.
  std::string directoryPath = directory.empty() ? "." : directory;
  int directoryFd = ::open(directoryPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directoryFd < 0) {
    return failure(posixError(errno, "Could not open the directory of", path));
  }
  int synced = ::fsync(directoryFd);
  int syncError = errno;
  ::close(directoryFd);
  if (synced != 0) {
    return failure(posixError(syncError, "Could not flush the directory of", path));
  }
  return {};
}

}  // namespace daskel::platform
