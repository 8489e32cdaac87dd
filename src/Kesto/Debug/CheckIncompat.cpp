#include <Kesto/Debug/Trace.h>

#include <dlfcn.h>

extern "C" {
// Exported (see its declaration) so that the dynamic linker resolves it like
// any other symbol: if a foreign library defined it first, this library reads
// that one.
int32_t platformLibPresenceFlag = 2;
}

namespace Kesto {

void checkIncompat() {
  // Read through the address the dynamic linker resolved, never through a
  // copy the compiler may have folded.
  const volatile int32_t* flag = &platformLibPresenceFlag;
  KESTO_ASSERT(*flag == 2, "Kesto", "a library incompatible with Kesto has been loaded");
  // Makes this library's symbols part of global resolution even when it was
  // loaded with RTLD_LOCAL; the handle is kept for the life of the process.
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&checkIncompat), &info) && info.dli_fname)
    dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
}

static_assert((RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL) == 0x105, "dlopen flags of the promotion to global");

} // namespace Kesto
