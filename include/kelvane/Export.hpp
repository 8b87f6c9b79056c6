#pragma once

// Marks the public API. The libraries are built with hidden visibility, so a shared build
// exports what carries this mark and nothing else; in a static build it changes nothing a host
// can see.
#if defined(__GNUC__) || defined(__clang__)
#define KELVANE_EXPORT __attribute__((visibility("default")))
#else
#define KELVANE_EXPORT
#endif
