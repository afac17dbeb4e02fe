// Options: the command line of lxclient.
#ifndef LXCLIENT_OPTIONS_H
#define LXCLIENT_OPTIONS_H

#include <lxbase/MessageCenter.h>
#include <lxbase/RelationColor.h>
#include <lxclient/Error.h>

#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

enum ExitCode {
    ExitBalanced = 0,
    ExitBadCommandLine = 1, // the framework's own for it
    ExitCannotStart = 2,
    ExitUnbalanced = 3, // or a plugin had to be left as it was
};

struct Options
{
    QStringList plugin_folders; // in the order in which they are read
    QStringList recordings;     // empty: a synthetic session
    double speed = 0;           // times real time; 0: as fast as possible
    int synthetic_quotes = 0;
    quint64 synthetic_seed = 0;
    int boards = 0;
    bool boards_keep_latest = false;
    QMap<RelationColor_t, QStringList> links; // plugin IDs by colour, each ID once
    bool links_by_default = false;            // not asked for: they need not exist
    QString link_server;                      // nats://HOST:PORT; empty: not linked
    QString link_role;                        // feed, exchange or desk
    QString link_desk;                        // the desk's name
    QString link_store;                       // the file of the desk or the exchange
    QString link_credentials;                 // a file; empty: none
    QString record_file;
    QString journal_file;
    CMessageCenter::IdlePolicy idle = CMessageCenter::IdlePolicy::Park;
    bool verbose = false;
    std::optional<int> metrics_port;        // 0: any; none: no metrics
    bool statistics = false;                // at the end
    int stall_limit_ms = 0;                 // 0: none
    std::optional<double> skip_gaps_s;      // longer waits for a quote are left out; none: no wait
    int plugin_deadline_ms = 0;             // of the host's calls; 0: none
    bool quiet = false;                     // no progress
    QString trace_file;                     // empty: none is written
    int trace_mib = 0;                      // of records, at most
    QString follow;                         // a trace ID whose way is told; empty: none
    bool stay = false;                      // at the end, until it is interrupted
    QMap<QString, QString> plugin_settings; // given with --set, by name
    bool list_settings = false;             // and no more
    bool windows = false;                   // plugins may open some

    // From the arguments of the program. Does not return if they ask for help or the version.
    static lxclient::Error parse(const QStringList& arguments, Options& options);

    // Where the plugins are unless the user says otherwise: beside the program in the build tree,
    // in the library folder once installed.
    static QString defaultPluginFolder();
};

#endif
