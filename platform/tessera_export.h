// Symbol visibility: the library is built with hidden symbols; everything a
// host (or a test) calls across the shared-library boundary carries TESSERA_API.
#pragma once

#if defined(_WIN32)
#if defined(TESSERA_BUILDING)
#define TESSERA_API __declspec(dllexport)
#else
#define TESSERA_API __declspec(dllimport)
#endif
#else
#define TESSERA_API __attribute__((visibility("default")))
#endif
