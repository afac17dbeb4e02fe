// LXBASE_EXPORT: what the bus shows to other libraries; everything else stays hidden.
#ifndef LXBASE_LXBASEEXPORT_H
#define LXBASE_LXBASEEXPORT_H

#include <QtGlobal>

#ifdef LXBASE_BUILD
#define LXBASE_EXPORT Q_DECL_EXPORT
#else
#define LXBASE_EXPORT Q_DECL_IMPORT
#endif

// For an inline member that must have one definition in the process: where inlines are hidden, the
// export of its class does not cover it; MSVC's does, and forbids a second one.
#ifdef _MSC_VER
#define LXBASE_EXPORT_INLINE
#else
#define LXBASE_EXPORT_INLINE LXBASE_EXPORT
#endif

#endif
