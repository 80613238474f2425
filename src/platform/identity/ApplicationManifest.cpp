#include "platform/identity/ApplicationManifest.h"

#include <cerrno>

#include "platform/identity/TrustedFile.h"

namespace daskel::platform {
namespace {

ErrorPtr manifestError(ApplicationManifestError code, std::string description) {
  return makeError(kApplicationManifestErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description));
}

ErrorPtr malformed(std::string description) {
  return manifestError(ApplicationManifestError::Malformed, std::move(description));
}

}  // namespace

FileSignature FileSignature::of(const struct stat& st) {
  FileSignature signature;
  signature.device = st.st_dev;
  signature.inode = st.st_ino;
  signature.mode = st.st_mode;
  signature.owner = st.st_uid;
  signature.group = st.st_gid;
  signature.size = st.st_size;
  signature.mtimeSeconds = st.st_mtim.tv_sec;
  signature.mtimeNanoseconds = st.st_mtim.tv_nsec;
  signature.ctimeSeconds = st.st_ctim.tv_sec;
  signature.ctimeNanoseconds = st.st_ctim.tv_nsec;
  return signature;
}

FileSignature FileSignature::ofPath(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    FileSignature signature;
    signature.statError = errno;
    return signature;
  }
  return of(st);
}

Result<Application> readApplicationManifest(const std::string& path, FileSignature* signature) {
  auto manifest = readTrustedPropertyListFile(path, kMaxApplicationManifestSize, signature);
  if (!manifest) {
    // The reason reads the same in either domain; only the code is translated.
    const ErrorPtr& error = manifest.error();
    const bool untrusted = error && error->domain == kTrustedFileErrorDomain &&
                           error->code == static_cast<std::int64_t>(TrustedFileError::Untrusted);
    return failure(manifestError(
        untrusted ? ApplicationManifestError::Untrusted : ApplicationManifestError::Unreadable,
        error ? error->localizedDescription() : std::string()));
  }
  return applicationFromManifest(*manifest, path);
}

Result<Application> applicationFromManifest(const Value& manifest, const std::string& path) {
  if (!manifest.dictionary())
    return failure(malformed("not a dictionary"));

  Application application;
  application.manifestPath = path;

  const Value* bundleIdentifier = manifest.find("BundleIdentifier");
  if (!bundleIdentifier || !bundleIdentifier->string() || bundleIdentifier->string()->empty()) {
    return failure(malformed("BundleIdentifier is missing or not a non-empty string"));
  }
  application.bundleIdentifier = *bundleIdentifier->string();

  const Value* executables = manifest.find("Executables");
  if (!executables || !executables->array()) {
    return failure(malformed("Executables is missing or not an array"));
  }
  for (const Value& executable : *executables->array()) {
    const std::string* executablePath = executable.string();
    if (!executablePath)
      return failure(malformed("Executables holds a value that is not a string"));
    if (executablePath->empty() || executablePath->front() != '/') {
      return failure(
          malformed("Executables entry \"" + *executablePath + "\" is not an absolute path"));
    }
    application.executables.push_back(*executablePath);
  }

  const Value* entitlements = manifest.find("Entitlements");
  if (!entitlements || !entitlements->dictionary()) {
    return failure(malformed("Entitlements is missing or not a dictionary"));
  }
  application.entitlements = *entitlements;
  return application;
}

}  // namespace daskel::platform
