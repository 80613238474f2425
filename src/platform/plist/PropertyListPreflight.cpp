#include "platform/plist/PropertyListPreflight.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

constexpr std::size_t kBinaryHeaderSize = 8;
constexpr std::size_t kBinaryTrailerSize = 32;
// Expanded objects a binary list may make: generous for real files (writers share repeated
// keys and values, so a list legitimately expands to a few times its object count) while a
// small file that fans one object out a million times is refused.
constexpr std::uint64_t kMinExpandedObjectLimit = std::uint64_t{1} << 22;
constexpr std::uint64_t kExpansionFactor = 16;

ErrorPtr plistError(PropertyListErrorCode code, std::string description) {
  return makeError(kPropertyListErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description));
}

ErrorPtr malformed(const std::string& why) {
  return plistError(PropertyListErrorCode::Malformed, "Damaged binary property list: " + why);
}

ErrorPtr tooDeep() {
  return plistError(
      PropertyListErrorCode::TooDeep,
      "Property list nested deeper than " + std::to_string(kMaxPropertyListNesting) + " levels");
}

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i) {
    value = (value << 8) | p[i];
  }
  return value;
}

struct BinaryLayout {
  std::span<const std::uint8_t> bytes;
  std::size_t offsetSize = 0;
  std::size_t refSize = 0;
  std::uint64_t objectCount = 0;
  std::uint64_t topObject = 0;
  std::uint64_t offsetTable = 0;
};

struct Children {
  bool container = false;
  std::vector<std::uint64_t> references;
};

// Whether object `index` is an array, set or dictionary, and the references it holds (for a
// dictionary: its keys, then its values).
Result<Children> childReferences(const BinaryLayout& layout, std::uint64_t index) {
  const std::uint8_t* table = layout.bytes.data() + layout.offsetTable;
  std::uint64_t offset = readBigEndian(table + index * layout.offsetSize, layout.offsetSize);
  // Objects live between the header and the offset table.
  if (offset < kBinaryHeaderSize || offset >= layout.offsetTable) {
    return failure(malformed("object offset out of range"));
  }
  std::uint8_t marker = layout.bytes[offset];
  std::uint8_t kind = marker >> 4;
  bool isArray = kind == 0xA || kind == 0xC;
  bool isDictionary = kind == 0xD;
  if (!isArray && !isDictionary) {
    return Children{};
  }
  std::uint64_t position = offset + 1;
  std::uint64_t count = marker & 0x0F;
  if (count == 0x0F) {
    // The count follows as an integer object: marker 0x1n, then 2^n big-endian bytes.
    if (position >= layout.offsetTable) {
      return failure(malformed("truncated container count"));
    }
    std::uint8_t countMarker = layout.bytes[position];
    std::size_t countSize = std::size_t{1} << (countMarker & 0x0F);
    if ((countMarker >> 4) != 0x1 || countSize > 8 ||
        layout.offsetTable - position - 1 < countSize) {
      return failure(malformed("bad container count"));
    }
    count = readBigEndian(layout.bytes.data() + position + 1, countSize);
    position += 1 + countSize;
  }
  std::uint64_t available = (layout.offsetTable - position) / layout.refSize;
  std::uint64_t references = isDictionary ? count * 2 : count;
  if (count > available || references > available) {
    return failure(malformed("container runs past the object table"));
  }
  Children children{true, {}};
  children.references.reserve(references);
  for (std::uint64_t i = 0; i < references; ++i) {
    std::uint64_t child =
        readBigEndian(layout.bytes.data() + position + i * layout.refSize, layout.refSize);
    if (child >= layout.objectCount) {
      return failure(malformed("object reference out of range"));
    }
    children.references.push_back(child);
  }
  return children;
}

bool startsWith(std::string_view text, std::size_t at, std::string_view prefix) {
  return text.compare(at, prefix.size(), prefix) == 0;
}

// The position just past `terminator` at or after `from`, or the end of `text`.
std::size_t skipPast(std::string_view text, std::size_t from, std::string_view terminator) {
  std::size_t found = text.find(terminator, from);
  return found == std::string_view::npos ? text.size() : found + terminator.size();
}

// True when the tag name starting at `at` is exactly `name`.
bool tagNameIs(std::string_view text, std::size_t at, std::string_view name) {
  if (!startsWith(text, at, name)) {
    return false;
  }
  std::size_t after = at + name.size();
  if (after >= text.size()) {
    return true;
  }
  char c = text[after];
  return c == '>' || c == '/' || c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace

Result<void> preflightBinaryPropertyList(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kBinaryHeaderSize + kBinaryTrailerSize) {
    return failure(malformed("too short"));
  }
  const std::uint8_t* trailer = bytes.data() + bytes.size() - kBinaryTrailerSize;
  BinaryLayout layout;
  layout.bytes = bytes;
  layout.offsetSize = trailer[6];
  layout.refSize = trailer[7];
  layout.objectCount = readBigEndian(trailer + 8, 8);
  layout.topObject = readBigEndian(trailer + 16, 8);
  layout.offsetTable = readBigEndian(trailer + 24, 8);
  std::uint64_t trailerStart = bytes.size() - kBinaryTrailerSize;
  if (layout.offsetSize < 1 || layout.offsetSize > 8 || layout.refSize < 1 || layout.refSize > 8) {
    return failure(malformed("bad integer sizes in the trailer"));
  }
  if (layout.objectCount == 0 || layout.topObject >= layout.objectCount) {
    return failure(malformed("bad object count"));
  }
  if (layout.offsetTable < kBinaryHeaderSize || layout.offsetTable > trailerStart ||
      (trailerStart - layout.offsetTable) / layout.offsetSize < layout.objectCount) {
    return failure(malformed("offset table out of range"));
  }

  const std::uint64_t expandedLimit =
      std::max(kMinExpandedObjectLimit, layout.objectCount * kExpansionFactor);
  enum class State : std::uint8_t { Unvisited, Open, Done };
  std::vector<State> state(layout.objectCount, State::Unvisited);
  // For finished objects: nesting height (0 for a scalar) and how many objects libplist
  // would create for them, saturated just above the limit.
  std::vector<std::uint16_t> height(layout.objectCount, 0);
  std::vector<std::uint64_t> expanded(layout.objectCount, 0);

  struct Frame {
    std::uint64_t object;
    bool container;
    std::vector<std::uint64_t> children;
    std::size_t next = 0;
    std::uint16_t height = 0;  // the largest height among finished children
    std::uint64_t expanded = 1;
  };
  std::vector<Frame> stack;

  auto open = [&](std::uint64_t object) -> Result<void> {
    auto children = childReferences(layout, object);
    if (!children) {
      return failure(children.error());
    }
    state[object] = State::Open;
    stack.push_back(Frame{object, children->container, std::move(children->references)});
    // Every frame on the stack but the top one is a container one level deeper.
    if (stack.size() > static_cast<std::size_t>(kMaxPropertyListNesting) + 1) {
      return failure(tooDeep());
    }
    return {};
  };

  if (auto opened = open(layout.topObject); !opened) {
    return opened;
  }
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next < frame.children.size()) {
      std::uint64_t child = frame.children[frame.next++];
      if (state[child] == State::Open) {
        return failure(malformed("object reference cycle"));
      }
      if (state[child] == State::Unvisited) {
        if (auto opened = open(child); !opened) {
          return opened;
        }
        continue;
      }
      frame.height = std::max(frame.height, height[child]);
      frame.expanded = std::min(frame.expanded + expanded[child], expandedLimit + 1);
      continue;
    }
    // A container is one level above its deepest child; an empty one is a level of its own.
    std::uint64_t object = frame.object;
    std::uint16_t finishedHeight = frame.container ? frame.height + 1 : 0;
    std::uint64_t finishedExpanded = frame.expanded;
    height[object] = finishedHeight;
    expanded[object] = finishedExpanded;
    state[object] = State::Done;
    stack.pop_back();
    if (!stack.empty()) {
      Frame& parent = stack.back();
      parent.height = std::max(parent.height, finishedHeight);
      parent.expanded = std::min(parent.expanded + finishedExpanded, expandedLimit + 1);
    }
    if (finishedHeight > kMaxPropertyListNesting) {
      return failure(tooDeep());
    }
  }
  if (expanded[layout.topObject] > expandedLimit) {
    return failure(plistError(
        PropertyListErrorCode::TooLarge,
        "Binary property list expands to more than " + std::to_string(expandedLimit) + " objects"));
  }
  return {};
}

Result<void> preflightXmlPropertyList(std::span<const std::uint8_t> bytes) {
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  int depth = 0;
  std::size_t position = 0;
  while ((position = text.find('<', position)) != std::string_view::npos) {
    if (startsWith(text, position, "<!--")) {
      position = skipPast(text, position + 4, "-->");
    } else if (startsWith(text, position, "<![CDATA[")) {
      position = skipPast(text, position + 9, "]]>");
    } else if (startsWith(text, position, "<?")) {
      position = skipPast(text, position + 2, "?>");
    } else if (startsWith(text, position, "<!")) {
      // A document type declaration; an internal subset in brackets may hold ">".
      std::size_t close = text.find_first_of("[>", position + 2);
      if (close != std::string_view::npos && text[close] == '[') {
        close = text.find(']', close);
      }
      position = close == std::string_view::npos ? text.size() : skipPast(text, close, ">");
    } else if (startsWith(text, position, "</")) {
      if (tagNameIs(text, position + 2, "array") || tagNameIs(text, position + 2, "dict")) {
        depth = std::max(0, depth - 1);
      }
      position = skipPast(text, position + 2, ">");
    } else {
      std::size_t end = text.find('>', position + 1);
      bool container =
          tagNameIs(text, position + 1, "array") || tagNameIs(text, position + 1, "dict");
      bool selfClosing = end != std::string_view::npos && text[end - 1] == '/';
      if (container && !selfClosing && ++depth > kMaxPropertyListNesting) {
        return failure(tooDeep());
      }
      position = end == std::string_view::npos ? text.size() : end + 1;
    }
  }
  return {};
}

}  // namespace daskel::platform
