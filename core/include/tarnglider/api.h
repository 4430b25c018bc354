/* What every public header shares: the export mark and the C linkage brackets. The library's functions never
 * throw, never abort on input, and are safe to call from C, C++ or any language that can call C. */
#ifndef TARNGLIDER_API_H
#define TARNGLIDER_API_H

#if defined(_WIN32)
#define TARN_API
#else
#define TARN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define TARN_BEGIN_DECLS extern "C" {
#define TARN_END_DECLS }
#else
#define TARN_BEGIN_DECLS
#define TARN_END_DECLS
#endif

#endif
