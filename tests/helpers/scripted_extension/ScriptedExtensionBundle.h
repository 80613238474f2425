// ScriptedExtensionBundle: lays out a bundle of the scripted test extension in a directory a
// test owns, ready to be found through DASKEL_EXTENSIONS_PATH:
//
//   <directory>/<name>.dkext/Info.plist   BundleIdentifier, BundleExecutable, OxExtension
//                                         (point com.orvane.daskel-nonui, document group),
//                                         Entitlements (the application group)
//   <directory>/<name>.dkext/<executable> a symbolic link to (or a copy of) the built
//                                         daskel_scripted_extension
//   <directory>/<name>.dkext/script       the script (see ExtensionScript.h)
//
// Files are 0644 (the executable 0755) and the bundle directory 0755, so the bundle passes the
// ownership rule. The call log is <bundle>/calls.log unless the script says otherwise.
//
// Use: link daskel_scripted_extension_bundle and add_dependencies(<test>
// daskel_scripted_extension); DASKEL_SCRIPTED_EXTENSION is then the executable's path.
// THREADING NOTES: plain functions on the test's own files; no shared state.
// Failure: layOut returns "" and sets `error` to what failed.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/extensions/ExtensionBundle.h"
#include "platform/plist/PropertyList.h"
#include "platform/value/Value.h"

namespace daskel::testing {

struct ScriptedExtensionBundle {
  std::string name = "Scripted";  // the bundle directory is <name>.dkext
  std::string identifier = "com.example.scripted";
  std::string group = "group.com.example.scripted";
  std::string executableName = "scripted-extension";
  std::string script;
  // A copy instead of a symbolic link (a test that replaces the executable, say).
  bool copyExecutable = false;
#ifdef DASKEL_SCRIPTED_EXTENSION
  std::string executable = DASKEL_SCRIPTED_EXTENSION;
#else
  std::string executable;
#endif

  platform::Value infoDictionary() const {
    using platform::Value;
    return Value(Value::Dictionary{
        {platform::kBundleIdentifierKey, Value(identifier)},
        {platform::kBundleExecutableKey, Value(executableName)},
        {platform::kOxExtensionKey,
         Value(Value::Dictionary{
             {platform::kOxExtensionPointIdentifierKey, Value("com.orvane.daskel-nonui")},
             {platform::kOxExtensionDaskelDocumentGroupKey, Value(group)},
         })},
        {platform::kEntitlementsKey,
         Value(Value::Dictionary{
             {platform::kApplicationGroupsEntitlement, Value(Value::Array{Value(group)})},
         })},
    });
  }

  // Writes the bundle into `directory` (which must exist); returns the bundle's path.
  std::string layOut(const std::string& directory, std::string* error = nullptr) const {
    namespace fs = std::filesystem;
    auto fail = [&](const std::string& what) {
      if (error) {
        *error = what;
      }
      return std::string();
    };
    const std::string bundle = directory + "/" + name + ".dkext";
    std::error_code ec;
    fs::create_directories(bundle, ec);
    if (ec || ::chmod(bundle.c_str(), 0755) != 0) {
      return fail("cannot make " + bundle + ": " + (ec ? ec.message() : std::strerror(errno)));
    }
    if (!writeFile(bundle + "/" + platform::kInfoPlistFileName,
                   platform::serializeXmlPropertyList(infoDictionary())) ||
        !writeFile(bundle + "/script", script)) {
      return fail("cannot write the files of " + bundle + ": " + std::strerror(errno));
    }
    if (executable.empty()) {
      return fail("no scripted extension executable given");
    }
    const std::string target = bundle + "/" + executableName;
    fs::remove(target, ec);
    if (copyExecutable) {
      fs::copy_file(executable, target, ec);
      if (ec || ::chmod(target.c_str(), 0755) != 0) {
        return fail("cannot copy " + executable + ": " + (ec ? ec.message() : std::strerror(errno)));
      }
    } else if (::symlink(executable.c_str(), target.c_str()) != 0) {
      return fail("cannot link " + target + ": " + std::strerror(errno));
    }
    return bundle;
  }

  // Replaces the script of the bundle at `bundlePath`.
  static bool writeScript(const std::string& bundlePath, const std::string& script) {
    return writeFile(bundlePath + "/script", script);
  }

  // The lines of the call log of the bundle at `bundlePath` (or of the log at `path`); empty
  // when nothing was recorded yet.
  static std::vector<std::string> calls(const std::string& bundlePath,
                                        const std::string& path = {}) {
    std::ifstream in(path.empty() ? bundlePath + "/calls.log" : path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    return lines;
  }

 private:
  static bool writeFile(const std::string& path, const std::string& bytes) {
    {
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out << bytes;
      if (!out.good()) {
        return false;
      }
    }
    return ::chmod(path.c_str(), 0644) == 0;
  }
};

}  // namespace daskel::testing
