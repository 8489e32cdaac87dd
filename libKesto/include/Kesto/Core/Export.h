// What libKesto exports: the library is built with hidden visibility, and
// only declarations that carry KESTO_CORE_EXPORT are part of its interface.
#pragma once

#define KESTO_CORE_EXPORT __attribute__((visibility("default")))
