// QuoteReceiver: the feed's quotes, newest wins.
#ifndef LXCLIENT_LINK_QUOTERECEIVER_H
#define LXCLIENT_LINK_QUOTERECEIVER_H

#include "Connection.h"
#include "Role.h"

#include <QMutex>

#include <atomic>
#include <optional>
#include <string>
#include <unordered_map>

namespace lxlink {

// Reads the quotes as they are published, and from the stream the last of each symbol: who comes
// late has one of each at once, and what was missed is healed by it. One thread of its own takes
// both and gives each quote that is newer than the last one of its symbol to `deliver`, numbered
// from 1 on without gaps for this session. Numbers that did not come are counted. While `crowded`
// says that the receivers are behind, only the newest quote of each symbol is kept for them.
class QuoteReceiver
{
public:
    using Deliver = std::function<void(const lxclient::Quote&)>;

    QuoteReceiver(Connection& connection, Post& post, Deliver deliver,
                  std::function<bool()> crowded);

    // Reads the directory and the last values from now on.
    void read();
    // Gives quotes on from now on.
    void begin() { m_begun = true; }
    // No more quotes. Main thread; waits for the threads.
    void end();

    // Any thread.
    std::optional<QStringList> symbols() const; // none: no feed has told them
    bool isThrough() const { return m_through; }
    qint64 ageMs() const; // since the last quote; -1: none
    quint64 received() const { return m_received; }
    quint64 missed() const { return m_missed; }
    void post(lxclient::Report& report) const; // once the feed has said how many there were

private:
    struct Line
    {
        quint64 epoch = 0;
        quint64 sequence = 0;
        quint64 delivered = 0;
    };
    void takeQuote(const Incoming& incoming);
    void takeLast(const Incoming& incoming);
    void take(const Quote& quote);
    void flush();
    void idle();
    void closeBooks();

    Connection& m_connection;
    Post& m_post;
    const Deliver m_deliver;
    const std::function<bool()> m_crowded;
    std::atomic<bool> m_begun{false}; // set by the main thread

    // the quote thread's
    std::unordered_map<std::string, Line> m_lines;
    std::unordered_map<std::string, Quote> m_held; // the newest, while it is crowded
    quint64 m_taken = 0;
    bool m_is_crowded = false;
    quint64 m_epoch = 0;

    // atomic: written by the quote thread
    std::atomic<bool> m_through{false};
    std::atomic<quint64> m_received{0};
    std::atomic<quint64> m_missed{0};
    std::atomic<qint64> m_last_ns{0}; // steady; 0: never

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QVector<Quote> m_from_last; // read from the stream, for the quote thread
    std::optional<QStringList> m_symbols;
    quint64 m_directory_epoch = 0;
    std::optional<End> m_end;
    QVector<QPair<QString, quint64>> m_totals; // received or missed, once it is through

    std::unique_ptr<Reader> m_quotes;
    std::unique_ptr<Reader> m_last;
};

} // namespace lxlink

#endif
