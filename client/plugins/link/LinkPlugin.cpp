#include "LinkPlugin.h"

#include "DeskRole.h"
#include "ExchangeRole.h"
#include "FeedRole.h"
#include "Subjects.h"

#include <Recordings.h>
#include <SyntheticSession.h>

#include <lxclient/Accounts.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QSysInfo>
#include <QThread>

#include <csignal>
#include <utility>

#include <unistd.h>

using lxclient::Error;
using namespace lxlink;
namespace setting = lxclient::setting;

namespace {

Q_LOGGING_CATEGORY(lcLink, "lxclient.link")

constexpr std::chrono::milliseconds TickInterval(100);
constexpr qint64 PresenceMs = 1000;
constexpr qint64 GoneAfterMs = 2900; // three signs of life are missing: told within 3 s
constexpr qint64 ClaimMs = 2500;
constexpr qint64 GoodForMs = 3'600'000; // an order that takes longer to the exchange is refused

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

QString hostName()
{
    return QSysInfo::machineHostName();
}

QString nameOf(const lxclient::Presence& presence)
{
    return (presence.role + QLatin1Char(' ') + presence.name).trimmed();
}

std::unique_ptr<QuoteSource> sourceOf(const QVariantMap& settings, Error& error)
{
    const QStringList files = settings.value(setting::Quotes).toStringList();
    if (files.isEmpty()) {
        return std::make_unique<SyntheticSession>(
            settings.value(setting::SyntheticSeed).toULongLong(),
            settings.value(setting::SyntheticQuotes).toInt());
    }
    auto recordings = std::make_unique<QuoteMerger>([](const QString& where, const QString& why) {
        qCWarning(lcLink).noquote().nospace() << where << ": " << why << "; row skipped";
    });
    error = recordings->open(files);
    return recordings;
}

} // namespace

LinkPlugin::LinkPlugin()
    : PluginBase(MessageThread)
{ }

LinkPlugin::~LinkPlugin()
{
    end();
}

// Connects, takes its name, and waits for what it has to know.
Error LinkPlugin::prepare(QVariantMap& settings, bool& complete, QString& waitingFor)
{
    if (!m_orders) {
        if (const Error error = begin(settings))
            return error;
    }
    bool fatal = false;
    for (Connection* const connection : {m_orders.get(), m_quotes.get()}) {
        if (!connection->isClosed())
            continue;
        const Error error = connection->open(fatal);
        if (error && fatal)
            return error;
        if (error) {
            waitingFor = QStringLiteral("the server, %1").arg(error.words());
            return {};
        }
    }
    bool claimed = false;
    if (const Error error = claim(claimed))
        return error;
    if (!claimed)
        return {};
    if (!m_thread.joinable()) {
        if (const Error error = m_role->open())
            return error;
        m_thread = std::thread([this] { run(); });
    }
    complete = m_role->knowsSymbols(settings);
    if (!complete)
        waitingFor = QStringLiteral("a feed, which says what can be quoted");
    return {};
}

Error LinkPlugin::begin(const QVariantMap& settings)
{
    m_access.server = settings.value(setting::Link).toString();
    const QString credentials = settings.value(setting::LinkCredentials).toString();
    if (!credentials.isEmpty()) {
        if (const Error error = Access::read(credentials, m_access))
            return error;
    }
    m_role_name = settings.value(setting::LinkRole).toString();
    m_desk = settings.value(setting::LinkDesk).toString();
    m_key = presenceKey(m_role_name, m_desk);
    m_access.inbox = "_INBOX." + QByteArray(m_key).replace('.', '-');
    m_instance = QRandomGenerator::system()->generate64();
    m_since_ms = nowMs();
    const QByteArray name = "lxclient " + m_key;
    const Connection::Events events{[this] { wake(); },
                                    [this](const QByteArray& subject) {
                                        {
                                            const std::lock_guard<std::mutex> locker(m_mutex);
                                            m_work.refused.append(subject);
                                        }
                                        wake();
                                    }};
    m_orders = std::make_unique<Connection>(m_access, name, Connection::Buffer::Small, events);
    m_quotes =
        std::make_unique<Connection>(m_access, name + " quotes", Connection::Buffer::None, events);
    const QString store = settings.value(setting::LinkStore).toString();
    Error error;
    if (m_role_name == QLatin1String("feed")) {
        std::optional<double> skipGapsS;
        if (settings.contains(setting::SkipGaps))
            skipGapsS = settings.value(setting::SkipGaps).toDouble();
        auto source = sourceOf(settings, error);
        m_role = std::make_unique<FeedRole>(*m_quotes, *this, std::move(source),
                                            settings.value(setting::Symbols).toStringList(),
                                            settings.value(setting::Speed).toDouble(), skipGapsS);
    } else if (m_role_name == QLatin1String("exchange")) {
        m_role = std::make_unique<ExchangeRole>(*m_orders, *m_quotes, *this, store);
    } else {
        m_role = std::make_unique<DeskRole>(
            *m_orders, *m_quotes, *this,
            DeskRole::Settings{m_desk, store, GoodForMs,
                               m_access.inbox + '.' + QByteArray::number(m_instance, 16)});
    }
    m_presence_reader =
        std::make_unique<Reader>(*m_orders, Reader::plain(AllPresence),
                                 [this](const Incoming& incoming) { meet(incoming); });
    return error;
}

// A name belongs to one client at a time. Whoever has had it may have been killed: then no sign of
// life comes any more.
Error LinkPlugin::claim(bool& claimed)
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_rival.isEmpty()) {
            return Error(
                QStringLiteral("there is %1 already, on %2")
                    .arg(QString::fromUtf8(m_key).replace(QLatin1Char('.'), QLatin1Char(' ')),
                         m_rival));
        }
    }
    claimed = m_thread.joinable();
    if (claimed)
        return {};
    if (!m_claiming.isValid()) {
        QByteArray value;
        if (m_orders->ensureBucket(PresenceBucket)
            || m_orders->lastValue(PresenceBucket, m_key, value))
            return {}; // the server is not ready; once more
        Presence last;
        claimed = value.isEmpty() || read(value.constData(), value.size(), last) || last.gone()
            || (QString::fromStdString(last.host()) == hostName()
                && kill(static_cast<pid_t>(last.pid()), 0) != 0 && errno == ESRCH);
        m_claiming.start();
    } else {
        claimed = m_claiming.hasExpired(ClaimMs);
    }
    return {};
}

Error LinkPlugin::onInitialise(const QVariantMap& settings)
{
    const QStringList symbols = settings.value(setting::Symbols).toStringList();
    for (const QString& symbol : symbols) {
        m_type_of_symbol.insert(symbol, lxclient::quoteType(settings, symbol));
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_put.insert(symbol, 0);
    }
    return {};
}

void LinkPlugin::onShutDown()
{
    end();
}

// Ends all threads, the last sign of life included.
void LinkPlugin::end()
{
    if (!m_role)
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
        m_role->finish();
        publishPresence(true);
        static_cast<void>(m_orders->isConnected() ? m_orders->flush() : Error());
    }
    m_presence_reader.reset();
}

void LinkPlugin::start()
{
    m_role->start();
    m_started = true;
    wake();
}

void LinkPlugin::stop()
{
    m_role->stop();
}

bool LinkPlugin::ended() const
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_rival.isEmpty())
            return true;
    }
    return m_role->ended(others());
}

lxclient::Report LinkPlugin::report() const
{
    lxclient::Report report;
    m_role->report(report);
    const std::lock_guard<std::mutex> locker(m_mutex);
    for (auto put = m_put.constBegin(); put != m_put.constEnd(); ++put)
        report.post(lxclient::account::quotesOf(put.key()), put.value());
    report.remarks.append((m_state.connected ? QStringLiteral("connected to %1")
                                             : QStringLiteral("NOT CONNECTED to %1"))
                              .arg(m_access.server));
    for (const Neighbour& other : m_neighbours) {
        report.remarks.append(nameOf(other.presence)
                              + (other.presence.present ? QStringLiteral(" is here")
                                     : other.left       ? QStringLiteral(" has left")
                                                        : QStringLiteral(" is GONE")));
    }
    report.faults = m_faults;
    return report;
}

// An order goes out because it was put with the send-to-net flag.
void LinkPlugin::onMessage(const QString& sender, int type, const QVariant& payload)
{
    if (type != lxclient::OrderType)
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_work.orders.append({sender, payload.value<lxclient::Order>()});
    }
    wake();
}

void LinkPlugin::letter(Letter letter)
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_work.letters.append(std::move(letter));
    }
    wake();
}

void LinkPlugin::putQuote(const lxclient::Quote& quote)
{
    const int type = m_type_of_symbol.value(quote.symbol, -1);
    if (type < 0) {
        warn(QStringLiteral("%1 is quoted, which the feed had not named when this session began; "
                            "passed over until the next one")
                 .arg(quote.symbol));
        return;
    }
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_put[quote.symbol] = quote.sequence;
    }
    PutQuotationMsg(id(), new CMessageCommon(id(), QString(), type, QVariant::fromValue(quote)));
}

void LinkPlugin::putNet(const QString& destination, int type, const QVariant& payload,
                        const QString& traceId)
{
    auto* const message = new CMessageCommon(id(), destination, type, payload);
    message->setTraceId(traceId);
    PutNetMsg(id(), message);
}

void LinkPlugin::fault(const QString& what)
{
    qCCritical(lcLink).noquote() << what;
    const std::lock_guard<std::mutex> locker(m_mutex);
    m_faults.append(what);
}

void LinkPlugin::warn(const QString& what)
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (std::exchange(m_last_warning, what) == what)
            return;
    }
    qCWarning(lcLink).noquote() << what;
}

void LinkPlugin::wake()
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_woken = true;
    }
    m_changed.notify_one();
}

void LinkPlugin::run()
{
    QThread::currentThread()->setObjectName(QStringLiteral("PluginNet_Link")); // in traces
    QElapsedTimer ticked;
    QElapsedTimer shown;
    quint64 generations = 0;
    bool started = false;
    for (;;) {
        Work work;
        {
            std::unique_lock<std::mutex> locker(m_mutex);
            m_changed.wait_for(locker, TickInterval, [this] { return m_stop || m_woken; });
            if (m_stop)
                return;
            m_woken = false;
            work = std::exchange(m_work, {});
        }
        bool fatal = false;
        for (Connection* const connection : {m_orders.get(), m_quotes.get()}) {
            // closed for good, as after two refusals of the password: made anew
            if (connection->isClosed() && (!ticked.isValid() || ticked.hasExpired(PresenceMs)))
                static_cast<void>(connection->open(fatal));
        }
        const quint64 now = m_orders->generation() + m_quotes->generation();
        const bool begins = m_started && !std::exchange(started, m_started.load());
        if (now != generations || begins) {
            generations = now;
            static_cast<void>(m_orders->ensureBucket(PresenceBucket));
            m_role->connected();
            shown.invalidate();
        }
        m_role->work(work);
        if (!ticked.isValid() || ticked.hasExpired(TickInterval.count())) {
            ticked.start();
            m_role->tick();
            sweep();
        }
        if (!shown.isValid() || shown.hasExpired(PresenceMs)) {
            shown.start();
            publishPresence(false);
            tellState();
        }
    }
}

// On the thread that reads the signs of life.
void LinkPlugin::meet(const Incoming& incoming)
{
    const QByteArray key = QByteArray(incoming.subject).mid(int(sizeof(AllPresence)) - 2);
    lxlink::Presence sign;
    if (const Error error = read(incoming.data, incoming.size, sign)) {
        warn(error.about(QString::fromUtf8(incoming.subject)).words());
        return;
    }
    const std::lock_guard<std::mutex> locker(m_mutex);
    if (key == m_key) {
        const auto theirs = std::make_pair<qint64, quint64>(sign.since_ms(), sign.instance());
        if (sign.instance() != m_instance && !sign.gone()
            && theirs < std::make_pair(m_since_ms, m_instance)) {
            m_rival = QStringLiteral("%1, process %2")
                          .arg(QString::fromStdString(sign.host()))
                          .arg(sign.pid());
        }
        return;
    }
    Neighbour& other = m_neighbours[key];
    const bool isNew = other.instance != sign.instance() || other.presence.present == sign.gone();
    other.instance = sign.instance();
    other.left = sign.gone();
    other.heard.start();
    other.presence = {QString::fromStdString(sign.role()),
                      QString::fromStdString(sign.name()),
                      QString::fromStdString(sign.program()),
                      sign.since_ms(),
                      nowMs(),
                      !sign.gone()};
    if (isNew)
        m_to_tell.append(other.presence);
}

// What is not heard any more has gone. While there is no connection nobody is heard.
void LinkPlugin::sweep()
{
    QVector<lxclient::Presence> changes;
    QString rival;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        for (Neighbour& other : m_neighbours) {
            if (other.presence.present && other.heard.hasExpired(GoneAfterMs)) {
                other.presence.present = false;
                m_to_tell.append(other.presence);
            }
        }
        if (m_started)
            changes = std::exchange(m_to_tell, {});
        rival = m_rival;
    }
    for (const lxclient::Presence& presence : qAsConst(changes)) {
        qCWarning(lcLink).noquote()
            << nameOf(presence) << (presence.present ? "is here" : "has gone");
        publish(lxclient::PresenceType, QVariant::fromValue(presence));
    }
    if (!rival.isEmpty() && m_started) {
        const QString what = QStringLiteral("another client has the same name: %1").arg(rival);
        bool known = false;
        {
            const std::lock_guard<std::mutex> locker(m_mutex);
            known = m_faults.contains(what);
        }
        if (!known)
            fault(what);
    }
}

void LinkPlugin::publishPresence(bool gone)
{
    lxlink::Presence sign;
    stamp(sign);
    sign.set_role(m_role_name.toStdString());
    sign.set_name(m_desk.toStdString());
    sign.set_program(QCoreApplication::applicationVersion().toStdString());
    sign.set_instance(m_instance);
    sign.set_since_ms(m_since_ms);
    sign.set_host(hostName().toStdString());
    sign.set_pid(static_cast<quint64>(getpid()));
    sign.set_gone(gone);
    if (m_orders->isConnected()) {
        static_cast<void>(
            m_orders->publish(QByteArray(AllPresence, int(sizeof(AllPresence)) - 2) + m_key,
                              sign.SerializeAsString()));
    }
}

void LinkPlugin::tellState()
{
    lxclient::LinkState state;
    bool changed = false;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        const bool connected = m_orders->isConnected() && m_quotes->isConnected();
        changed = m_state.since_ms == 0 || m_state.connected != connected;
        if (changed)
            m_state.since_ms = nowMs();
        m_state.connected = connected;
        m_state.server = m_access.server;
        state = m_state;
    }
    m_role->describe(state);
    if (changed) {
        qCWarning(lcLink).noquote()
            << (state.connected ? "connected to" : "no connection, reconnecting to")
            << m_access.server;
    }
    if (m_started)
        publish(lxclient::LinkStateType, QVariant::fromValue(state));
}

QVector<OtherClient> LinkPlugin::others() const
{
    QVector<OtherClient> others;
    const std::lock_guard<std::mutex> locker(m_mutex);
    for (const Neighbour& other : m_neighbours)
        others.append({other.presence.role, other.presence.name, other.left});
    return others;
}
