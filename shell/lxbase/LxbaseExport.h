/// \file
/// LXBASE_EXPORT: what the bus shows to other libraries; everything else stays hidden.
#ifndef LXBASE_LXBASEEXPORT_H
#define LXBASE_LXBASEEXPORT_H

#include <QtGlobal>

/// \def LXBASE_EXPORT
/// Marks what the library shows to others.
#ifdef LXBASE_BUILD
#define LXBASE_EXPORT Q_DECL_EXPORT
#else
#define LXBASE_EXPORT Q_DECL_IMPORT
#endif

/// \def LXBASE_EXPORT_SINGLETON
/// Marks the accessors of the two singletons. They are inline in the library alone, and compiled
/// there in any case: an ELF module that compiled one would emit the object too, in the size that
/// its header says, and the first module in look-up order supplies it for all. MSVC imports the
/// inline members of an imported class instead, and forbids a second export within an exported one.
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
