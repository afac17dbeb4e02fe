/// \file
/// LXOBSERVE_EXPORT: what lxobserve shows to others; everything else stays hidden.
#ifndef LXOBSERVE_OBSERVEEXPORT_H
#define LXOBSERVE_OBSERVEEXPORT_H

#include <QtGlobal>

/// \def LXOBSERVE_EXPORT
/// Marks what the library shows to others.
#ifdef LXOBSERVE_BUILD
#define LXOBSERVE_EXPORT Q_DECL_EXPORT
#else
#define LXOBSERVE_EXPORT Q_DECL_IMPORT
#endif

#endif
