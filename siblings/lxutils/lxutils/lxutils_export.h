/// \file
/// What lxutils shows to other libraries.
#ifndef LXUTILS_EXPORT_H
#define LXUTILS_EXPORT_H

#include <QtGlobal>

/// \def LXUTILS_EXPORT
/// Marks what other libraries use; everything else stays hidden.
#ifdef lxutils_EXPORTS
#define LXUTILS_EXPORT Q_DECL_EXPORT
#else
#define LXUTILS_EXPORT Q_DECL_IMPORT
#endif

#endif
