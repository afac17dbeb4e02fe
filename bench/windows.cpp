// What it costs to show quotes in windows: two tables of 50 symbols, 10,000 quotes a second, and
// three ways from the handler to the widget. Measured is the processor time of the whole process,
// the feed included, which is the same for all; "none" has no way to the widget. No display is
// needed: the widgets draw into memory, as with a window system that takes ready pictures.
#include "Bench.h"

#include <benchmark/benchmark.h>

#include <lxbase/MessageInterface.h>
#include <lxclient/Conflator.h>
#include <lxclient/Protocol.h>
#include <lxdefine/PluginID.h>
#include <lxmsg/MessageCommon.h>

#include <QApplication>
#include <QEventLoop>
#include <QMutex>
#include <QTableWidget>
#include <QTimer>

#include <sys/resource.h>

#include <array>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using lxclient::Quote;
using Clock = std::chrono::steady_clock;

constexpr int Symbols = 50;
constexpr int QuotesPerMs = 10;
constexpr auto WarmUp = 300ms;
constexpr auto Measured = 2s;
constexpr int Quotes = QuotesPerMs * static_cast<int>((WarmUp + Measured) / 1ms);

// One row for each symbol.
class Table : public QTableWidget
{
public:
    Table()
        : QTableWidget(Symbols, 3)
    {
        for (int row = 0; row < Symbols; ++row) {
            for (int column = 0; column < 3; ++column)
                setItem(row, column, new QTableWidgetItem);
        }
        resize(400, 800);
        show();
    }

    void show(const Quote& quote)
    {
        const int row = quote.symbol.toInt();
        item(row, 0)->setText(quote.bid.toString());
        item(row, 1)->setText(quote.ask.toString());
        item(row, 2)->setText(QString::number(quote.sequence));
    }
    using QTableWidget::show;
};

// A window on the bus. The ways override the handler.
class Board : public IMessageInterface
{
public:
    void RecvMsg(QString, QVariant, QVariant) override { }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant data) override
    {
        onQuote(data.value<Quote>());
    }

    Table table;

protected:
    virtual void onQuote(const Quote& /*quote*/) { }

    void show(const QHash<QString, Quote>& changed)
    {
        for (const Quote& quote : changed)
            table.show(quote);
    }
};

class Frame : public Board
{
public:
    static constexpr auto Name = "frame";

private:
    void onQuote(const Quote& quote) override { m_quotes.put(quote.symbol, quote); }

    lxclient::Conflator<QString, Quote> m_quotes{this,
                                                 [this](const auto& changed) { show(changed); }};
};

class Refresh : public Board
{
public:
    static constexpr auto Name = "refresh";

private:
    void onQuote(const Quote& quote) override
    {
        bool pending = false;
        {
            const QMutexLocker locker(&m_mutex);
            m_changed.insert(quote.symbol, quote);
            pending = std::exchange(m_pending, true);
        }
        if (!pending)
            QMetaObject::invokeMethod(
                this, [this] { refresh(); }, Qt::QueuedConnection);
    }

    void refresh()
    {
        QHash<QString, Quote> changed;
        {
            const QMutexLocker locker(&m_mutex);
            changed.swap(m_changed);
            m_pending = false;
        }
        show(changed);
    }

    QMutex m_mutex;
    QHash<QString, Quote> m_changed; // guarded by m_mutex, like m_pending
    bool m_pending = false;
};

class Each : public Board
{
public:
    static constexpr auto Name = "each";

private:
    void onQuote(const Quote& quote) override
    {
        QMetaObject::invokeMethod(
            this, [this, quote] { table.show(quote); }, Qt::QueuedConnection);
    }
};

class None : public Board
{
public:
    static constexpr auto Name = "none";
};

void putQuotes()
{
    const QString& net = PluginID::PLUGINNET_GLOBALID;
    std::vector<QString> names;
    for (int symbol = 0; symbol < Symbols; ++symbol)
        names.push_back(QString::number(symbol));
    auto due = Clock::now();
    for (int number = 0; number < Quotes; ++number) {
        if (number % QuotesPerMs == 0)
            std::this_thread::sleep_until(due += 1ms);
        const int symbol = number % Symbols;
        Quote quote;
        quote.symbol = names[static_cast<std::size_t>(symbol)];
        quote.sequence = static_cast<quint64>(number);
        quote.bid = {100000 + number % 977, 5};
        quote.ask = {100020 + number % 977, 5};
        CRegManager::PutQuotationMsg(net,
                                     new CMessageCommon(net, QString(),
                                                        lxclient::FirstQuoteType + symbol,
                                                        QVariant::fromValue(quote)));
    }
}

double processorSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void runEventLoop(std::chrono::milliseconds time)
{
    QEventLoop loop;
    QTimer::singleShot(time, &loop, &QEventLoop::quit);
    loop.exec();
}

template<class Way>
void windows(benchmark::State& state)
{
    for (auto _ : state) {
        std::array<Way, 2> boards;
        std::vector<std::unique_ptr<bench::Registration>> registrations;
        for (Way& board : boards) {
            const QString id = QStringLiteral("Board%1").arg(registrations.size());
            for (int symbol = 0; symbol < Symbols; ++symbol)
                board.Sub(id, lxclient::FirstQuoteType + symbol, IMessageInterface::OperAdd);
            registrations.push_back(std::make_unique<bench::Registration>(
                id, board, IMessageInterface::QuotationThread));
        }
        std::thread producer(putQuotes);
        runEventLoop(WarmUp);
        const double before = processorSeconds();
        const auto begin = Clock::now();
        runEventLoop(Measured);
        const std::chrono::duration<double> passed = Clock::now() - begin;
        state.counters["cores"] = (processorSeconds() - before) / passed.count();
        producer.join();

        if (!std::is_same_v<Way, None>) {
            const auto shown = [](const Way& board) {
                return board.table.item((Quotes - 1) % Symbols, 2)->text().toInt() == Quotes - 1;
            };
            const auto deadline = Clock::now() + bench::Deadline;
            while (!shown(boards[0]) || !shown(boards[1])) {
                if (Clock::now() > deadline)
                    bench::fail("a window does not show the last quote");
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            }
        }
        registrations.clear();
        bench::Registration::deleteRetiredWorkers();
    }
}

template<class Way>
void add()
{
    benchmark::RegisterBenchmark((std::string("windows/") + Way::Name).c_str(), windows<Way>)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

void registerBenchmarks()
{
    lxclient::registerPayloads();
    add<Frame>();
    add<Refresh>();
    add<Each>();
    add<None>();
}

} // namespace

int main(int argc, char** argv)
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    const QApplication application(argc, argv);
    return bench::run(argc, argv, registerBenchmarks);
}
