#pragma once
// Marks an unmangled entry point of a shared library; everything else is built hidden.
#define TELLAR_API extern "C" __attribute__((visibility("default")))
