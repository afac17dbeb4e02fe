// LXMSG_EXPORT: what lxmsg shows to other libraries; everything else stays hidden.
#ifndef LXMSG_EXPORT_H
#define LXMSG_EXPORT_H

#include <QtGlobal>

#ifdef lxmsg_EXPORTS
#define LXMSG_EXPORT Q_DECL_EXPORT
#else
#define LXMSG_EXPORT Q_DECL_IMPORT
#endif

#endif
