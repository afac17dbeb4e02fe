/// \file
/// What lxevent shows to other libraries.
#ifndef LXEVENT_EXPORT_H
#define LXEVENT_EXPORT_H

#include <QtGlobal>

/// \def LXEVENT_EXPORT
/// Marks what other libraries use; everything else stays hidden.
#ifdef lxevent_EXPORTS
#define LXEVENT_EXPORT Q_DECL_EXPORT
#else
#define LXEVENT_EXPORT Q_DECL_IMPORT
#endif

#endif
