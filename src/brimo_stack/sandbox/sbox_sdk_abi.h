// The C interface of the sandbox library (sbox/libsbox_sdk.so beside the program): the seven
// exports, the 112-byte init record and the callbacks. The wrapper and every library that
// stands behind it are built against this one header.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Called on the library's own threads with the context given in the init record.
typedef void (*SBoxSDK_FileAuditCallback)(void* context, uint32_t os_error_code, uint64_t context_a,
                                          uint64_t context_b, uint32_t action, uint32_t detail_a, uint32_t detail_b,
                                          const char* path, const char* second_path);
typedef void (*SBoxSDK_EventLineCallback)(void* context, const char* json_line);
typedef void (*SBoxSDK_ProcessCallback)(void* context, uint32_t state, uint64_t context_a, uint64_t context_b,
                                        const char* sbox_id);

// Zero except for the named fields; 112 bytes with these offsets on every platform.
typedef struct SBoxSDK_InitRecord {
  const char* log_dir;                        // 0, or null
  const char* dump_dir;                       // 8, or null
  const char* library_dir;                    // 16
  SBoxSDK_FileAuditCallback file_audit;       // 24
  void* file_audit_context;                   // 32
  SBoxSDK_EventLineCallback event_line;       // 40
  void* event_line_context;                   // 48
  uint8_t reserved_56[16];                    // 56
  SBoxSDK_ProcessCallback process;            // 72
  void* process_context;                      // 80
  uint8_t reserved_88[16];                    // 88
  const char* config;                         // 104
} SBoxSDK_InitRecord;

// The pair handed to SBoxSDK_CreateSandbox after the launch parameters.
typedef struct SBoxSDK_SandboxLaunch {
  const char* sbox_id;
  const char* config;
} SBoxSDK_SandboxLaunch;

// What SBoxSDK_CreateSandbox fills in on success: the child, a child of the calling process,
// and a pidfd for it (-1 when the kernel has none); the caller owns the descriptor.
typedef struct SBoxSDK_ProcessInfo {
  int32_t process_id;
  int32_t pidfd;
} SBoxSDK_ProcessInfo;

// Query kinds of SBoxSDK_GetSBoxInfo and the one action the host uses.
enum { SBOXSDK_QUERY_SANDBOX_IDS = 0, SBOXSDK_QUERY_ALIVE_PROCESSES = 1, SBOXSDK_QUERY_CALLBACK_SANDBOX_ID = 2 };
enum { SBOXSDK_ACTION_KILL_PROCESSES = 2 };

// A boolean result is the low byte of the int32_t; after a failure the library's error code is
// in errno, read at once by the caller.
typedef int32_t (*SBoxSDK_IsSBoxSupported_Fn)(const char* library_dir);
typedef int32_t (*SBoxSDK_Init_Fn)(const SBoxSDK_InitRecord* record);
typedef void (*SBoxSDK_UnInit_Fn)(void);
// Kinds 0 and 1 answer JSON text released with SBoxSDK_FreeSBoxInfo; kind 2 answers the
// sandbox id of a callback's two context words, owned by the library. Null when there is none.
typedef const char* (*SBoxSDK_GetSBoxInfo_Fn)(const char* sbox_id, uint32_t kind, uint64_t context_a,
                                             uint64_t context_b);
typedef void (*SBoxSDK_FreeSBoxInfo_Fn)(const char* info);
typedef int32_t (*SBoxSDK_Action_Fn)(const char* sbox_id, uint32_t action, uint64_t argument);
// Starts `executable` with `argv` and `envp` (null-terminated) in `cwd` (null: the caller's),
// on the three descriptors given, inside the sandbox that `launch` names and configures.
typedef int32_t (*SBoxSDK_CreateSandbox_Fn)(const char* executable, char* const* argv, char* const* envp,
                                            const char* cwd, int stdin_fd, int stdout_fd, int stderr_fd,
                                            SBoxSDK_ProcessInfo* process_info, const SBoxSDK_SandboxLaunch* launch);

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(SBoxSDK_InitRecord) == 112, "the init record is 112 bytes");
static_assert(offsetof(SBoxSDK_InitRecord, library_dir) == 16, "init record layout");
static_assert(offsetof(SBoxSDK_InitRecord, process) == 72, "init record layout");
static_assert(offsetof(SBoxSDK_InitRecord, config) == 104, "init record layout");
#endif
