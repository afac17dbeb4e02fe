// JournalPlugin: keeps a journal of the executions, and of the positions that they led to.
#ifndef LXCLIENT_JOURNALPLUGIN_H
#define LXCLIENT_JOURNALPLUGIN_H

#include "JournalKeeper.h"

#include <lxclient/PluginBase.h>

#include <QMutex>

#include <condition_variable>
#include <mutex>
#include <thread>

// Without a file in the setting "journal" nothing is written, only counted.
//
// Threads: a transaction waits for the disk, so handlers do no SQL. They append to the waiting
// batch, and a writer thread, the only one that touches the files, takes whatever has gathered
// since its last transaction and writes that in the next one. What the journal cannot take is said
// at once and written later (see JournalKeeper.h).
class JournalPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "journal.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    JournalPlugin();
    ~JournalPlugin() override;

    lxclient::Report report() const override;

private:
    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onShutDown() override;
    void onMessage(const QString& sender, int type, const QVariant& payload) override;
    void onEvent(const QString& sender, int type, const QVariant& payload) override;

    void write(JournalKeeper& keeper);
    void sayWhatChanged(const lxclient::Error& error);

    QString m_file_name; // constant after initialise

    std::thread m_writer;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed; // of m_waiting or m_stop
    // guarded by m_mutex
    JournalBatch m_waiting;
    bool m_stop = false;
    quint64 m_executions = 0;
    quint64 m_position_events = 0;
    JournalKeeper::Standing m_standing;
    lxclient::Error m_error; // why the last transaction failed; it is tried again
};

#endif
