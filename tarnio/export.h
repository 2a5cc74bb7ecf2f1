#pragma once

// TARNIO_EXPORT marks what the shared library exports; everything else is compiled with hidden
// visibility and stays internal to the library.

#define TARNIO_EXPORT __attribute__((visibility("default")))
