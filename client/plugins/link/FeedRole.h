// FeedRole: plays quotes to all.
#ifndef LXCLIENT_LINK_FEEDROLE_H
#define LXCLIENT_LINK_FEEDROLE_H

#include "Role.h"

#include <QuotePacer.h>
#include <QuoteSource.h>

#include <QHash>
#include <QMutex>

#include <atomic>
#include <memory>
#include <thread>

namespace lxlink {

// The player's thread publishes each quote on the quote connection. The link's thread publishes the
// last of each symbol that has changed, ten times a second, and all of them whenever it is
// connected again; at the end how many there were.
class FeedRole : public Role
{
public:
    FeedRole(Connection& quotes, Post& post, std::unique_ptr<QuoteSource> source,
             QStringList symbols, double speed, std::optional<double> skipGapsS);
    ~FeedRole() override;

    lxclient::Error open() override { return {}; }
    void connected() override;
    void work(const Work&) override { }
    void tick() override;
    void start() override;
    void stop() override { m_pacer.stop(); }
    bool ended(const QVector<OtherClient>&) const override { return m_told_end; }
    void finish() override;
    void report(lxclient::Report& report) const override;

private:
    struct Line
    {
        Quote last;
        bool changed = false;
    };
    void play();
    void publishLast();

    Connection& m_quotes;
    Post& m_post;
    const QStringList m_symbols;
    const quint64 m_epoch;
    const std::unique_ptr<QuoteSource> m_source; // the player's
    QuotePacer m_pacer;
    std::thread m_player;

    // atomic: written by the player, by the link's thread
    std::atomic<bool> m_played{false};
    std::atomic<bool> m_told_end{false};
    bool m_has_stream = false; // the link's thread

    mutable QMutex m_mutex;
    QHash<QString, Line> m_lines; // by symbol; guarded by m_mutex
};

} // namespace lxlink

#endif
