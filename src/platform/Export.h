// Which names the shared library shows: those of the public headers, marked with this, and nothing else.
//
// The libraries are compiled with hidden visibility. A class that is marked shows its operations, its table and its type, so that a
// host may call them, derive from it and catch it. The list of public headers is in src/CMakeLists.txt.
#pragma once

#define KESTROVA_EXPORT __attribute__((visibility("default")))
