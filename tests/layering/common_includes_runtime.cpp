// Must not build: the common layer sees nothing of the runtime above it.
#include "brimo_stack/local_runtime/host_launch_config.h"
