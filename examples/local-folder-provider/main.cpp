// local-folder-provider: the example provider extension. The daemon starts it from its
// bundle; see README.md.
#include "LocalFolderProvider.h"

int main(int argc, char** argv) {
  daskel::examples::LocalFolderProvider provider;
  return daskel::sdk::run(provider, argc, argv);
}
