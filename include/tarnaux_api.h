/* tarnaux_api.h -- export and C-linkage macros shared by libtarnaux's headers. */
#ifndef TARNAUX_API_H
#define TARNAUX_API_H

#if defined(TARNAUX_BUILDING)
#define TARNAUX_API __attribute__((visibility("default")))
#else
#define TARNAUX_API
#endif

#ifdef __cplusplus
#define TARNAUX_BEGIN_DECLS extern "C" {
#define TARNAUX_END_DECLS }
#else
#define TARNAUX_BEGIN_DECLS
#define TARNAUX_END_DECLS
#endif

#endif
