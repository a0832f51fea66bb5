// Must not build: the process runtime sits below the application.
#include "quay_tools_host/files/file_paths.h"
