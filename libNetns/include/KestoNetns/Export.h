// What libKestoNetns exports: the library is built with hidden visibility,
// and only declarations that carry KESTO_NETNS_EXPORT are part of its
// interface.
#pragma once

#define KESTO_NETNS_EXPORT __attribute__((visibility("default")))
