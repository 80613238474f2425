// LogArgument and formatLogMessage: the printf-style formatting of the logging facility.
// Each directive is checked against the kind of its argument before anything is printed, so
// a wrong or missing argument yields "(?)" instead of undefined behaviour.
#include "platform/log/Log.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace daskel::platform {

namespace {

// One "%..." directive: flags, width and precision (kept as text for snprintf), the length
// modifier and the conversion character.
struct Directive {
  std::string flagsWidthPrecision;
  std::string_view length;
  char conversion = 0;
};

constexpr std::string_view kUnknownArgument = "(?)";

// Bits that an unsigned conversion keeps of a negative signed argument, as printf would
// after the usual conversions: "%u" of -1 is 4294967295, "%lu" of -1 is 18446744073709551615.
std::uint64_t reduceToLength(std::uint64_t value, std::string_view length) {
  if (length == "hh")
    return value & 0xffu;
  if (length == "h")
    return value & 0xffffu;
  if (length.empty())
    return value & 0xffffffffu;
  return value;
}

void appendFormatted(std::string& out, const char* printfFormat, auto value) {
  char buffer[128];
  int n = std::snprintf(buffer, sizeof buffer, printfFormat, value);
  if (n < 0) {
    out += kUnknownArgument;
  } else if (static_cast<size_t>(n) < sizeof buffer) {
    out.append(buffer, static_cast<size_t>(n));
  } else {
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), printfFormat, value);
    big.resize(static_cast<size_t>(n));
    out += big;
  }
}

bool isInteger(const LogArgument& a) {
  return a.kind() == LogArgument::Kind::Signed || a.kind() == LogArgument::Kind::Unsigned;
}

bool isText(const LogArgument& a) {
  return a.kind() == LogArgument::Kind::CString || a.kind() == LogArgument::Kind::Described;
}

void appendArgument(std::string& out, const Directive& d, const LogArgument* arg) {
  if (!arg) {
    out += kUnknownArgument;
    return;
  }
  const std::string& fwp = d.flagsWidthPrecision;
  switch (d.conversion) {
    case '@':
    case 's': {
      if (!isText(*arg))
        break;
      std::string text = arg->text();
      if (fwp.empty()) {
        out += text;
      } else {
        appendFormatted(out, ("%" + fwp + "s").c_str(), text.c_str());
      }
      return;
    }
    case 'd':
    case 'i':
      if (!isInteger(*arg))
        break;
      appendFormatted(out, ("%" + fwp + PRId64).c_str(), arg->asSigned());
      return;
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      if (!isInteger(*arg))
        break;
      std::uint64_t value = arg->asUnsigned();
      if (arg->kind() == LogArgument::Kind::Signed && arg->asSigned() < 0) {
        value = reduceToLength(value, d.length);
      }
      const char* conversion = d.conversion == 'u'   ? PRIu64
                               : d.conversion == 'x' ? PRIx64
                               : d.conversion == 'X' ? PRIX64
                                                     : PRIo64;
      appendFormatted(out, ("%" + fwp + conversion).c_str(), value);
      return;
    }
    case 'c':
      if (!isInteger(*arg))
        break;
      appendFormatted(out, ("%" + fwp + "c").c_str(), static_cast<int>(arg->asSigned()));
      return;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (arg->kind() != LogArgument::Kind::Real)
        break;
      appendFormatted(out, ("%" + fwp + d.conversion).c_str(), arg->asReal());
      return;
    case 'p':
      if (arg->kind() != LogArgument::Kind::Pointer)
        break;
      appendFormatted(out, ("%" + fwp + "p").c_str(), arg->asPointer());
      return;
    default:
      break;
  }
  out += kUnknownArgument;
}

}  // namespace

std::int64_t LogArgument::asSigned() const {
  switch (kind_) {
    case Kind::Signed:
      return signed_;
    case Kind::Unsigned:
      return static_cast<std::int64_t>(unsigned_);
    default:
      return 0;
  }
}

std::uint64_t LogArgument::asUnsigned() const {
  switch (kind_) {
    case Kind::Signed:
      return static_cast<std::uint64_t>(signed_);
    case Kind::Unsigned:
      return unsigned_;
    default:
      return 0;
  }
}

std::string LogArgument::text() const {
  switch (kind_) {
    case Kind::Signed:
      return std::to_string(signed_);
    case Kind::Unsigned:
      return std::to_string(unsigned_);
    case Kind::Real: {
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "%g", real_);
      return buffer;
    }
    case Kind::CString:
      return cstring_ ? std::string(cstring_) : std::string("(null)");
    case Kind::Described:
      return describe_ ? describe_(object_, size_) : std::string("(null)");
    case Kind::Pointer: {
      char buffer[32];
      std::snprintf(buffer, sizeof buffer, "%p", pointer_);
      return buffer;
    }
  }
  return std::string(kUnknownArgument);
}

std::string formatLogMessage(std::string_view format, std::initializer_list<LogArgument> args) {
  std::string out;
  out.reserve(format.size() + 16 * args.size());
  const LogArgument* next = args.begin();
  auto take = [&]() -> const LogArgument* { return next != args.end() ? next++ : nullptr; };

  size_t i = 0;
  while (i < format.size()) {
    size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      out.append(format.substr(i));
      break;
    }
    out.append(format.substr(i, percent - i));
    size_t j = percent + 1;
    if (j >= format.size()) {  // a lone "%" at the end
      out += '%';
      break;
    }
    if (format[j] == '%') {
      out += '%';
      i = j + 1;
      continue;
    }

    Directive d;
    size_t flagsStart = j;
    while (j < format.size() && format[j] != '\0' && std::strchr("-+ #0", format[j]))
      ++j;
    while (j < format.size() && format[j] >= '0' && format[j] <= '9')
      ++j;
    if (j < format.size() && format[j] == '.') {
      ++j;
      while (j < format.size() && format[j] >= '0' && format[j] <= '9')
        ++j;
    }
    d.flagsWidthPrecision = std::string(format.substr(flagsStart, j - flagsStart));
    size_t lengthStart = j;
    while (j < format.size() && format[j] != '\0' && std::strchr("hlqjzt", format[j]))
      ++j;
    d.length = format.substr(lengthStart, j - lengthStart);
    if (d.length == "q")
      d.length = "ll";
    if (j >= format.size()) {  // an unfinished directive: print it as it is
      out.append(format.substr(percent));
      break;
    }
    d.conversion = format[j];
    i = j + 1;

    if (d.conversion == '\0' || !std::strchr("@sdiuxXocfFeEgGaAp", d.conversion)) {
      // Not a conversion this facility knows (and never "%n"): print it as written and
      // leave the arguments alone.
      out.append(format.substr(percent, i - percent));
      continue;
    }
    appendArgument(out, d, take());
  }
  return out;
}

}  // namespace daskel::platform
