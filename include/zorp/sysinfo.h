/* Facts about the library build and the machine it runs on. */
#ifndef ZORP_SYSINFO_H
#define ZORP_SYSINFO_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* Text for `key`: "compilation_date" (as __DATE__, "Mmm dd yyyy"), "author", "version"
   ("YYYY.MM.DD", the build date), "cpu_name", "cpu_threads" (processors online), "total_ram"
   ("N.NNN GiB"), "hostname"; "Invalid string parameter" for null or any other key. Machine
   facts are read afresh on every call and fall back to a fixed text such as "(unknown)".
   Owned by the library; valid until the next zorp_const_str call on this thread. */
ZORP_API const char* zorp_const_str(const char* key);

ZORP_EXTERN_C_END

#endif
