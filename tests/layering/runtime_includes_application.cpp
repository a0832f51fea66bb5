// Must not build: the runtime layer sees nothing of the application above it.
#include "quay_tools_host/files/file_paths.h"
