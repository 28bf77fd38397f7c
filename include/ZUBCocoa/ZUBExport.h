// Symbol visibility of the public surface. The library builds with hidden visibility;
// what a host or a plug-in may call is marked ZUB_EXPORT.
#pragma once

#if defined(ZUB_STATIC)
#define ZUB_EXPORT
#elif defined(ZUB_BUILDING_LIBRARY)
#define ZUB_EXPORT __attribute__((visibility("default")))
#else
#define ZUB_EXPORT
#endif

#ifdef __cplusplus
#define ZUB_EXTERN_C extern "C"
#else
#define ZUB_EXTERN_C extern
#endif
