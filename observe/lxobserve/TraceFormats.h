/// \file
/// A trace of the bus, written for the viewers that draw timelines.
#ifndef LXOBSERVE_TRACEFORMATS_H
#define LXOBSERVE_TRACEFORMATS_H

#include <lxobserve/ObserveExport.h>

#include <QString>

class QIODevice;
struct BusTrace;

/// What can be done with a trace of the bus (`CBusMonitor::takeTrace`).
namespace lxobserve {

/// \{
/// Writes the trace to a device that is open for writing, and leaves that open: a track for each
/// thread with slices for puts, routing, batches, handler calls, registrations and UnReg; an arrow
/// from each put to each handler call that it led to, over the routing of network traffic; how many
/// items wait in each inbox as a counter; lost items and stalls as instants. Sender, destination,
/// type and trace ID are annotations. What has only one end in the trace, because the other was
/// overwritten, gets no arrow; a call without its beginning is left out, one without its end is
/// drawn to the end of the trace and says so.
///
/// Any thread; takes time, and some 100 bytes of memory for each record. False: the device has
/// refused something, and `error`, unless null, says why; what is written by then is of no use.

/// As a Perfetto trace (protobuf, `.pftrace`): smaller, and read by its viewer at any size.
LXOBSERVE_EXPORT bool writePerfetto(const BusTrace& trace, QIODevice& device,
                                    QString* error = nullptr);

/// As Chrome trace events (JSON): for the tracing page of Chromium, and for scripts. Times are
/// microseconds since the recording began.
LXOBSERVE_EXPORT bool writeChromeJson(const BusTrace& trace, QIODevice& device,
                                      QString* error = nullptr);
/// \}

} // namespace lxobserve

#endif
