// LXBASE_EXPORT: what the bus shows to other libraries; everything else stays hidden.
#ifndef LXBASE_LXBASEEXPORT_H
#define LXBASE_LXBASEEXPORT_H

#include <QtGlobal>

#ifdef LXBASE_BUILD
#define LXBASE_EXPORT Q_DECL_EXPORT
#else
#define LXBASE_EXPORT Q_DECL_IMPORT
#endif

#endif
