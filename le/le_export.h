/* Symbol export for the engine's C interface. */
#ifndef LE_EXPORT_H
#define LE_EXPORT_H

#if defined(LE_BUILDING_LIBRARY)
#define LE_API __attribute__((visibility("default")))
#else
#define LE_API
#endif

#endif
