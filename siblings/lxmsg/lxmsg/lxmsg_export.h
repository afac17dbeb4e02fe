/// \file
/// What lxmsg shows to other libraries.
#ifndef LXMSG_EXPORT_H
#define LXMSG_EXPORT_H

#include <QtGlobal>

/// \def LXMSG_EXPORT
/// Marks what other libraries use; everything else stays hidden.
#ifdef lxmsg_EXPORTS
#define LXMSG_EXPORT Q_DECL_EXPORT
#else
#define LXMSG_EXPORT Q_DECL_IMPORT
#endif

#endif
