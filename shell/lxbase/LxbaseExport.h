/// \file
/// LXBASE_EXPORT: what the bus shows to other libraries; everything else stays hidden.
#ifndef LXBASE_LXBASEEXPORT_H
#define LXBASE_LXBASEEXPORT_H

#include <QtGlobal>

#ifdef LXBASE_BUILD
#define LXBASE_EXPORT Q_DECL_EXPORT
#else
#define LXBASE_EXPORT Q_DECL_IMPORT
#endif

// The accessors of the two singletons are inline in the library alone, and compiled there in any
// case. An ELF module that compiled one would emit the object too, in the size that its header says,
// and the first module in look-up order supplies it for all. MSVC imports the inline members of an
// imported class instead, and forbids a second export within an exported class.
#if defined(_MSC_VER)
#define LXBASE_SINGLETON_BODIES
#define LXBASE_EXPORT_SINGLETON
#elif defined(LXBASE_BUILD)
#define LXBASE_SINGLETON_BODIES
#define LXBASE_EXPORT_SINGLETON __attribute__((used)) LXBASE_EXPORT
#else
#define LXBASE_EXPORT_SINGLETON LXBASE_EXPORT
#endif

#endif
