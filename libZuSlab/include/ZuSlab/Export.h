// What libZuSlab exports: the library is built with hidden visibility, and
// only declarations that carry ZUSLAB_EXPORT are part of its interface.
#pragma once

#define ZUSLAB_EXPORT __attribute__((visibility("default")))
