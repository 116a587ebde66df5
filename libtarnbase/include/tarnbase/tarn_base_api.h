/* tarn_base_api.h -- export and C-linkage macros shared by the base library's headers. */
#ifndef TARN_BASE_API_H
#define TARN_BASE_API_H

#if defined(TARNBASE_BUILDING)
#define TARNBASE_API __attribute__((visibility("default")))
#else
#define TARNBASE_API
#endif

#ifdef __cplusplus
#define TARNBASE_BEGIN_DECLS extern "C" {
#define TARNBASE_END_DECLS }
#else
#define TARNBASE_BEGIN_DECLS
#define TARNBASE_END_DECLS
#endif

#endif
