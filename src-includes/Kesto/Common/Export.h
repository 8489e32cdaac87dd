// What libEventKesto exports.
//
// The library is built with hidden visibility: a class, function or variable
// is part of its interface only when its declaration carries KESTO_EXPORT.
// What is declared only in the library's private headers stays inside it, so
// that its internals can change without breaking a program linked against
// it, and calls between its own functions bind directly.
#pragma once

#define KESTO_EXPORT __attribute__((visibility("default")))
