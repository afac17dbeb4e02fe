// LXEVENT_EXPORT: what lxevent shows to other libraries; everything else stays hidden.
#ifndef LXEVENT_EXPORT_H
#define LXEVENT_EXPORT_H

#include <QtGlobal>

#ifdef lxevent_EXPORTS
#define LXEVENT_EXPORT Q_DECL_EXPORT
#else
#define LXEVENT_EXPORT Q_DECL_IMPORT
#endif

#endif
