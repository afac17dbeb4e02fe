// LXUTILS_EXPORT: what lxutils shows to other libraries; everything else stays hidden.
#ifndef LXUTILS_EXPORT_H
#define LXUTILS_EXPORT_H

#include <QtGlobal>

#ifdef lxutils_EXPORTS
#define LXUTILS_EXPORT Q_DECL_EXPORT
#else
#define LXUTILS_EXPORT Q_DECL_IMPORT
#endif

#endif
