// The logging category of the bus, and the place in the source that a shared routine logs for.
// Internal: not installed.
#ifndef LXBASE_LXBASELOG_H
#define LXBASE_LXBASELOG_H

#include <QDebug>
#include <QLoggingCategory>

// Category "lxbase", all levels on by default: a host silences or opens the bus alone with the
// framework's filter rules, e.g. "lxbase.debug=false". A disabled level formats nothing.
const QLoggingCategory& lcLxbase();

namespace lxbase::detail {

// File, line and function of a record that is written by code shared between several units.
struct LogPlace
{
    const char* file;
    int line;
    const char* function;

    QMessageLogger logger() const
    {
        return QMessageLogger(file, line, function, lcLxbase().categoryName());
    }
};

} // namespace lxbase::detail

#define LXBASE_LOG_PLACE                                                                           \
    lxbase::detail::LogPlace                                                                       \
    {                                                                                              \
        __FILE__, __LINE__, Q_FUNC_INFO                                                            \
    }

#endif
