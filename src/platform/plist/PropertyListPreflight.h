// PropertyListPreflight: a cheap structural pass over property-list bytes before libplist sees
// them. libplist's readers recurse once per nesting level without a limit, and its binary
// reader expands every shared object reference into a copy; hostile input would overflow the
// stack or exhaust memory inside the library. This pass refuses such input up front.
//
// Internal to the plist module. Free functions without shared state; safe from any thread.
// Failures are error values in kPropertyListErrorDomain.
#pragma once

#include <cstdint>
#include <span>

#include "platform/value/Result.h"

namespace daskel::platform {

// For a binary property list ("bplist00"): walks the object table (trailer, offsets, object
// references), refusing references out of range, reference cycles, nesting deeper than
// kMaxPropertyListNesting, and more expanded objects than the file's size justifies.
Result<void> preflightBinaryPropertyList(std::span<const std::uint8_t> bytes);

// For an XML property list: a lexical scan (comments, CDATA, processing instructions and the
// document type skipped) that refuses <array>/<dict> nesting deeper than
// kMaxPropertyListNesting. Anything else is left to libplist's parser.
Result<void> preflightXmlPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace daskel::platform
