// daskeld: the document-provider broker. It takes no options: every location comes from the
// environment (see --help), and it runs until the system stops it.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include <unistd.h>

#include "access_control/DKAccessControlStore.h"
#include "daemon/DKServer.h"
#include "platform/coordination/FileCoordinationService.h"
#include "platform/coordination/TransparentCoordination.h"
#include "platform/extensions/ExtensionHost.h"
#include "platform/extensions/ExtensionPidRegistry.h"
#include "platform/log/Log.h"
#include "provider/DKExtensionHostContext.h"
#include "provider/DKExtensionProvider.h"
#include "registry/DKExtensionProviderRegistry.h"
#include "service/DKRegistryServicerRegistry.h"
#include "service/DKServicerContext.h"

namespace {

constexpr char kUsage[] =
    "Usage: daskeld\n"
    "\n"
    "The Daskel document-provider broker. It serves the named service com.orvane.Daskel to\n"
    "client applications, starts the provider extensions it finds on demand, and keeps the\n"
    "access-control list of which provider may hand which item to which consumer. It takes\n"
    "no options and runs in the foreground until it is stopped.\n"
    "\n"
    "Environment (defaults for root / for other users):\n"
    "  DASKEL_RUNTIME_DIR            sockets and notifications\n"
    "                                (/run/daskel; $XDG_RUNTIME_DIR/daskel)\n"
    "  DASKEL_EXTENSIONS_PATH        provider extension bundles, ':'-separated\n"
    "                                (/usr/local/lib/daskel/extensions:/usr/lib/daskel/extensions;\n"
    "                                 $XDG_DATA_HOME/daskel/extensions)\n"
    "  DASKEL_APPLICATIONS_PATH      application manifests, ':'-separated\n"
    "                                (/etc/daskel/applications:/usr/share/daskel/applications;\n"
    "                                 $XDG_DATA_HOME/daskel/applications)\n"
    "  DASKEL_GROUP_CONTAINERS_DIR   app-group containers\n"
    "                                (/var/lib/daskel/group-containers;\n"
    "                                 $XDG_DATA_HOME/daskel/group-containers)\n"
    "  DASKEL_STATE_DIR              the sandbox-token key (/var/lib/daskel; $XDG_STATE_HOME/daskel)\n"
    "  HOME                          the access-control list: $HOME/Library/Daskel/AccessControl.plist\n"
    "  DASKEL_EXTENSION_IDLE_SECONDS idle extension processes stop after this (30)\n"
    "  DASKEL_LOG                    levels, e.g. 'global=7 console=7 file=6' (3 error, 5 notice,\n"
    "                                6 info, 7 debug; default 6)\n"
    "  DASKEL_LOG_FILE               also log to this file\n"
    "  DASKEL_COORDINATION_TIMEOUT_SECONDS\n"
    "                                how long an open() of a provided item may wait for its\n"
    "                                provider before it fails with EPERM (30)\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    std::fprintf(stderr, "daskeld: takes no arguments (got '%s')\n\n%s", argv[1], kUsage);
    return 2;
  }

  using namespace daskel;
  platform::DKLoggingInitialize();
  DKLogNotice("%s starting.", argv[0]);
  DKLogDebug("Debug logging enabled.");

  // Peers that close their end must not kill the daemon with SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);

  // Transparent file coordination (fanotify; needs CAP_SYS_ADMIN, else one notice line).
  // Follows the providers of the shared FileCoordinator; the daemon and the running
  // extension processes are exempt. Lives for the life of the process.
  static const auto transparentCoordination = platform::TransparentCoordination::start(
      platform::FileCoordinator::shared(),
      {.bound = platform::TransparentCoordination::boundFromEnvironment(),
       .isExemptProcess =
           [](pid_t pid) { return platform::ExtensionPidRegistry::shared().contains(pid); }});

  // The live platform: extension bundles under DASKEL_EXTENSIONS_PATH, run as processes with
  // the daemon-extension protocol on each request's connection.
  platform::ExtensionHostOptions hostOptions;
  hostOptions.supervisor.contextClass = DKExtensionHostContext::contextClass();
  auto extensionHost = std::make_shared<platform::ExtensionHost>(std::move(hostOptions));
  DKExtensionProviderRegistry::configureShared(
      {.matching = extensionHost,
       .providerPlatform = DKProviderPlatform::live(extensionHost, nullptr),
       .makeProvider = nullptr});
  DKExtensionProviderRegistry& registry = DKExtensionProviderRegistry::shared();

  auto server = DKServer::create(
      {.serviceName = {},
       .registry = &registry,
       .servicerContext =
           DKServicerContext::live(std::make_shared<DKRegistryServicerRegistry>(registry))});
  // The store is opened (and its file read) before the listener exists.
  server->setAccessControlStore(DKAccessControlStore::sharedStore());

  // Cooperative file coordination: the named service com.orvane.FileCoordination. Its name
  // is taken now and it serves once the first refresh has registered the providers, like the
  // daemon's own service, so an early read is never told that nobody owns its item. If it
  // cannot be made (it has logged why) the daemon serves without it.
  auto coordinationCreated = platform::FileCoordinationService::create({});
  const std::shared_ptr<platform::FileCoordinationService> coordinationService =
      coordinationCreated ? *coordinationCreated : nullptr;
  server->startCompletion([coordinationService] {
    if (coordinationService) {
      coordinationService->resume();
    }
  });

  if (server->listener() == nullptr) {
    // Another daemon holds the name, or the runtime directory is unusable; the listener has
    // said which. Staying up would serve nobody.
    DKLogError("Cannot listen on com.orvane.Daskel; exiting.");
    return 1;
  }

  // The main thread has nothing more to do: everything runs on dispatch queues.
  for (;;) {
    pause();
  }
}
