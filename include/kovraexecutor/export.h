#ifndef KOVRAEXECUTOR_EXPORT_H_
#define KOVRAEXECUTOR_EXPORT_H_

// The library is built with hidden visibility: only what is marked KOVRA_API
// (and the model schema's message classes) is exported from the shared object.
#if defined(__GNUC__)
#define KOVRA_API __attribute__((visibility("default")))
#else
#define KOVRA_API
#endif

#endif  // KOVRAEXECUTOR_EXPORT_H_
