// Must not build: the local runtime sits below the process runtime.
#include "process_runtime/native_process.h"
