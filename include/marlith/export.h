/* What the shared library exports: everything else is built with hidden visibility. */
#ifndef MARLITH_EXPORT_H
#define MARLITH_EXPORT_H

#if defined(__GNUC__)
#define MARLITH_API __attribute__((visibility("default")))
#else
#define MARLITH_API
#endif

#endif /* MARLITH_EXPORT_H */
