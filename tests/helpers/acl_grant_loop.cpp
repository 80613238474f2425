// acl_grant_loop FILE PROVIDER CONSUMER: grants item-N, item-N+1, ... to CONSUMER for ever,
// where N is the number of items the file already holds for that pair, and writes each N to
// standard output once its grant has returned (and so has been written to FILE). Used by the
// crash-safety test, which kills it with SIGKILL at random moments.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "access_control/DKAccessControlStore.h"
#include "platform/plist/PropertyList.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s FILE PROVIDER CONSUMER\n", argv[0]);
    return 2;
  }
  const std::string file = argv[1];
  const std::string provider = argv[2];
  const std::string consumer = argv[3];

  long next = 0;
  if (auto root = daskel::platform::readPropertyListFile(file)) {
    if (const auto* p = root->find(provider)) {
      if (const auto* c = p->find(consumer)) {
        if (const auto* items = c->find(daskel::kAllowedItemIDsKey); items && items->array()) {
          next = static_cast<long>(items->array()->size());
        }
      }
    }
  }

  auto store = daskel::DKAccessControlStore::create(file, nullptr);
  for (;; ++next) {
    store->allowProviderWithIdentifier(provider, "item-" + std::to_string(next), consumer);
    std::string line = std::to_string(next) + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      return 1;
    }
  }
}
