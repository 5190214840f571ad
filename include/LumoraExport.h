/* Symbol visibility for the Lumora Fusion libraries.
 * Everything is built with hidden visibility; only names marked LUMORA_API
 * are exported from the shared libraries. */
#ifndef LUMORA_EXPORT_H
#define LUMORA_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define LUMORA_API __attribute__((visibility("default")))
#else
#define LUMORA_API
#endif

#endif /* LUMORA_EXPORT_H */
